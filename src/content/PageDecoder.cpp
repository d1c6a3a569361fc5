#include "content/PageDecoder.h"

#include <unicode/ucnv.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

#include "core/Strings.h"

namespace lectern {
namespace {

// Saved pages often carry long comments or inline scripts ahead of their <meta>, so the
// prescan reaches further than the 1024 bytes browsers look at.
constexpr size_t kPrescanBytes = 8192;

constexpr std::string_view kUTF8 = "UTF-8";
constexpr std::string_view kWindows1252 = "windows-1252";

constexpr std::string_view kUTF8Replacement = "\xEF\xBF\xBD";

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f'; }

size_t findIgnoringCase(std::string_view haystack, std::string_view needle, size_t from) {
  if (needle.empty() || haystack.size() < needle.size()) return std::string_view::npos;
  for (size_t i = from; i + needle.size() <= haystack.size(); ++i) {
    if (equalsIgnoringASCIICase(haystack.substr(i, needle.size()), needle)) return i;
  }
  return std::string_view::npos;
}

// The value after "charset" in one <meta ...> tag: charset="x", charset=x, or
// content="text/html; charset=x".
std::string charsetInTag(std::string_view tag) {
  for (size_t at = findIgnoringCase(tag, "charset", 0); at != std::string_view::npos;
       at = findIgnoringCase(tag, "charset", at + 1)) {
    size_t i = at + 7;
    while (i < tag.size() && isSpace(tag[i])) ++i;
    if (i >= tag.size() || tag[i] != '=') continue;
    ++i;
    while (i < tag.size() && isSpace(tag[i])) ++i;
    if (i < tag.size() && (tag[i] == '"' || tag[i] == '\'')) ++i;
    const size_t begin = i;
    while (i < tag.size() && !isSpace(tag[i]) && tag[i] != '"' && tag[i] != '\'' && tag[i] != ';' &&
           tag[i] != '>' && tag[i] != '/') {
      ++i;
    }
    if (i > begin) return std::string(tag.substr(begin, i - begin));
  }
  return {};
}

// The converter name for a charset label. Labels browsers treat as another set map to it: a
// page that says Latin-1 or ASCII is read as windows-1252, GB2312 and GBK as their superset.
std::string converterName(std::string_view label, bool fromMeta) {
  const std::string name = toLowerASCII(trimView(label));
  static constexpr std::array<std::string_view, 14> kWindows1252Labels = {
      "iso-8859-1", "iso8859-1", "iso_8859-1", "latin1",      "l1",     "us-ascii",       "ascii",
      "cp819",      "ibm819",    "iso-ir-100", "csisolatin1", "cp1252", "x-user-defined", "windows-1252"};
  static constexpr std::array<std::string_view, 6> kGbLabels = {"gb2312",  "gbk",      "x-gbk",
                                                                "chinese", "csgb2312", "gb_2312-80"};
  if (std::find(kWindows1252Labels.begin(), kWindows1252Labels.end(), name) != kWindows1252Labels.end()) {
    return std::string(kWindows1252);
  }
  if (std::find(kGbLabels.begin(), kGbLabels.end(), name) != kGbLabels.end()) return "GB18030";
  // A <meta> was read by an ASCII prescan, so the page cannot really be UTF-16.
  if (fromMeta && name.starts_with("utf-16")) return std::string(kUTF8);
  if (name == "utf-8" || name == "utf8" || name == "unicode-1-1-utf-8") return std::string(kUTF8);
  return name;
}

bool converterExists(const std::string& name) {
  UErrorCode status = U_ZERO_ERROR;
  UConverter* converter = ucnv_open(name.c_str(), &status);
  if (converter) ucnv_close(converter);
  return U_SUCCESS(status) && converter != nullptr;
}

// `bytes` converted to UTF-8 with `name`; nothing when ICU has no such converter.
std::optional<std::string> convert(std::string_view bytes, const std::string& name) {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<UConverter, decltype(&ucnv_close)> converter(ucnv_open(name.c_str(), &status), &ucnv_close);
  if (U_FAILURE(status) || !converter) return std::nullopt;
  const auto sourceLength = static_cast<int32_t>(bytes.size());
  // Three UTF-8 bytes per source byte covers every single-byte set. A large page gets less
  // (its markup is ASCII) and is measured first when that is not enough.
  constexpr size_t kGenerousUpTo = 4 * 1024 * 1024;
  const size_t guess = bytes.size() <= kGenerousUpTo ? bytes.size() * 3 : bytes.size() + bytes.size() / 2;
  std::string out(guess + 16, '\0');
  int32_t length = ucnv_toAlgorithmic(UCNV_UTF8, converter.get(), out.data(),
                                      static_cast<int32_t>(out.size()), bytes.data(), sourceLength, &status);
  if (status == U_BUFFER_OVERFLOW_ERROR) {
    status = U_ZERO_ERROR;
    out.assign(static_cast<size_t>(length) + 1, '\0');
    ucnv_reset(converter.get());
    length = ucnv_toAlgorithmic(UCNV_UTF8, converter.get(), out.data(), static_cast<int32_t>(out.size()),
                                bytes.data(), sourceLength, &status);
  }
  if (U_FAILURE(status) && status != U_STRING_NOT_TERMINATED_WARNING) return std::nullopt;
  out.resize(static_cast<size_t>(length));
  return out;
}

// The toolkit's isValidUTF8 rules (no overlong forms, surrogates or values past U+10FFFF), with
// runs of ASCII, most of any page, skipped eight bytes at a time.
bool isValidPageUTF8(std::string_view text) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const size_t size = text.size();
  size_t i = 0;
  while (i < size) {
    while (i + 8 <= size) {
      std::uint64_t word = 0;
      std::memcpy(&word, bytes + i, 8);
      if (word & 0x8080808080808080ull) break;
      i += 8;
    }
    if (i >= size) break;
    const unsigned char lead = bytes[i];
    if (lead < 0x80) {
      ++i;
      continue;
    }
    size_t length = 0;
    std::uint32_t codePoint = 0;
    if ((lead & 0xE0) == 0xC0) {
      length = 2;
      codePoint = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3;
      codePoint = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4;
      codePoint = lead & 0x07;
    } else {
      return false;
    }
    if (i + length > size) return false;
    for (size_t k = 1; k < length; ++k) {
      if ((bytes[i + k] & 0xC0) != 0x80) return false;
      codePoint = (codePoint << 6) | (bytes[i + k] & 0x3F);
    }
    if ((length == 2 && codePoint < 0x80) || (length == 3 && codePoint < 0x800) ||
        (length == 4 && codePoint < 0x10000) || codePoint > 0x10FFFF ||
        (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
      return false;
    }
    i += length;
  }
  return true;
}

std::string asUTF8(std::string_view bytes) {
  return isValidPageUTF8(bytes) ? std::string(bytes) : sanitizeUTF8(bytes);
}

// libxml2 reads NUL as the end of a text; browsers show it as U+FFFD, and so do we.
void replaceNuls(std::string& text) {
  if (text.find('\0') == std::string::npos) return;
  text = replaceAll(text, std::string_view("\0", 1), kUTF8Replacement);
}

DecodedPage decodeWith(std::string_view bytes, const std::string& name) {
  DecodedPage page;
  if (name == kUTF8) {
    page = {asUTF8(bytes), std::string(kUTF8)};
  } else if (auto converted = convert(bytes, name)) {
    page = {*std::move(converted), name};
  } else {
    page = {asUTF8(bytes), std::string(kUTF8)};
  }
  replaceNuls(page.text);
  return page;
}

}  // namespace

std::string textAsUTF8(std::string_view text) {
  std::string utf8 = asUTF8(text);
  replaceNuls(utf8);
  return utf8;
}

std::string declaredCharset(std::string_view bytes) {
  const std::string_view head = bytes.substr(0, kPrescanBytes);
  for (size_t at = findIgnoringCase(head, "<meta", 0); at != std::string_view::npos;
       at = findIgnoringCase(head, "<meta", at + 5)) {
    const size_t end = head.find('>', at);
    const std::string charset = charsetInTag(head.substr(at, end == std::string_view::npos ? end : end - at));
    if (!charset.empty()) return charset;
  }
  return {};
}

DecodedPage decodePage(std::string_view bytes, std::string_view transportCharset) {
  if (bytes.starts_with("\xEF\xBB\xBF")) return decodeWith(bytes.substr(3), std::string(kUTF8));
  if (bytes.starts_with("\xFE\xFF")) return decodeWith(bytes.substr(2), "UTF-16BE");
  if (bytes.starts_with("\xFF\xFE")) return decodeWith(bytes.substr(2), "UTF-16LE");

  for (const auto& [label, fromMeta] :
       {std::pair{std::string(transportCharset), false}, std::pair{declaredCharset(bytes), true}}) {
    if (label.empty()) continue;
    const std::string name = converterName(label, fromMeta);
    if (name == kUTF8 || converterExists(name)) return decodeWith(bytes, name);
  }
  if (isValidPageUTF8(bytes)) {
    DecodedPage page{std::string(bytes), std::string(kUTF8)};
    replaceNuls(page.text);
    return page;
  }
  return decodeWith(bytes, std::string(kWindows1252));
}

}  // namespace lectern
