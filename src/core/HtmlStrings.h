#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace lectern {

// Text utilities over HTML fragments (not documents): fast, allocation-light, total (any bytes in,
// valid UTF-8 out). Preview text and section titles are made with them.

// Decodes every HTML5 named character reference ("&amp;", "&eacute;", "&NotEqualTilde;", the
// legacy forms without ";" such as "&copy" too) and numeric ones ("&#233;", "&#xE9;"). Numeric
// references follow the HTML5 rules: 0, surrogates and values past U+10FFFF become U+FFFD, and
// the Windows-1252 range 0x80-0x9F maps to its characters. Unknown references stay as written.
std::string decodeHtmlEntities(std::string_view text);

// Escapes the five characters that matter in text and attributes: & < > " '.
std::string encodeHtmlEntities(std::string_view text);

// Plain text of an HTML fragment: tags removed, the contents of script, style, head, template
// and comments dropped, block elements (p, div, br, li, h1-h6, tr, blockquote, pre ...) turned into
// line breaks, entities decoded, runs of white space collapsed to one space within a line, at most
// one empty line in a row, and the result trimmed.
std::string htmlToPlainText(std::string_view html);

// Tags and comments removed; everything else (entities included) left as it stands.
std::string stripTags(std::string_view html);

// A link found in plain text.
struct DetectedLink {
  size_t begin = 0;  // byte offsets into the text
  size_t end = 0;
  std::string url;   // with a scheme: "www.example.com" becomes "http://www.example.com"
};
// Finds http(s)/ftp/mailto URLs and bare "www." hosts in plain text. Trailing punctuation
// (".", ",", ")", "!" ...) is not part of a link unless it closes a parenthesis opened in it.
std::vector<DetectedLink> detectLinks(std::string_view text);
// Plain text as HTML with its links made into anchors (everything else encoded).
std::string linkifyText(std::string_view text);

}  // namespace lectern
