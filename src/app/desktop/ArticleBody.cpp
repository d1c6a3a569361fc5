#include "app/desktop/ArticleBody.h"

#include <libxml/tree.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <optional>

#include "content/HtmlDocument.h"
#include "core/Strings.h"
#include "net/URL.h"

namespace lectern::desktop {
namespace {

// libxml2 stops at 256 levels; this keeps the recursion well inside the stack whatever it does.
constexpr int kMaximumDepth = 300;
constexpr std::string_view kYouTubePlayer = "https://www.youtube-nocookie.com/embed/";
constexpr std::string_view kVimeoPlayer = "https://player.vimeo.com/video/";

const xmlChar* xml(const char* text) { return reinterpret_cast<const xmlChar*>(text); }
const char* chars(const xmlChar* text) { return reinterpret_cast<const char*>(text); }

bool isAsciiAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isAsciiDigit(char c) { return c >= '0' && c <= '9'; }
bool isDigits(std::string_view text, size_t maximum) {
  return !text.empty() && text.size() <= maximum && std::all_of(text.begin(), text.end(), isAsciiDigit);
}

template <typename Names>
bool contains(const Names& names, std::string_view name) {
  return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

// ---- addresses ----

// A browser drops tabs and line ends anywhere in an address and white space or control
// characters at its ends; "java&#9;script:" must be judged as the browser reads it.
std::string cleanUrl(std::string_view url) {
  std::string out;
  out.reserve(url.size());
  for (const char c : url) {
    if (c != '\t' && c != '\n' && c != '\r') out += c;
  }
  const auto isBlank = [](char c) { return static_cast<unsigned char>(c) <= 0x20; };
  const auto first = std::find_if_not(out.begin(), out.end(), isBlank);
  const auto last = std::find_if_not(out.rbegin(), out.rend(), isBlank).base();
  return first < last ? std::string(first, last) : std::string();
}

// The lower-case scheme; "" for a relative reference; nothing when something before a ":"
// cannot be a scheme (such text is refused rather than guessed at).
std::optional<std::string> schemeOf(std::string_view url) {
  const size_t colon = url.find(':');
  if (colon == std::string_view::npos || url.find_first_of("/?#") < colon) return std::string();
  const std::string_view scheme = url.substr(0, colon);
  if (scheme.empty() || !isAsciiAlpha(scheme.front())) return std::nullopt;
  for (const char c : scheme) {
    if (!isAsciiAlpha(c) && !isAsciiDigit(c) && c != '+' && c != '-' && c != '.') return std::nullopt;
  }
  return toLowerASCII(scheme);
}

enum class UrlUse { kLink, kMedia, kImage };

std::optional<std::string> safeUrl(std::string_view url, UrlUse use) {
  std::string clean = cleanUrl(url);
  const auto scheme = schemeOf(clean);
  if (!scheme) return std::nullopt;
  if (scheme->empty() || *scheme == "http" || *scheme == "https") return clean;
  if (use == UrlUse::kLink && *scheme == "mailto") return clean;
  // Pictures written into the page; an SVG shown as an image runs no script.
  if (use == UrlUse::kImage && *scheme == "data" && toLowerASCII(clean.substr(5, 6)) == "image/") return clean;
  return std::nullopt;
}

struct SrcsetCandidate {
  std::string url;
  std::string descriptor;
};

// Candidates are an address, then an optional descriptor ("2x", "640w") up to a comma; an
// address may itself hold commas (data: URLs), so it ends at white space only.
std::vector<SrcsetCandidate> parseSrcset(std::string_view srcset) {
  std::vector<SrcsetCandidate> candidates;
  const auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f'; };
  size_t at = 0;
  while (at < srcset.size()) {
    while (at < srcset.size() && (isSpace(srcset[at]) || srcset[at] == ',')) ++at;
    const size_t urlStart = at;
    while (at < srcset.size() && !isSpace(srcset[at])) ++at;
    std::string_view url = srcset.substr(urlStart, at - urlStart);
    bool ended = false;
    while (url.ends_with(',')) {
      url.remove_suffix(1);
      ended = true;
    }
    std::string descriptor;
    if (!ended) {
      const size_t comma = srcset.find(',', at);
      const size_t end = comma == std::string_view::npos ? srcset.size() : comma;
      descriptor = trim(srcset.substr(at, end - at));
      at = end;
    }
    if (!url.empty()) candidates.push_back({std::string(url), std::move(descriptor)});
  }
  return candidates;
}

std::optional<std::string> safeSrcset(std::string_view srcset) {
  std::string out;
  for (const auto& candidate : parseSrcset(srcset)) {
    const auto url = safeUrl(candidate.url, UrlUse::kImage);
    // A descriptor is a number and a letter; anything else would be written back into the page.
    const bool plainDescriptor = std::all_of(candidate.descriptor.begin(), candidate.descriptor.end(), [](char c) {
      return isAsciiAlpha(c) || isAsciiDigit(c) || c == '.';
    });
    if (!url || !plainDescriptor || url->find_first_of(" \t\n") != std::string::npos) continue;
    if (!out.empty()) out += ", ";
    out += *url;
    if (!candidate.descriptor.empty()) out += " " + candidate.descriptor;
  }
  if (out.empty()) return std::nullopt;
  return out;
}


// ---- video links ----

bool isYouTubeId(std::string_view id) {
  return id.size() == 11 && std::all_of(id.begin(), id.end(), [](char c) {
           return isAsciiAlpha(c) || isAsciiDigit(c) || c == '_' || c == '-';
         });
}

// "90", "90s", "1m30s", "1h2m3s".
std::optional<std::int64_t> startSeconds(std::string_view text) {
  if (isDigits(text, 6)) {
    const std::int64_t seconds = std::stoll(std::string(text));
    return seconds > 0 ? std::optional(seconds) : std::nullopt;
  }
  constexpr std::string_view kUnits = "hms";
  constexpr std::array<std::int64_t, 3> kSeconds = {3600, 60, 1};
  std::int64_t total = 0;
  size_t nextUnit = 0;  // h before m before s, each at most once
  size_t at = 0;
  while (at < text.size()) {
    const size_t start = at;
    while (at < text.size() && isAsciiDigit(text[at])) ++at;
    if (at == start || at - start > 6 || at == text.size()) return std::nullopt;
    const size_t unit = kUnits.find(text[at], nextUnit);
    if (unit == std::string_view::npos) return std::nullopt;
    total += std::stoll(std::string(text.substr(start, at - start))) * kSeconds[unit];
    nextUnit = unit + 1;
    ++at;
  }
  if (total <= 0) return std::nullopt;
  return total;
}

std::vector<std::pair<std::string, std::string>> queryItems(const std::optional<std::string>& query) {
  std::vector<std::pair<std::string, std::string>> items;
  if (!query) return items;
  for (const auto& part : split(*query, "&")) {
    const size_t equals = part.find('=');
    if (equals == std::string::npos) {
      items.emplace_back(percentUnescape(part), "");
    } else {
      items.emplace_back(percentUnescape(part.substr(0, equals)), percentUnescape(part.substr(equals + 1)));
    }
  }
  return items;
}

std::optional<std::string> queryValue(const std::vector<std::pair<std::string, std::string>>& items,
                                      std::string_view key) {
  for (const auto& [name, value] : items) {
    if (name == key) return value;
  }
  return std::nullopt;
}

std::vector<std::string> pathSegments(std::string_view path) {
  std::vector<std::string> segments = split(path, "/");
  std::erase_if(segments, [](const std::string& segment) { return segment.empty(); });
  return segments;
}

std::optional<std::string> youTubePlayer(const URL& url, const std::string& host) {
  const auto segments = pathSegments(url.path());
  const auto query = queryItems(url.query());
  std::optional<std::string> id;
  if (host == "youtu.be") {
    if (segments.size() == 1) id = segments[0];
  } else if (segments.size() == 1 && segments[0] == "watch") {
    id = queryValue(query, "v");
  } else if (segments.size() == 2 && (segments[0] == "embed" || segments[0] == "shorts" ||
                                      segments[0] == "live" || segments[0] == "v")) {
    id = segments[1];
  }
  if (!id || !isYouTubeId(*id)) return std::nullopt;
  std::string player = std::string(kYouTubePlayer) + *id;
  auto start = queryValue(query, "t");
  if (!start) start = queryValue(query, "start");
  if (start) {
    if (const auto seconds = startSeconds(*start)) player += "?start=" + std::to_string(*seconds);
  }
  return player;
}

std::optional<std::string> vimeoPlayer(const URL& url, const std::string& host) {
  const auto segments = pathSegments(url.path());
  std::optional<std::string> number;
  std::optional<std::string> hash;  // the key of an unlisted video
  if (host == "player.vimeo.com") {
    if (segments.size() == 2 && segments[0] == "video") number = segments[1];
    hash = queryValue(queryItems(url.query()), "h");
  } else if (!segments.empty() && segments.size() <= 2 && isDigits(segments[0], 15)) {
    number = segments[0];
    if (segments.size() == 2) hash = segments[1];
  } else if (segments.size() == 3 && segments[0] == "channels") {
    number = segments[2];
  }
  if (!number || !isDigits(*number, 15)) return std::nullopt;
  std::string player = std::string(kVimeoPlayer) + *number;
  if (hash && !hash->empty() && hash->size() <= 40 &&
      std::all_of(hash->begin(), hash->end(), [](char c) { return isAsciiDigit(c) || (c >= 'a' && c <= 'f'); })) {
    player += "?h=" + *hash;
  }
  if (const auto& fragment = url.fragment(); fragment && fragment->starts_with("t=")) {
    if (const auto seconds = startSeconds(fragment->substr(2))) player += "#t=" + std::to_string(*seconds) + "s";
  }
  return player;
}

// ---- the body ----

enum class Treatment { kKeep, kDrop, kUnwrap, kFrame };

// Known-harmless markup stays; what can run code, load plug-ins, submit, restyle the page or
// pull in other documents goes with its content; anything else is replaced by its content.
Treatment treatmentOf(std::string_view name) {
  static constexpr std::string_view kKeep[] = {
      "a",      "abbr",   "address", "article", "aside",  "audio",   "b",          "bdi",     "bdo",
      "big",    "blockquote", "br", "caption", "center", "cite",    "code",       "col",     "colgroup",
      "dd",     "del",    "details", "dfn",    "div",    "dl",      "dt",         "em",      "figcaption",
      "figure", "footer", "h1",      "h2",     "h3",     "h4",      "h5",         "h6",      "header",
      "hr",     "i",      "img",     "ins",    "kbd",    "li",      "main",       "mark",    "nav",
      "ol",     "p",      "picture", "pre",    "q",      "rp",      "rt",         "ruby",    "s",
      "samp",   "section", "small",  "source", "span",   "strike",  "strong",     "sub",     "summary",
      "sup",    "table",  "tbody",   "td",     "tfoot",  "th",      "thead",      "time",    "tr",
      "track",  "tt",     "u",       "ul",     "var",    "video",   "wbr",        "hgroup",  "data"};
  static constexpr std::string_view kDrop[] = {
      "script",   "style",    "link",     "meta",     "base",   "object",   "embed",   "applet",
      "param",    "title",    "head",     "template", "svg",    "math",     "canvas",  "frame",
      "frameset", "input",    "button",   "select",   "option", "optgroup", "textarea", "datalist",
      "output",   "keygen",   "portal",   "slot",     "xml",    "noembed"};
  if (name == "iframe") return Treatment::kFrame;
  if (contains(kKeep, name)) return Treatment::kKeep;
  // "head" goes whole: its title, metadata and styles are not the article. Scripts never run in
  // the view, so <noscript> is what a reader sees: its content stays (many sites put their real
  // <img> there), the element goes.
  if (contains(kDrop, name)) return Treatment::kDrop;
  return Treatment::kUnwrap;
}

bool attributeAllowed(std::string_view element, std::string_view name) {
  static constexpr std::string_view kGlobal[] = {"title", "lang", "dir", "id"};
  if (contains(kGlobal, name)) return true;
  struct Allowed {
    std::string_view element;
    std::array<std::string_view, 8> names;
  };
  static constexpr Allowed kByElement[] = {
      {"a", {"href", "name"}},
      {"img", {"src", "srcset", "sizes", "alt", "width", "height"}},
      {"video", {"src", "poster", "width", "height", "loop", "muted", "preload", "playsinline"}},
      {"audio", {"src", "loop", "muted", "preload"}},
      {"source", {"src", "srcset", "sizes", "type", "media", "width", "height"}},
      {"track", {"src", "kind", "srclang", "label", "default"}},
      {"td", {"colspan", "rowspan", "headers", "align", "valign"}},
      {"th", {"colspan", "rowspan", "headers", "scope", "align", "valign"}},
      {"col", {"span"}},
      {"colgroup", {"span"}},
      {"ol", {"start", "reversed", "type"}},
      {"li", {"value"}},
      {"blockquote", {"cite"}},
      {"q", {"cite"}},
      {"del", {"cite", "datetime"}},
      {"ins", {"cite", "datetime"}},
      {"time", {"datetime"}},
      {"data", {"value"}},
      {"details", {"open"}},
  };
  for (const auto& allowed : kByElement) {
    if (allowed.element == element) return contains(allowed.names, name);
  }
  return false;
}

std::optional<UrlUse> urlUse(std::string_view element, std::string_view attribute) {
  if (attribute == "href" || attribute == "cite") return UrlUse::kLink;
  if (attribute == "poster" || (attribute == "src" && (element == "img" || element == "source"))) {
    return UrlUse::kImage;
  }
  if (attribute == "src") return UrlUse::kMedia;
  return std::nullopt;
}

bool isBlankText(std::string_view text) { return trimView(text).empty(); }

// Rewrites one parsed body in place. One per render.
class BodySanitizer {
 public:
  BodySanitizer(HtmlDocument& document, std::string_view articleUrl, const CachedImageLookup& images)
      : document_(document), images_(images) {
    auto base = URL::parse(cleanUrl(articleUrl));
    if (base && base->isAbsolute() && base->hasAuthority()) {
      const std::string scheme = toLowerASCII(base->scheme());
      if (scheme == "http" || scheme == "https") base_ = std::move(base);
    }
  }

  void sanitizeChildren(xmlNodePtr parent, int depth) {
    for (xmlNodePtr child = parent->children; child;) {
      hoistContentOfVoidElement(child);
      xmlNodePtr next = child->next;
      sanitizeNode(child, depth);
      child = next;
    }
  }

  // A cached picture must not be overridden by a <source> of its <picture> from the network.
  void dropSourcesOfCachedPictures() {
    for (xmlNodePtr picture : cachedPictures_) {
      for (xmlNodePtr child = picture->children; child;) {
        xmlNodePtr next = child->next;
        if (isElement(child, "source")) document_.remove(child);
        child = next;
      }
    }
  }

  void embedStandAloneVideos(xmlNodePtr root) {
    std::vector<xmlNodePtr> blocks;
    forEachNode(root, [&](xmlNodePtr node) {
      if (isElement(node, "p") || isElement(node, "div")) blocks.push_back(node);
    });
    for (xmlNodePtr block : blocks) {
      const auto player = standAloneVideo(block);
      if (!player) continue;
      xmlAddPrevSibling(block, newPlayer(*player));
      document_.remove(block);
    }
    // A body that is nothing but the link.
    if (const auto player = standAloneVideo(root)) {
      removeChildren(root);
      xmlAddChild(root, newPlayer(*player));
    }
  }

  // An article that is a video with no text of its own (a channel's feed) shows the video.
  void embedArticleVideo(xmlNodePtr root, std::string_view articleUrl) {
    bool empty = true;
    forEachNode(root, [&](xmlNodePtr node) {
      if (node->type == XML_TEXT_NODE && node->content && !isBlankText(chars(node->content))) empty = false;
      if (isElement(node, "img") || isElement(node, "video") || isElement(node, "audio") ||
          isElement(node, "iframe")) {
        empty = false;
      }
    });
    if (!empty) return;
    if (const auto player = videoEmbedUrl(articleUrl)) {
      removeChildren(root);
      xmlAddChild(root, newPlayer(*player));
    }
  }

 private:
  void sanitizeNode(xmlNodePtr node, int depth) {
    if (node->type == XML_TEXT_NODE) return;
    if (node->type != XML_ELEMENT_NODE || depth > kMaximumDepth) {
      document_.remove(node);  // comments, processing instructions, CDATA
      return;
    }
    const std::string_view name = elementName(node);
    switch (treatmentOf(name)) {
      case Treatment::kDrop:
        document_.remove(node);
        return;
      case Treatment::kFrame:
        replaceFrame(node);
        return;
      case Treatment::kUnwrap:
        sanitizeChildren(node, depth + 1);
        while (xmlNodePtr child = node->children) {
          xmlUnlinkNode(child);
          xmlAddPrevSibling(node, child);
        }
        document_.remove(node);
        return;
      case Treatment::kKeep:
        break;
    }
    if (name == "img") {
      if (!sanitizeImage(node)) {
        document_.remove(node);
        return;
      }
    } else {
      filterAttributes(node);
    }
    if (name == "video" || name == "audio") {
      xmlSetProp(node, xml("controls"), xml(""));
      if (!xmlHasProp(node, xml("preload"))) xmlSetProp(node, xml("preload"), xml("metadata"));
    }
    sanitizeChildren(node, depth + 1);
  }

  // libxml2 gives <source>, <track>, <embed> and <wbr> the content that follows them, where a
  // browser gives them none: that content belongs after them, and must not go when they go.
  static void hoistContentOfVoidElement(xmlNodePtr node) {
    static constexpr std::string_view kVoid[] = {"area",  "base",  "br",   "col",    "embed", "hr",
                                                 "img",   "input", "link", "meta",   "param", "source",
                                                 "track", "wbr",   "keygen"};
    if (!node->children || !contains(kVoid, elementName(node))) return;
    while (xmlNodePtr last = xmlGetLastChild(node)) {
      xmlUnlinkNode(last);
      xmlAddNextSibling(node, last);
    }
  }

  void filterAttributes(xmlNodePtr node) {
    const std::string element(elementName(node));
    for (xmlAttrPtr attr = node->properties; attr;) {
      xmlAttrPtr next = attr->next;
      const std::string name = attr->name ? chars(attr->name) : "";
      std::optional<std::string> keep;
      if (!attr->ns && attributeAllowed(element, name)) {
        const std::string value = attribute(node, name.c_str());
        if (name == "srcset") {
          keep = safeSrcset(value);
        } else if (const auto use = urlUse(element, name)) {
          keep = safeUrl(value, *use);
        } else {
          keep = value;
        }
      }
      if (keep) {
        xmlSetProp(node, attr->name, xml(keep->c_str()));
      } else {
        xmlRemoveProp(attr);
      }
      attr = next;
    }
  }

  // False when the picture has no address left to show.
  bool sanitizeImage(xmlNodePtr img) {
    // Lazy-loading pages keep the real address in a data attribute and a placeholder in src.
    const std::string src = cleanUrl(attribute(img, "src"));
    if (src.empty() || toLowerASCII(src).starts_with("data:")) {
      for (const char* lazy : {"data-src", "data-lazy-src", "data-original"}) {
        if (const std::string value = attribute(img, lazy); !value.empty()) {
          xmlSetProp(img, xml("src"), xml(value.c_str()));
          break;
        }
      }
    }
    filterAttributes(img);
    std::string address = attribute(img, "src");
    if (address.empty()) {
      const auto candidates = parseSrcset(attribute(img, "srcset"));
      if (!candidates.empty()) address = candidates.front().url;  // already checked with the srcset
    }
    if (address.empty()) return false;
    xmlSetProp(img, xml("src"), xml(address.c_str()));
    if (images_) {
      const std::string absolute = absoluteUrl(address);
      const auto scheme = schemeOf(absolute);
      if (scheme && (*scheme == "http" || *scheme == "https")) {
        if (const auto path = images_(absolute); path && path->is_absolute()) {
          xmlSetProp(img, xml("src"), xml(fileUrl(*path).c_str()));
          xmlUnsetProp(img, xml("srcset"));
          xmlUnsetProp(img, xml("sizes"));
          if (isElement(img->parent, "picture")) cachedPictures_.push_back(img->parent);
        }
      }
    }
    xmlSetProp(img, xml("loading"), xml("lazy"));
    return true;
  }

  void replaceFrame(xmlNodePtr frame) {
    const auto src = safeUrl(attribute(frame, "src"), UrlUse::kMedia);
    const std::string absolute = src && !src->empty() ? absoluteUrl(*src) : std::string();
    const auto scheme = schemeOf(absolute);
    xmlNodePtr replacement = nullptr;
    if (const auto player = videoEmbedUrl(absolute)) {
      replacement = newPlayer(*player);
    } else if (scheme && (*scheme == "http" || *scheme == "https")) {
      replacement = document_.newElement("a");
      xmlSetProp(replacement, xml("href"), xml(absolute.c_str()));
      xmlSetProp(replacement, xml("class"), xml("lectern-frame-link"));
      xmlAddChild(replacement, xmlNewDocText(document_.doc(), xml(absolute.c_str())));
    }
    if (replacement) xmlAddPrevSibling(frame, replacement);
    document_.remove(frame);
  }

  // The player of a block holding one video link and nothing else but white space and line breaks,
  // or just the video's address as text.
  std::optional<std::string> standAloneVideo(xmlNodePtr block) const {
    xmlNodePtr link = nullptr;
    std::string text;
    for (xmlNodePtr child = block->children; child; child = child->next) {
      if (child->type == XML_TEXT_NODE) {
        if (child->content) text += chars(child->content);
      } else if (isElement(child, "br")) {
        continue;
      } else if (isElement(child, "a") && !link) {
        link = child;
      } else {
        return std::nullopt;
      }
    }
    const std::string_view words = trimView(text);
    if (link) {
      if (!words.empty()) return std::nullopt;
      return videoEmbedUrl(absoluteUrl(attribute(link, "href")));
    }
    if (words.empty() || words.find_first_of(" \t\n\r\f") != std::string_view::npos) return std::nullopt;
    return videoEmbedUrl(words);
  }

  xmlNodePtr newPlayer(const std::string& src) {
    xmlNodePtr box = document_.newElement("div");
    xmlSetProp(box, xml("class"), xml("lectern-video"));
    xmlNodePtr frame = document_.newElement("iframe");
    xmlSetProp(frame, xml("src"), xml(src.c_str()));
    // The player's own scripts run inside its frame; it may not navigate the page or open windows.
    xmlSetProp(frame, xml("sandbox"), xml("allow-scripts allow-same-origin allow-presentation"));
    xmlSetProp(frame, xml("allow"), xml("fullscreen; picture-in-picture; encrypted-media"));
    xmlSetProp(frame, xml("allowfullscreen"), xml(""));
    // The players refuse to play without knowing the embedding site; the origin is all they get.
    xmlSetProp(frame, xml("referrerpolicy"), xml("strict-origin-when-cross-origin"));
    xmlSetProp(frame, xml("loading"), xml("lazy"));
    xmlSetProp(frame, xml("title"), xml("Video"));
    xmlAddChild(box, frame);
    return box;
  }

  void removeChildren(xmlNodePtr node) {
    while (node->children) document_.remove(node->children);
  }

  std::string absoluteUrl(std::string_view reference) const {
    const std::string clean = cleanUrl(reference);
    if (base_) {
      if (auto resolved = base_->resolve(clean)) return resolved->string();
      return clean;
    }
    return clean.starts_with("//") ? "https:" + clean : clean;
  }

  HtmlDocument& document_;
  const CachedImageLookup& images_;
  std::optional<URL> base_;
  std::vector<xmlNodePtr> cachedPictures_;
};

}  // namespace

std::optional<std::string> safeLinkUrl(std::string_view url) { return safeUrl(url, UrlUse::kLink); }

std::string fileUrl(const std::filesystem::path& path) {
  return "file://" + percentEscape(path.lexically_normal().generic_string(), "#?");
}

std::optional<std::string> videoEmbedUrl(std::string_view text) {
  std::string clean = cleanUrl(text);
  if (clean.starts_with("//")) clean = "https:" + clean;
  const auto url = URL::parse(clean);
  if (!url || !url->hasAuthority() || !url->userInfo().empty()) return std::nullopt;
  const std::string scheme = toLowerASCII(url->scheme());
  if (scheme != "http" && scheme != "https") return std::nullopt;
  if (url->port() && *url->port() != 80 && *url->port() != 443) return std::nullopt;
  std::string host = toLowerASCII(url->host());
  if (host.ends_with('.')) host.pop_back();
  static constexpr std::string_view kYouTubeHosts[] = {
      "youtube.com", "www.youtube.com", "m.youtube.com", "youtube-nocookie.com", "www.youtube-nocookie.com",
      "youtu.be"};
  static constexpr std::string_view kVimeoHosts[] = {"vimeo.com", "www.vimeo.com", "player.vimeo.com"};
  if (contains(kYouTubeHosts, host)) return youTubePlayer(*url, host);
  if (contains(kVimeoHosts, host)) return vimeoPlayer(*url, host);
  return std::nullopt;
}

std::string sanitizeArticleBody(std::string_view html, std::string_view articleUrl, const CachedImageLookup& images) {
  auto parsed = HtmlDocument::parse(sanitizeUTF8(html));
  if (!parsed) return {};
  HtmlDocument& document = **parsed;
  xmlNodePtr root = xmlDocGetRootElement(document.doc());
  if (!root) {
    root = document.newElement("body");
    document.replaceRoot(root);
  }
  BodySanitizer sanitizer(document, articleUrl, images);
  // The root (html, or whatever the parser made of a fragment) is only a container.
  sanitizer.sanitizeChildren(root, 0);
  sanitizer.dropSourcesOfCachedPictures();
  sanitizer.embedStandAloneVideos(root);
  sanitizer.embedArticleVideo(root, articleUrl);
  std::string out;
  for (xmlNodePtr child = root->children; child; child = child->next) out += HtmlDocument::serialize(child);
  return out;
}

}  // namespace lectern::desktop
