#pragma once

// Articles as terminal text: the renderer `lectern show` and the terminal reader share.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace lectern {

// A link of a rendered article: the "[number]" printed after its text, and its absolute address.
struct ArticleLink {
  int number = 0;
  std::string url;
  bool operator==(const ArticleLink&) const = default;
};

struct ArticleText {
  std::vector<std::string> lines;  // no line breaks, no control characters
  std::vector<ArticleLink> links;
};

// Renders article HTML (UTF-8, parsed by libxml2's recovering HTML parser, no network) as lines at
// most `width` display columns wide: paragraphs and headings apart by an empty line, lists with
// bullets or numbers (nested lists indented), block quotes behind "> ", preformatted blocks kept
// as written (never wrapped, so they may be wider), images as "[image: alt]" and links followed by
// "[n]". Link addresses are resolved against `baseUrl` (when it is absolute); one address keeps
// one number. A word wider than the line is cut where it must be. Never fails: what does not
// parse gives what could be read, or nothing.
ArticleText renderArticleText(std::string_view html, int width, std::string_view baseUrl = {});

// A media file of an article (a podcast episode).
struct ArticleEnclosure {
  std::string url;
  std::string type;
  std::optional<std::int64_t> length;  // bytes
};

// What an article page shows besides its text.
struct ArticleDocument {
  std::string title;
  std::vector<std::pair<std::string, std::string>> fields;  // ("Feed", "The Daily") ..., in order
  std::string html;
  std::string baseUrl;  // the article's address, for its relative links
  std::vector<ArticleEnclosure> enclosures;
};

// The whole page: the title wrapped to `width`, one "Name:    value" line per field, the text,
// then "Links:" (one "[n] address" line each, never cut) and "Enclosures:" when there are any.
ArticleText renderArticlePage(const ArticleDocument& document, int width);

// Display columns of UTF-8 text: East Asian wide characters and emoji count two, combining marks
// and format characters none. Bytes that are not UTF-8 count one each.
size_t displayWidth(std::string_view utf8);
// At most `width` columns of `utf8`, ending in "…" when it was cut; never splits a character.
std::string fitToWidth(std::string_view utf8, size_t width);
// The text with control characters (escape sequences included) and invalid UTF-8 replaced, so
// that it can be written to a terminal as it stands.
std::string terminalSafe(std::string_view utf8);
// "12.3 MB", "900 KB", "512 bytes".
std::string humanSize(std::int64_t bytes);

}  // namespace lectern
