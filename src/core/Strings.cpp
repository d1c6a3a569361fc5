#include "core/Strings.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <array>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>

namespace lectern {

std::optional<std::string> safeStringValue(const nlohmann::json& value) {
  switch (value.type()) {
    case nlohmann::json::value_t::string: return value.get<std::string>();
    case nlohmann::json::value_t::number_integer: return std::to_string(value.get<std::int64_t>());
    case nlohmann::json::value_t::number_unsigned: return std::to_string(value.get<std::uint64_t>());
    case nlohmann::json::value_t::number_float: {
      const double d = value.get<double>();
      if (std::isfinite(d) && d == std::floor(d) && std::fabs(d) < 1e15) {
        return std::to_string(static_cast<std::int64_t>(d));
      }
      // Shortest text that reads back as the same number, as the JSON writer gives it.
      return nlohmann::json(d).dump();
    }
    case nlohmann::json::value_t::boolean: return value.get<bool>() ? "1" : "0";
    default: return std::nullopt;
  }
}

std::optional<std::string> safeStringValue(const nlohmann::json& object, std::string_view key) {
  if (!object.is_object()) return std::nullopt;
  auto it = object.find(key);
  if (it == object.end()) return std::nullopt;
  return safeStringValue(*it);
}

bool safeBoolValue(const nlohmann::json& value) {
  if (value.is_boolean()) return value.get<bool>();
  if (value.is_number()) return value.get<double>() != 0;
  if (value.is_string()) {
    const std::string text = toLowerASCII(trim(value.get<std::string>()));
    if (text == "true" || text == "yes") return true;
    double number = 0;
    const auto* end = text.data() + text.size();
    return !text.empty() && fromChars(text.data(), end, number).ptr == end && number != 0;
  }
  return false;
}

bool safeBoolValue(const nlohmann::json& object, std::string_view key) {
  if (!object.is_object()) return false;
  auto it = object.find(key);
  return it != object.end() && safeBoolValue(*it);
}

std::string hexEncode(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (unsigned char c : bytes) {
    out += kDigits[c >> 4];
    out += kDigits[c & 0xF];
  }
  return out;
}

std::string MD5Hash(std::string_view text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr);
  return hexEncode(std::string_view(reinterpret_cast<const char*>(digest), length));
}

std::string base64Encode(std::string_view bytes) {
  static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    const auto n = (std::uint32_t(std::uint8_t(bytes[i])) << 16) | (std::uint32_t(std::uint8_t(bytes[i + 1])) << 8) |
                   std::uint8_t(bytes[i + 2]);
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += kAlphabet[n & 63];
  }
  if (i < bytes.size()) {
    std::uint32_t n = std::uint32_t(std::uint8_t(bytes[i])) << 16;
    if (i + 1 < bytes.size()) n |= std::uint32_t(std::uint8_t(bytes[i + 1])) << 8;
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += i + 1 < bytes.size() ? kAlphabet[(n >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

std::optional<std::string> base64Decode(std::string_view text) {
  auto value = [](char c) -> int {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+' || c == '-') return 62;
    if (c == '/' || c == '_') return 63;
    return -1;
  };
  std::string out;
  std::uint32_t buffer = 0;
  int bits = 0;
  bool padding = false;
  for (char c : text) {
    if (c == ' ' || c == '\n' || c == '\r' || c == '\t') continue;
    if (c == '=') {
      padding = true;
      continue;
    }
    const int v = value(c);
    if (v < 0 || padding) return std::nullopt;
    buffer = (buffer << 6) | static_cast<std::uint32_t>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out += static_cast<char>((buffer >> bits) & 0xFF);
    }
  }
  if (bits >= 6) return std::nullopt;  // a lone trailing character carries no whole byte
  return out;
}

std::string hmacSHA1(std::string_view key, std::string_view data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char*>(data.data()),
       data.size(), digest, &length);
  return std::string(reinterpret_cast<const char*>(digest), length);
}

std::string UUIDString() {
  std::array<unsigned char, 16> b{};
  RAND_bytes(b.data(), static_cast<int>(b.size()));
  b[6] = static_cast<unsigned char>((b[6] & 0x0F) | 0x40);
  b[8] = static_cast<unsigned char>((b[8] & 0x3F) | 0x80);
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  for (size_t i = 0; i < b.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out += '-';
    out += kDigits[b[i] >> 4];
    out += kDigits[b[i] & 0xF];
  }
  return out;
}

std::string percentEscape(std::string_view text, std::string_view escape, std::string_view keep) {
  static constexpr std::string_view kNeverLegal = " \"%<>[\\]^`{|}";
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    bool escapeIt = c >= 0x80 || c < 0x20 || c == 0x7F || kNeverLegal.find(ch) != std::string_view::npos ||
                    escape.find(ch) != std::string_view::npos;
    if (escapeIt && c < 0x80 && keep.find(ch) != std::string_view::npos) escapeIt = false;
    if (escapeIt) {
      out += '%';
      out += kDigits[c >> 4];
      out += kDigits[c & 0xF];
    } else {
      out += ch;
    }
  }
  return out;
}

