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
// What else it does, read as a browser would show the fragment:
// - Paragraphs, headings, blockquote, pre and hr stand apart by an empty line; other blocks and
//   each <br> start a new line; table cells are separated by a space. Inside pre the text's own
//   line breaks stay.
// - Hidden too: iframe, noembed, noframes, svg, the fallback text of audio, video and canvas, and
//   form fields (textarea, select, datalist). CDATA sections are text.
// - A "<" starts a tag only before a known element name (or a custom or prefixed one such as
//   "my-widget" or "o:p"), so text like "if x<y" or "List<String>" survives. A tag or comment cut
//   off by the end of the input is dropped.
// - The text may have been decoded once already: a reference written without ";" and glued to a
//   word ("&notes", "?a=1&copy=2") is left as it stands, so a second decoding keeps ordinary text.
// - No-break spaces collapse like spaces; soft hyphens and control characters are dropped.
// One pass, linear in the input whatever it holds.
std::string htmlToPlainText(std::string_view html);

// Tags and comments removed; everything else (entities included) left as it stands. The contents
// of script, style and the like are text here; CDATA sections lose only their markers.
std::string stripTags(std::string_view html);

// A link found in plain text.
struct DetectedLink {
  size_t begin = 0;  // byte offsets into the text
  size_t end = 0;
  std::string url;   // with a scheme: "www.example.com" becomes "http://www.example.com"
};
// Finds http(s)/ftp/mailto URLs and bare "www." hosts in plain text. Trailing punctuation
// (".", ",", ")", "!" ...) is not part of a link unless it closes a parenthesis opened in it.
// Schemes match in any case but only at the start of a word; a link ends at white space, at
// "<", ">", quotes and the like, and at CJK punctuation; a mailto: link needs an address.
std::vector<DetectedLink> detectLinks(std::string_view text);
// Plain text as HTML with its links made into anchors (everything else encoded).
std::string linkifyText(std::string_view text);

}  // namespace lectern
