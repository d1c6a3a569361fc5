#include "app/desktop/ArticleTemplate.h"

#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>

#include <algorithm>
#include <memory>

#include <fmt/format.h>

#include "app/desktop/ArticleBody.h"
#include "core/Dates.h"
#include "core/Strings.h"
#include "net/URL.h"

namespace lectern::desktop {
namespace {

// Text for HTML content and quoted attribute values: valid UTF-8, no control characters.
std::string escapeHtml(std::string_view text) {
  const std::string valid = sanitizeUTF8(text);
  std::string out;
  out.reserve(valid.size());
  for (const char c : valid) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      case '\t':
      case '\n': out += ' '; break;
      default:
        if (static_cast<unsigned char>(c) >= 0x20 && c != 0x7F) out += c;
    }
  }
  return out;
}

// A CSS string literal. Quotes and backslashes cannot end it, "<" cannot end the <style>
// element, and control characters become escapes.
std::string cssString(std::string_view text) {
  const std::string valid = sanitizeUTF8(text);
  std::string out = "\"";
  for (const char c : valid) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F || c == '"' || c == '\\' || c == '<' || c == '>' || c == '&' || c == '{' ||
        c == '}' || c == ';') {
      out += fmt::format("\\{:x} ", byte);
    } else {
      out += c;
    }
  }
  return out + "\"";
}

// A family list for CSS: the generic families as keywords, every other name quoted, always
// ending in the desktop's sans-serif.
std::string fontFamilyList(std::string_view families) {
  static constexpr std::string_view kGeneric[] = {"serif", "sans-serif", "monospace", "cursive", "fantasy",
                                                  "system-ui", "ui-serif", "ui-sans-serif", "ui-monospace"};
  std::string out;
  for (const std::string& part : split(families, ",")) {
    std::string name = trim(part);
    // A name may come quoted from a font chooser; the quotes are not part of it.
    if (name.size() >= 2 && (name.front() == '"' || name.front() == '\'') && name.back() == name.front()) {
      name = trim(std::string_view(name).substr(1, name.size() - 2));
    }
    if (name.empty()) continue;
    if (!out.empty()) out += ", ";
    const std::string lower = toLowerASCII(name);
    out += std::find(std::begin(kGeneric), std::end(kGeneric), lower) != std::end(kGeneric) ? lower : cssString(name);
  }
  return out.empty() ? "sans-serif" : out + ", sans-serif";
}

constexpr std::string_view kStylesheet = R"css(
html { background: var(--background); color: var(--text); line-height: 1.6;
       -webkit-text-size-adjust: 100%; }
body { margin: 0; padding: 2em 1.5em 4em; }
.lectern-article { max-width: 42em; margin: 0 auto; overflow-wrap: break-word; }
a { color: var(--link); }
img, video, picture, iframe, audio { max-width: 100%; }
img, video { height: auto; }
audio { width: 100%; }
figure { margin: 1.5em 0; }
figcaption { color: var(--secondary); font-size: 0.9em; margin-top: 0.4em; }
pre { overflow-x: auto; padding: 0.8em 1em; background: var(--code-background); border-radius: 6px;
      line-height: 1.4; white-space: pre; }
code, kbd, samp, pre { font-family: monospace; font-size: 0.9em; }
pre code { font-size: inherit; }
:not(pre) > code { background: var(--code-background); border-radius: 3px; padding: 0.1em 0.3em; }
table { display: block; max-width: 100%; overflow-x: auto; border-collapse: collapse; margin: 1em 0; }
th, td { border: 1px solid var(--rule); padding: 0.3em 0.6em; vertical-align: top; }
blockquote { margin: 1em 0; padding: 0 1em; border-left: 3px solid var(--rule); color: var(--secondary); }
hr { border: none; border-top: 1px solid var(--rule); margin: 2em 0; }
h1, h2, h3, h4, h5, h6 { line-height: 1.25; }
.lectern-header { margin-bottom: 2em; padding-bottom: 1em; border-bottom: 1px solid var(--rule); }
.lectern-title { font-size: 1.8em; margin: 0 0 0.4em; }
.lectern-title a { color: inherit; text-decoration: none; }
.lectern-byline { color: var(--secondary); font-size: 0.9em; margin: 0; }
.lectern-byline > * + *::before { content: "\00b7"; margin: 0 0.45em; }
.lectern-byline > .lectern-readable::before { content: none; }
.lectern-readable { border: 1px solid var(--rule); border-radius: 4px; padding: 0 0.4em; font-size: 0.85em;
                    margin-left: 0.6em; white-space: nowrap; }
.lectern-video { position: relative; width: 100%; height: 0; padding-bottom: 56.25%; margin: 1.5em 0; }
.lectern-video iframe { position: absolute; top: 0; left: 0; width: 100%; height: 100%; border: 0; }
.lectern-frame-link { display: block; margin: 1em 0; }
.lectern-enclosures { margin-top: 2em; padding-top: 1em; border-top: 1px solid var(--rule); }
.lectern-enclosures h2 { font-size: 1em; color: var(--secondary); }
.lectern-enclosures ul { list-style: none; padding: 0; }
.lectern-enclosures li { margin: 0.8em 0; }
.lectern-enclosures audio, .lectern-enclosures video { display: block; margin-bottom: 0.3em; }
.lectern-size { color: var(--secondary); font-size: 0.9em; }
)css";

