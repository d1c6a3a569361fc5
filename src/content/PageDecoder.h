#pragma once

#include <string>
#include <string_view>

namespace lectern {

// A page's bytes as UTF-8 text, and the character set they were read in.
struct DecodedPage {
  std::string text;      // valid UTF-8 without NUL characters
  std::string encoding;  // the converter used: "UTF-8", "windows-1252", "Shift_JIS" ...
};

// Reads the bytes of a web page as text the way browsers pick its character set: a byte-order
// mark first, then `transportCharset` (the HTTP Content-Type's charset, when there is one),
// then a <meta charset> or <meta http-equiv="Content-Type"> near the top of the page; without a
// usable declaration, UTF-8 when the bytes are valid UTF-8 and windows-1252 (what browsers read
// "Latin-1" as) otherwise. Never fails: bytes that do not fit the chosen set become U+FFFD.
DecodedPage decodePage(std::string_view bytes, std::string_view transportCharset = {});

// Text that should already be UTF-8, made safe to parse: invalid bytes and NULs become U+FFFD.
std::string textAsUTF8(std::string_view text);

// The charset a <meta> tag declares within the first bytes of the page, or "".
std::string declaredCharset(std::string_view bytes);

}  // namespace lectern
