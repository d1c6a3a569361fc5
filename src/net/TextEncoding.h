#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace lectern {

// Conversions between UTF-8 and the character sets HTTP bodies are declared in, named by their
// IANA names ("utf-8", "iso-8859-1", "windows-1252", "utf-16" ...). Pure functions.

inline constexpr std::string_view kUTF8Charset = "utf-8";
inline constexpr std::string_view kLatin1Charset = "iso-8859-1";

bool isUTF8Charset(std::string_view charset);
bool isLatin1Charset(std::string_view charset);
// UTF-8 text written in `charset`; nothing when the charset is unknown or a character has no form in it.
std::optional<std::string> encodeText(std::string_view utf8, std::string_view charset);
// Bytes in `charset` read into UTF-8; nothing when the charset is unknown or the bytes are not valid in it.
std::optional<std::string> decodeText(std::string_view bytes, std::string_view charset);
// The number the diagnostic dump writes for an encoding (4 for UTF-8, 5 for Latin-1, 0 when unknown).
long stringEncodingNumber(std::string_view charset);

}  // namespace lectern