std::string stylesheet(const ArticleStyle& style) {
  const ArticleThemeColors colors = articleThemeColors(style.theme);
  const int fontSize = std::clamp(style.fontSize, kMinimumArticleFontSize, kMaximumArticleFontSize);
  std::string css = ":root { color-scheme: ";
  css += style.theme == ArticleTheme::kDark ? "dark" : "light";
  css += "; --text: " + colors.text + "; --background: " + colors.background + "; --secondary: " + colors.secondary +
         "; --link: " + colors.link + "; --rule: " + colors.rule + "; --code-background: " + colors.codeBackground +
         "; }\n";
  css += "html { font-family: " + fontFamilyList(style.fontFamily) + "; font-size: " + std::to_string(fontSize) +
         "px; }";
  css += kStylesheet;
  return css;
}

std::optional<URL> httpUrl(std::string_view text) {
  const auto clean = safeLinkUrl(text);
  if (!clean) return std::nullopt;
  auto url = URL::parse(*clean);
  if (!url || !url->hasAuthority() || url->host().empty()) return std::nullopt;
  const std::string scheme = toLowerASCII(url->scheme());
  if (scheme != "http" && scheme != "https") return std::nullopt;
  return url;
}

// The article's origin as a CSP source, when it is plain enough to write there.
std::optional<std::string> cspOrigin(const URL& url) {
  const std::string origin = toLowerASCII(url.origin());
  const bool plain = std::all_of(origin.begin(), origin.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '-' || c == ':' || c == '/' ||
           c == '[' || c == ']';
  });
  if (!plain) return std::nullopt;
  return origin;
}

// Scripts never run in the page; pictures and sound come from anywhere, the image cache
// included; frames only from the two video players.
std::string contentSecurityPolicy(const std::optional<URL>& base) {
  std::string baseUri = "'self'";
  if (base) {
    if (const auto origin = cspOrigin(*base)) baseUri += " " + *origin;
  }
  constexpr std::string_view kPlayers = "https://www.youtube-nocookie.com https://player.vimeo.com";
  return fmt::format(
      "default-src 'none'; script-src 'none'; object-src 'none'; base-uri {}; form-action 'none'; "
      "img-src * data: file:; media-src * data: file:; style-src 'unsafe-inline'; frame-src {}; child-src {}",
      baseUri, kPlayers, kPlayers);
}

std::string header(const ArticlePage& page, const ArticleStyle& style) {
  std::string out = "<header class=\"lectern-header\">";
  if (!trimView(page.title).empty()) {
    out += "<h1 class=\"lectern-title\">";
    if (const auto url = httpUrl(page.url)) {
      out += "<a href=\"" + escapeHtml(*safeLinkUrl(page.url)) + "\">" + escapeHtml(page.title) + "</a>";
    } else {
      out += escapeHtml(page.title);
    }
    out += "</h1>";
  }
  std::string byline;
  if (!trimView(page.feed).empty()) byline += "<span class=\"lectern-feed\">" + escapeHtml(page.feed) + "</span>";
  if (!trimView(page.author).empty()) {
    byline += "<span class=\"lectern-author\">" + escapeHtml(page.author) + "</span>";
  }
  if (page.date) {
    byline += "<time class=\"lectern-date\" datetime=\"" + escapeHtml(rfc3339String(*page.date)) + "\">" +
              escapeHtml(articleDateString(*page.date, style.timeZone)) + "</time>";
  }
  if (page.readable) byline += "<span class=\"lectern-readable\">Readable view</span>";
  if (!byline.empty()) out += "<p class=\"lectern-byline\">" + byline + "</p>";
  return out + "</header>";
}

enum class MediaKind { kAudio, kVideo, kOther };

MediaKind mediaKind(const ArticleEnclosure& enclosure, const URL& url) {
  const std::string type = toLowerASCII(trim(enclosure.type));
  if (type.starts_with("audio/")) return MediaKind::kAudio;
  if (type.starts_with("video/")) return MediaKind::kVideo;
  if (!type.empty()) return MediaKind::kOther;
  // Feeds that leave the type out: judge by the file name.
  const std::string extension = toLowerASCII(url.pathExtension());
  if (extension == "mp3" || extension == "m4a" || extension == "ogg" || extension == "oga" || extension == "opus" ||
      extension == "aac" || extension == "flac" || extension == "wav") {
    return MediaKind::kAudio;
  }
  if (extension == "mp4" || extension == "m4v" || extension == "webm" || extension == "mov") return MediaKind::kVideo;
  return MediaKind::kOther;
}

