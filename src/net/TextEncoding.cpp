#include "net/TextEncoding.h"

#include <unicode/ucnv.h>
#include <unicode/ustring.h>

#include <memory>
#include <vector>

#include "core/Strings.h"

namespace lectern {
namespace {

struct ConverterCloser {
  void operator()(UConverter* converter) const { ucnv_close(converter); }
};
using Converter = std::unique_ptr<UConverter, ConverterCloser>;

Converter openStrictConverter(std::string_view charset) {
  UErrorCode status = U_ZERO_ERROR;
  Converter converter(ucnv_open(std::string(charset).c_str(), &status));
  if (U_FAILURE(status)) return nullptr;
  ucnv_setToUCallBack(converter.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
  ucnv_setFromUCallBack(converter.get(), UCNV_FROM_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
  if (U_FAILURE(status)) return nullptr;
  return converter;
}

}  // namespace

bool isUTF8Charset(std::string_view charset) {
  return equalsIgnoringASCIICase(charset, "utf-8") || equalsIgnoringASCIICase(charset, "utf8");
}

bool isLatin1Charset(std::string_view charset) {
  return equalsIgnoringASCIICase(charset, "iso-8859-1") || equalsIgnoringASCIICase(charset, "latin1") ||
         equalsIgnoringASCIICase(charset, "iso_8859-1") || equalsIgnoringASCIICase(charset, "l1");
}

std::optional<std::string> encodeText(std::string_view utf8, std::string_view charset) {
  if (!isValidUTF8(utf8)) return std::nullopt;
  if (isUTF8Charset(charset)) return std::string(utf8);
  auto converter = openStrictConverter(charset);
  if (!converter) return std::nullopt;
  UErrorCode status = U_ZERO_ERROR;
  int32_t length16 = 0;
  u_strFromUTF8(nullptr, 0, &length16, utf8.data(), static_cast<int32_t>(utf8.size()), &status);
  if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) return std::nullopt;
  std::vector<UChar> utf16(static_cast<size_t>(length16) + 1);
  status = U_ZERO_ERROR;
  u_strFromUTF8(utf16.data(), length16 + 1, nullptr, utf8.data(), static_cast<int32_t>(utf8.size()), &status);
  if (U_FAILURE(status)) return std::nullopt;
  std::string out(
      static_cast<size_t>(UCNV_GET_MAX_BYTES_FOR_STRING(length16, ucnv_getMaxCharSize(converter.get()))) + 1,
      '\0');
  status = U_ZERO_ERROR;
  const int32_t written = ucnv_fromUChars(converter.get(), out.data(), static_cast<int32_t>(out.size()),
                                          utf16.data(), length16, &status);
  if (U_FAILURE(status)) return std::nullopt;
  out.resize(static_cast<size_t>(written));
  return out;
}

std::optional<std::string> decodeText(std::string_view bytes, std::string_view charset) {
  if (isUTF8Charset(charset)) {
    if (!isValidUTF8(bytes)) return std::nullopt;
    return std::string(bytes);
  }
  if (isLatin1Charset(charset)) return latin1ToUTF8(bytes);
  auto converter = openStrictConverter(charset);
  if (!converter) return std::nullopt;
  std::vector<UChar> utf16(bytes.size() * 2 + 2);
  UErrorCode status = U_ZERO_ERROR;
  const int32_t length16 = ucnv_toUChars(converter.get(), utf16.data(), static_cast<int32_t>(utf16.size()),
                                         bytes.data(), static_cast<int32_t>(bytes.size()), &status);
  if (U_FAILURE(status)) return std::nullopt;
  int32_t length8 = 0;
  status = U_ZERO_ERROR;
  u_strToUTF8(nullptr, 0, &length8, utf16.data(), length16, &status);
  if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) return std::nullopt;
  std::string out(static_cast<size_t>(length8) + 1, '\0');
  status = U_ZERO_ERROR;
  u_strToUTF8(out.data(), length8 + 1, nullptr, utf16.data(), length16, &status);
  if (U_FAILURE(status)) return std::nullopt;
  out.resize(static_cast<size_t>(length8));
  return out;
}

long stringEncodingNumber(std::string_view charset) {
  if (isUTF8Charset(charset)) return 4;
  if (isLatin1Charset(charset)) return 5;
  if (equalsIgnoringASCIICase(charset, "us-ascii") || equalsIgnoringASCIICase(charset, "ascii")) return 1;
  if (equalsIgnoringASCIICase(charset, "windows-1252")) return 12;
  if (equalsIgnoringASCIICase(charset, "utf-16")) return 10;
  return 0;
}

}  // namespace lectern
