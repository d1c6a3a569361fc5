#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace lectern {

// A JSON value read as text: strings as they are, numbers in decimal ("42", "1.5"), booleans as
// "1"/"0"; null, a missing value, objects and arrays give nothing.
std::optional<std::string> safeStringValue(const nlohmann::json& value);
// The same, looked up by key in an object (anything else gives nothing).
std::optional<std::string> safeStringValue(const nlohmann::json& object, std::string_view key);

// A flag as services write it: true, a number other than 0, or the text "1", "true" or "yes"
// (any case). Anything else, a missing key included, is false.
bool safeBoolValue(const nlohmann::json& value);
bool safeBoolValue(const nlohmann::json& object, std::string_view key);

// 32 lower-case hexadecimal digits of the MD5 of the bytes.
std::string MD5Hash(std::string_view text);
// Standard alphabet with "=" padding.
std::string base64Encode(std::string_view bytes);
// Accepts missing padding and ignores white space; nothing for other bad input.
std::optional<std::string> base64Decode(std::string_view text);
// The 20 raw bytes of HMAC-SHA1(key, data).
std::string hmacSHA1(std::string_view key, std::string_view data);
std::string hexEncode(std::string_view bytes);  // lower case
// A new random (version 4) UUID in upper case: "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
std::string UUIDString();

// Percent-escapes `text` (as UTF-8 bytes, upper-case hex). Always escaped: bytes outside ASCII,
// control characters, the space and the characters never legal in a URL (" % < > [ \ ] ^ ` { | }).
// `escape` adds characters to escape; `keep` keeps characters that would otherwise be escaped.
std::string percentEscape(std::string_view text, std::string_view escape = {}, std::string_view keep = {});
// Decodes %XX sequences; a malformed sequence is kept as it stands. "+" stays "+".
std::string percentUnescape(std::string_view text);

// ASCII white space and line ends at both ends removed.
std::string_view trimView(std::string_view text);
std::string trim(std::string_view text);
std::vector<std::string> split(std::string_view text, std::string_view separator);
std::string join(const std::vector<std::string>& parts, std::string_view separator);
std::string toLowerASCII(std::string_view text);
std::string toUpperASCII(std::string_view text);
bool equalsIgnoringASCIICase(std::string_view a, std::string_view b);
// Every occurrence of `from` replaced by `to` (nothing happens for an empty `from`).
std::string replaceAll(std::string_view text, std::string_view from, std::string_view to);
// The bytes are valid UTF-8.
bool isValidUTF8(std::string_view text);
// Invalid sequences replaced by U+FFFD.
std::string sanitizeUTF8(std::string_view text);
// Latin-1 bytes to UTF-8.
std::string latin1ToUTF8(std::string_view bytes);

// std::from_chars for a double. libc++ before 17 (the fuzz build's) has no floating-point
// from_chars; there this reads the same forms with strtod in the C locale.
std::from_chars_result fromChars(const char* first, const char* last, double& value);

}  // namespace lectern