std::string enclosureName(const URL& url) {
  const auto segments = split(url.path(), "/");
  for (auto segment = segments.rbegin(); segment != segments.rend(); ++segment) {
    if (!segment->empty()) return percentUnescape(*segment);
  }
  return url.string();
}

std::string enclosures(const ArticlePage& page) {
  const auto base = httpUrl(page.url);
  std::string items;
  for (const auto& enclosure : page.enclosures) {
    std::string address = trim(enclosure.url);
    if (base) {
      if (const auto resolved = base->resolve(address)) address = resolved->string();
    }
    const auto url = httpUrl(address);
    if (!url) continue;
    const std::string href = escapeHtml(url->string());
    items += "<li>";
    switch (mediaKind(enclosure, *url)) {
      case MediaKind::kAudio:
        items += "<audio controls preload=\"none\" src=\"" + href + "\"></audio>";
        break;
      case MediaKind::kVideo:
        items += "<video controls preload=\"none\" src=\"" + href + "\"></video>";
        break;
      case MediaKind::kOther:
        break;
    }
    items += "<a href=\"" + href + "\">" + escapeHtml(enclosureName(*url)) + "</a>";
    if (enclosure.length && *enclosure.length > 0) {
      items += " <span class=\"lectern-size\">" + escapeHtml(humanSize(*enclosure.length)) + "</span>";
    }
    items += "</li>";
  }
  if (items.empty()) return {};
  return "<section class=\"lectern-enclosures\"><h2>Enclosures</h2><ul>" + items + "</ul></section>";
}

std::string_view themeName(ArticleTheme theme) {
  switch (theme) {
    case ArticleTheme::kLight: return "light";
    case ArticleTheme::kDark: return "dark";
    case ArticleTheme::kSepia: return "sepia";
  }
  return "light";
}

}  // namespace

ArticleTheme articleTheme(std::string_view preference, bool desktopPrefersDark) {
  const std::string chosen = toLowerASCII(trimView(preference));
  if (chosen == "light") return ArticleTheme::kLight;
  if (chosen == "dark") return ArticleTheme::kDark;
  if (chosen == "sepia") return ArticleTheme::kSepia;
  return desktopPrefersDark ? ArticleTheme::kDark : ArticleTheme::kLight;
}

ArticleThemeColors articleThemeColors(ArticleTheme theme) {
  switch (theme) {
    case ArticleTheme::kLight:
      return {"#1f1f1f", "#ffffff", "#5e5e5e", "#1a5fb4", "#dcdcdc", "#f3f3f3"};
    case ArticleTheme::kDark:
      return {"#e6e4e1", "#1c1c1e", "#a3a3a6", "#78aeed", "#3d3d40", "#2a2a2d"};
    case ArticleTheme::kSepia:
      return {"#5b4636", "#f4ecd8", "#7d6654", "#8a4b1c", "#dccfb0", "#ebe0c6"};
  }
  return articleThemeColors(ArticleTheme::kLight);
}

std::string articleDateString(Date date, std::string_view timeZone, std::string_view locale) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::Locale where = locale.empty() ? icu::Locale::getDefault() : icu::Locale(std::string(locale).c_str());
  icu::SimpleDateFormat format(icu::UnicodeString::fromUTF8("EEEE d MMMM y, HH:mm"), where, status);
  if (U_FAILURE(status)) return rfc3339String(date);
  format.adoptTimeZone(timeZone.empty()
                           ? icu::TimeZone::createDefault()
                           : icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(
                                 icu::StringPiece(timeZone.data(), static_cast<int32_t>(timeZone.size())))));
  icu::UnicodeString text;
  format.format(std::chrono::duration<double, std::milli>(date.time_since_epoch()).count(), text);
  std::string out;
  text.toUTF8String(out);
  return out;
}

std::string renderArticleHtml(const ArticlePage& page, const ArticleStyle& style, const CachedImageLookup& images) {
  const auto base = httpUrl(page.url);
  std::string html = "<!DOCTYPE html>\n<html data-theme=\"";
  html += themeName(style.theme);
  html += "\">\n<head>\n<meta http-equiv=\"Content-Security-Policy\" content=\"" +
          escapeHtml(contentSecurityPolicy(base)) + "\">\n";
  html += "<meta charset=\"utf-8\">\n<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n";
  // Picture hosts learn nothing of what is being read; the players set their own policy.
  html += "<meta name=\"referrer\" content=\"no-referrer\">\n";
  if (base) html += "<base href=\"" + escapeHtml(*safeLinkUrl(page.url)) + "\">\n";
  html += "<title>" + escapeHtml(page.title) + "</title>\n";
  html += "<style>\n" + stylesheet(style) + "</style>\n</head>\n<body>\n<article class=\"lectern-article\">\n";
  html += header(page, style);
  html += "\n<div class=\"lectern-body\">\n" + sanitizeArticleBody(page.bodyHtml, page.url, images) + "\n</div>\n";
  html += enclosures(page);
  html += "</article>\n</body>\n</html>\n";
  return html;
}

}  // namespace lectern::desktop
