#pragma once

// The article page of the desktop reader: one HTML document per article, for the web view.
// Pure functions of their arguments; no toolkit, no network, no display.

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/text/ArticleText.h"
#include "core/Clock.h"

namespace lectern::desktop {

enum class ArticleTheme { kLight, kDark, kSepia };

// "light", "dark" or "sepia" (any case) as chosen; "system" or anything unknown follows the
// desktop: dark when it prefers dark, else light.
ArticleTheme articleTheme(std::string_view preference, bool desktopPrefersDark);

// The colours of a theme as CSS hex ("#rrggbb"). The window paints the view's background with
// `background` before the page loads, so switching articles does not flash.
struct ArticleThemeColors {
  std::string text;
  std::string background;
  std::string secondary;  // feed, author, date, captions, quotes
  std::string link;
  std::string rule;  // borders and lines
  std::string codeBackground;
};
ArticleThemeColors articleThemeColors(ArticleTheme theme);

constexpr int kMinimumArticleFontSize = 10;
constexpr int kMaximumArticleFontSize = 40;

struct ArticleStyle {
  ArticleTheme theme = ArticleTheme::kLight;
  std::string fontFamily;  // empty: the desktop's sans-serif; a comma-separated list is a fallback list
  int fontSize = 16;       // CSS px, clamped to [kMinimumArticleFontSize, kMaximumArticleFontSize]
  std::string timeZone;    // Olson id the date is shown in; empty: the system's
};

struct ArticlePage {
  std::string title;
  std::string feed;
  std::string author;
  std::optional<Date> date;
  std::string url;       // the article's address: the title links to it and relative links resolve against it
  std::string bodyHtml;  // the feed's HTML, or the extracted readable text
  std::vector<ArticleEnclosure> enclosures;
  bool readable = false;  // the body is the readable view (a marker in the header says so)
};

// The local file of a picture's absolute address, when the image cache holds it. The page
// addresses it by its file: URL, which WebKit shows only in a page loaded with a file: base URI
// that the file lies under (the image cache's folder, given as `fileUrl(folder) + "/"`); the
// page's own <base> still resolves the article's relative links against its address.
using CachedImageLookup = std::function<std::optional<std::filesystem::path>(std::string_view url)>;
// "file:///home/me/.cache/lectern/images/a%20b.png" for an absolute path.
std::string fileUrl(const std::filesystem::path& path);

// The whole page: a complete HTML5 document whose Content-Security-Policy forbids every script,
// with the header (title, feed, author, date), the sanitised body, the video players and the
// enclosures, styled by `style`. Never fails: a body that does not parse shows what could be read.
// The page carries its own <base> (the article's address), so the base URI it is loaded with
// decides only its origin: see CachedImageLookup.
std::string renderArticleHtml(const ArticlePage& page, const ArticleStyle& style,
                              const CachedImageLookup& images = {});

// The address of the player of a YouTube or Vimeo video link ("https://www.youtube-nocookie.com/
// embed/ID", "https://player.vimeo.com/video/NUMBER"), with its start time when the link has one;
// nothing for any other address. Only the two services' own hosts count, and the id must have
// their shape, so nothing else reaches the player's address.
std::optional<std::string> videoEmbedUrl(std::string_view url);

// The date as the header shows it, e.g. "Tuesday 24 November 2026, 14:05", in `timeZone` (an
// Olson id; empty: the system's) with the names of `locale` (empty: the default locale).
std::string articleDateString(Date date, std::string_view timeZone = {}, std::string_view locale = {});

}  // namespace lectern::desktop