std::string percentUnescape(std::string_view text) {
  auto hex = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      const int hi = hex(text[i + 1]);
      const int lo = hex(text[i + 2]);
      if (hi >= 0 && lo >= 0) {
        out += static_cast<char>(hi * 16 + lo);
        i += 2;
        continue;
      }
    }
    out += text[i];
  }
  return out;
}

std::string_view trimView(std::string_view text) {
  constexpr std::string_view kSpace = " \t\r\n\f\v";
  const size_t begin = text.find_first_not_of(kSpace);
  if (begin == std::string_view::npos) return {};
  const size_t end = text.find_last_not_of(kSpace);
  return text.substr(begin, end - begin + 1);
}

std::string trim(std::string_view text) { return std::string(trimView(text)); }

std::vector<std::string> split(std::string_view text, std::string_view separator) {
  std::vector<std::string> parts;
  if (separator.empty()) {
    parts.emplace_back(text);
    return parts;
  }
  size_t start = 0;
  for (;;) {
    const size_t at = text.find(separator, start);
    if (at == std::string_view::npos) {
      parts.emplace_back(text.substr(start));
      return parts;
    }
    parts.emplace_back(text.substr(start, at - start));
    start = at + separator.size();
  }
}

std::string join(const std::vector<std::string>& parts, std::string_view separator) {
  std::string out;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) out += separator;
    out += parts[i];
  }
  return out;
}

std::string toLowerASCII(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

std::string toUpperASCII(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return out;
}

bool equalsIgnoringASCIICase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

std::string replaceAll(std::string_view text, std::string_view from, std::string_view to) {
  if (from.empty()) return std::string(text);
  std::string out;
  size_t start = 0;
  for (;;) {
    const size_t at = text.find(from, start);
    if (at == std::string_view::npos) break;
    out.append(text.substr(start, at - start));
    out.append(to);
    start = at + from.size();
  }
  out.append(text.substr(start));
  return out;
}

namespace {

// Length of the valid UTF-8 sequence starting at `i`, or 0 when it is not valid.
size_t utf8SequenceLength(std::string_view s, size_t i) {
  const auto c = static_cast<unsigned char>(s[i]);
  if (c < 0x80) return 1;
  size_t n;
  std::uint32_t cp;
  if ((c & 0xE0) == 0xC0) {
    n = 2;
    cp = c & 0x1F;
  } else if ((c & 0xF0) == 0xE0) {
    n = 3;
    cp = c & 0x0F;
  } else if ((c & 0xF8) == 0xF0) {
    n = 4;
    cp = c & 0x07;
  } else {
    return 0;
  }
  if (i + n > s.size()) return 0;
  for (size_t k = 1; k < n; ++k) {
    const auto cc = static_cast<unsigned char>(s[i + k]);
    if ((cc & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (cc & 0x3F);
  }
  // Overlong forms, surrogates and values past U+10FFFF are not valid.
  if ((n == 2 && cp < 0x80) || (n == 3 && cp < 0x800) || (n == 4 && cp < 0x10000) || cp > 0x10FFFF ||
      (cp >= 0xD800 && cp <= 0xDFFF)) {
    return 0;
  }
  return n;
}

}  // namespace

bool isValidUTF8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    const size_t n = utf8SequenceLength(text, i);
    if (n == 0) return false;
    i += n;
  }
  return true;
}

std::string sanitizeUTF8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const size_t n = utf8SequenceLength(text, i);
    if (n == 0) {
      out += "\xEF\xBF\xBD";
      ++i;
    } else {
      out.append(text.substr(i, n));
      i += n;
    }
  }
  return out;
}

std::string latin1ToUTF8(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  for (char ch : bytes) {
    const auto c = static_cast<unsigned char>(ch);
    if (c < 0x80) {
      out += ch;
    } else {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

std::from_chars_result fromChars(const char* first, const char* last, double& value) {
#if defined(_LIBCPP_VERSION) && _LIBCPP_VERSION < 170000
  // What from_chars refuses: leading space, a plus sign, an empty text; a "0x" prefix reads as 0.
  std::string_view text(first, static_cast<size_t>(last - first));
  const size_t sign = text.starts_with('-') ? 1 : 0;
  if (text.size() == sign || text[sign] == '+' || text[sign] == ' ' || (text[sign] >= '\t' && text[sign] <= '\r'))
    return {first, std::errc::invalid_argument};
  if (text.size() > sign + 1 && text[sign] == '0' && (text[sign + 1] == 'x' || text[sign + 1] == 'X')) {
    value = sign == 1 ? -0.0 : 0.0;
    return {first + sign + 1, std::errc()};
  }
  static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", nullptr);
  const std::string copy(text);
  char* stop = nullptr;
  errno = 0;
  const double parsed = strtod_l(copy.c_str(), &stop, cLocale);
  if (stop == copy.c_str()) return {first, std::errc::invalid_argument};
  const char* end = first + (stop - copy.c_str());
  if (errno == ERANGE) return {end, std::errc::result_out_of_range};
  value = parsed;
  return {end, std::errc()};
#else
  return std::from_chars(first, last, value);
#endif
}

}  // namespace lectern
