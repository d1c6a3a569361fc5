#include "app/text/ArticleText.h"

#include <libxml/HTMLparser.h>
#include <libxml/tree.h>
#include <unicode/brkiter.h>
#include <unicode/uchar.h>
#include <unicode/utext.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <map>
#include <memory>

#include <fmt/format.h>

#include "core/QuietLibxml.h"
#include "net/URL.h"

namespace lectern {
namespace {

constexpr int kMinimumTextWidth = 8;
// Deeper trees are cut (libxml2 itself stops at 256 levels); the rest of the page still shows.
constexpr int kMaximumDepth = 200;

int codePointWidth(UChar32 c) {
  if (c < 0x20 || (c >= 0x7F && c < 0xA0)) return 0;
  const auto type = static_cast<UCharCategory>(u_charType(c));
  if (type == U_NON_SPACING_MARK || type == U_ENCLOSING_MARK || type == U_FORMAT_CHAR) return 0;
  if (c >= 0x1160 && c <= 0x11FF) return 0;  // Hangul vowels and finals join the syllable before
  const int eastAsian = u_getIntPropertyValue(c, UCHAR_EAST_ASIAN_WIDTH);
  if (eastAsian == U_EA_WIDE || eastAsian == U_EA_FULLWIDTH) return 2;
  if (u_hasBinaryProperty(c, UCHAR_EMOJI_PRESENTATION)) return 2;
  return 1;
}

// Calls `visit(codePoint, begin, end)` for each character; a byte that is not UTF-8 comes as a
// negative code point covering that byte.
template <typename Visit>
void forEachCodePoint(std::string_view text, Visit&& visit) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  const auto length = static_cast<int32_t>(text.size());
  int32_t at = 0;
  while (at < length) {
    const int32_t begin = at;
    UChar32 c = 0;
    U8_NEXT(bytes, at, length, c);
    visit(c, static_cast<size_t>(begin), static_cast<size_t>(at));
  }
}

std::string spaces(size_t count) { return std::string(count, ' '); }

std::string trimRight(std::string text) {
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

std::string_view nameOf(const xmlNode* node) {
  return node->name ? std::string_view(reinterpret_cast<const char*>(node->name)) : std::string_view();
}

std::string attributeOf(const xmlNode* node, const char* name) {
  xmlChar* value = xmlGetProp(node, reinterpret_cast<const xmlChar*>(name));
  if (!value) return {};
  std::string out(reinterpret_cast<const char*>(value));
  xmlFree(value);
  return out;
}

enum class Kind { kInline, kSkip, kBlock, kSpacedBlock, kHeading, kList, kItem, kQuote, kPre, kRule, kBreak,
                  kImage, kLink, kCell, kDefinition };

Kind kindOf(std::string_view name) {
  static const std::map<std::string_view, Kind> kinds = {
      {"script", Kind::kSkip},       {"style", Kind::kSkip},         {"head", Kind::kSkip},
      {"template", Kind::kSkip},     {"noscript", Kind::kSkip},      {"iframe", Kind::kSkip},
      {"svg", Kind::kSkip},          {"math", Kind::kSkip},          {"button", Kind::kSkip},
      {"select", Kind::kSkip},       {"textarea", Kind::kSkip},      {"object", Kind::kSkip},
      {"canvas", Kind::kSkip},       {"video", Kind::kSkip},         {"audio", Kind::kSkip},
      {"div", Kind::kBlock},         {"section", Kind::kBlock},      {"article", Kind::kBlock},
      {"header", Kind::kBlock},      {"footer", Kind::kBlock},       {"nav", Kind::kBlock},
      {"aside", Kind::kBlock},       {"main", Kind::kBlock},         {"center", Kind::kBlock},
      {"tr", Kind::kBlock},          {"dt", Kind::kBlock},           {"summary", Kind::kBlock},
      {"figcaption", Kind::kBlock},  {"caption", Kind::kBlock},      {"form", Kind::kBlock},
      {"p", Kind::kSpacedBlock},     {"figure", Kind::kSpacedBlock}, {"table", Kind::kSpacedBlock},
      {"dl", Kind::kSpacedBlock},    {"address", Kind::kSpacedBlock}, {"details", Kind::kSpacedBlock},
      {"fieldset", Kind::kSpacedBlock},
      {"h1", Kind::kHeading},        {"h2", Kind::kHeading},         {"h3", Kind::kHeading},
      {"h4", Kind::kHeading},        {"h5", Kind::kHeading},         {"h6", Kind::kHeading},
      {"ul", Kind::kList},           {"ol", Kind::kList},            {"menu", Kind::kList},
      {"li", Kind::kItem},           {"dd", Kind::kDefinition},      {"blockquote", Kind::kQuote},
      {"pre", Kind::kPre},           {"listing", Kind::kPre},        {"xmp", Kind::kPre},
      {"hr", Kind::kRule},           {"br", Kind::kBreak},           {"img", Kind::kImage},
      {"a", Kind::kLink},            {"td", Kind::kCell},            {"th", Kind::kCell}};
  const auto found = kinds.find(name);
  return found == kinds.end() ? Kind::kInline : found->second;
}

// Lines of `text` (no line breaks in it) at most `width` columns wide, broken where the
// language allows (spaces, after CJK characters, after hyphens), a word wider than a line cut.
std::vector<std::string> wrapLine(std::string_view text, size_t width, icu::BreakIterator* breaks) {
  std::vector<std::string> lines;
  std::string line;
  size_t lineWidth = 0;
  auto finish = [&] {
    lines.push_back(trimRight(std::move(line)));
    line.clear();
    lineWidth = 0;
  };
  // Adds a segment (a word with the spaces after it).
  auto addSegment = [&](std::string_view segment) {
    size_t trimmed = segment.size();
    while (trimmed > 0 && segment[trimmed - 1] == ' ') --trimmed;
    const size_t wordWidth = displayWidth(segment.substr(0, trimmed));
    if (lineWidth > 0 && lineWidth + wordWidth > width) finish();
    if (wordWidth <= width || trimmed == 0) {
      line += segment;
      lineWidth += displayWidth(segment);
      return;
    }
    // Longer than a line: cut between characters, keeping combining marks with their base.
    forEachCodePoint(segment, [&](UChar32 c, size_t begin, size_t end) {
      const size_t w = c < 0 ? 1 : static_cast<size_t>(codePointWidth(c));
      if (w > 0 && lineWidth + w > width && lineWidth > 0) finish();
      line += segment.substr(begin, end - begin);
      lineWidth += w;
    });
  };
  if (breaks) {
    UErrorCode status = U_ZERO_ERROR;
    UText* utext = utext_openUTF8(nullptr, text.data(), static_cast<int64_t>(text.size()), &status);
    if (U_SUCCESS(status)) {
      breaks->setText(utext, status);
    }
    if (U_SUCCESS(status)) {
      int32_t begin = breaks->first();
      for (int32_t end = breaks->next(); end != icu::BreakIterator::DONE; begin = end, end = breaks->next()) {
        addSegment(text.substr(static_cast<size_t>(begin), static_cast<size_t>(end - begin)));
      }
      utext_close(utext);
      if (!line.empty() || lines.empty()) finish();
      return lines;
    }
    utext_close(utext);
  }
  // Without ICU's rules: break at spaces only.
  size_t at = 0;
  while (at < text.size()) {
    size_t end = text.find(' ', at);
    end = end == std::string_view::npos ? text.size() : end + 1;
    addSegment(text.substr(at, end - at));
    at = end;
  }
  if (!line.empty() || lines.empty()) finish();
  return lines;
}

// Walks the parsed tree and writes lines. One per render.
class Renderer {
 public:
  Renderer(int width, std::string_view baseUrl) : width_(static_cast<size_t>(std::max(width, kMinimumTextWidth))) {
    if (auto base = URL::parse(baseUrl); base && base->isAbsolute()) base_ = std::move(*base);
    UErrorCode status = U_ZERO_ERROR;
    breaks_.reset(icu::BreakIterator::createLineInstance(icu::Locale::getRoot(), status));
    if (U_FAILURE(status)) breaks_.reset();
  }

  ArticleText finish() {
    flush();
    return {std::move(lines_), std::move(links_)};
  }

  void walk(xmlNode* node, int depth) {
    if (depth > kMaximumDepth) return;
    for (xmlNode* child = node; child; child = child->next) visit(child, depth);
  }

 private:
  // The indentation a block adds: `first` before its first line, `rest` before the others.
  struct Frame {
    std::string first;
    std::string rest;
    bool used = false;
  };

  void visit(xmlNode* node, int depth) {
    if (node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE) {
      if (node->content) addText(reinterpret_cast<const char*>(node->content));
      return;
    }
    if (node->type != XML_ELEMENT_NODE) {
      if (node->type == XML_HTML_DOCUMENT_NODE || node->type == XML_DOCUMENT_NODE) walk(node->children, depth + 1);
      return;
    }
    const std::string_view name = nameOf(node);
    switch (kindOf(name)) {
      case Kind::kSkip:
        return;
      case Kind::kInline:
        walk(node->children, depth + 1);
        return;
      case Kind::kBreak:
        inline_ += '\n';
        return;
      case Kind::kImage: {
        const std::string alt = collapse(attributeOf(node, "alt"));
        addText(alt.empty() || alt == " " ? std::string(" [image] ") : " [image: " + alt + "] ");
        return;
      }
      case Kind::kLink: {
        const size_t textBefore = inline_.size();
        const size_t linesBefore = lines_.size();
        walk(node->children, depth + 1);
        // A link that shows nothing (an icon drawn by CSS, an empty anchor) gets no number either.
        const bool shown = lines_.size() != linesBefore || inline_.size() < textBefore ||
                           inline_.find_first_not_of(' ', textBefore) != std::string::npos;
        if (const int number = shown ? linkNumber(attributeOf(node, "href")) : 0; number > 0) {
          trimInlineRight();
          inline_ += fmt::format("[{}]", number);
        }
        return;
      }
      case Kind::kCell:
        if (!inline_.empty() && inline_.back() != ' ' && inline_.back() != '\n') inline_ += "  ";
        walk(node->children, depth + 1);
        inline_ += ' ';
        return;
      case Kind::kBlock:
        block(node, depth, /*spaced=*/false, {});
        return;
      case Kind::kSpacedBlock:
        block(node, depth, /*spaced=*/true, {});
        return;
      case Kind::kDefinition:
        block(node, depth, /*spaced=*/false, Frame{"    ", "    "});
        return;
      case Kind::kQuote:
        block(node, depth, /*spaced=*/true, Frame{"> ", "> "});
        return;
      case Kind::kHeading:
        heading(node, depth, name);
        return;
      case Kind::kList:
        list(node, depth, name == "ol");
        return;
      case Kind::kItem:
        // An item outside a list still gets a bullet.
        item(node, depth, "*");
        return;
      case Kind::kPre:
        preformatted(node);
        return;
      case Kind::kRule:
        flush();
        spaceBefore();
        emit("* * *");
        blankWanted_ = true;
        return;
    }
  }

  void block(xmlNode* node, int depth, bool spaced, std::optional<Frame> frame) {
    flush();
    if (spaced) spaceBefore();
    if (frame) {
      // The empty line before a quote stands outside it.
      emitWantedBlank();
      frames_.push_back(std::move(*frame));
    }
    walk(node->children, depth + 1);
    flush();
    if (frame) frames_.pop_back();
    if (spaced) blankWanted_ = true;
  }

  void heading(xmlNode* node, int depth, std::string_view name) {
    flush();
    spaceBefore();
    walk(node->children, depth + 1);
    const size_t before = lines_.size();
    flush();
    // The two top levels are underlined, as in plain-text mail.
    if ((name == "h1" || name == "h2") && lines_.size() > before) {
      size_t widest = 0;
      for (size_t i = before; i < lines_.size(); ++i) widest = std::max(widest, displayWidth(lines_[i]));
      const size_t prefix = displayWidth(currentPrefix(/*rest=*/true));
      emit(std::string(std::min(widest - std::min(widest, prefix), width_), name == "h1" ? '=' : '-'));
    }
    blankWanted_ = true;
  }

  void list(xmlNode* node, int depth, bool ordered) {
    flush();
    const bool nested = listDepth_ > 0;
    if (!nested) spaceBefore();
    ++listDepth_;
    long number = 1;
    if (ordered) {
      const std::string start = attributeOf(node, "start");
      char* end = nullptr;
      const long given = std::strtol(start.c_str(), &end, 10);
      if (!start.empty() && end && *end == '\0') number = given;
    }
    static constexpr std::string_view kBullets[] = {"*", "-", "+"};
    for (xmlNode* child = node->children; child; child = child->next) {
      if (child->type == XML_ELEMENT_NODE && nameOf(child) == "li") {
        const std::string marker = ordered ? fmt::format("{}.", number++)
                                           : std::string(kBullets[static_cast<size_t>(listDepth_ - 1) % 3]);
        item(child, depth + 1, marker);
      } else {
        visit(child, depth + 1);
      }
    }
    flush();
    --listDepth_;
    if (!nested) blankWanted_ = true;
  }

  void item(xmlNode* node, int depth, const std::string& marker) {
    flush();
    const std::string lead = listDepth_ <= 1 ? "  " : "";
    frames_.push_back(Frame{lead + marker + " ", lead + spaces(displayWidth(marker) + 1)});
    walk(node->children, depth + 1);
    flush();
    // An empty item still shows its marker.
    if (!frames_.back().used) emit("");
    frames_.pop_back();
  }

  void preformatted(xmlNode* node) {
    flush();
    spaceBefore();
    std::string text;
    preText(node->children, text, 0);
    if (text.starts_with('\n')) text.erase(0, 1);
    while (text.ends_with('\n')) text.pop_back();
    size_t at = 0;
    while (at <= text.size()) {
      size_t end = text.find('\n', at);
      if (end == std::string::npos) end = text.size();
      emit(expandTabs(terminalSafe(text.substr(at, end - at))));
      at = end + 1;
    }
    blankWanted_ = true;
  }

  // The text inside pre as written; a link keeps its number and an image its alt text.
  void preText(xmlNode* node, std::string& out, int depth) {
    if (depth > kMaximumDepth) return;
    for (; node; node = node->next) {
      if (node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE) {
        if (node->content) out += reinterpret_cast<const char*>(node->content);
      } else if (node->type == XML_ELEMENT_NODE) {
        const auto kind = kindOf(nameOf(node));
        if (kind == Kind::kSkip) continue;
        if (kind == Kind::kBreak) {
          out += '\n';
          continue;
        }
        if (kind == Kind::kImage) {
          const std::string alt = collapse(attributeOf(node, "alt"));
          out += alt.empty() ? "[image]" : "[image: " + alt + "]";
          continue;
        }
        preText(node->children, out, depth + 1);
        if (kind == Kind::kLink) {
          if (const int number = linkNumber(attributeOf(node, "href")); number > 0) out += fmt::format("[{}]", number);
        }
      }
    }
  }

  static std::string expandTabs(std::string_view line) {
    std::string out;
    size_t column = 0;
    forEachCodePoint(line, [&](UChar32 c, size_t begin, size_t end) {
      if (c == '\t') {
        const size_t next = (column / 8 + 1) * 8;
        out += spaces(next - column);
        column = next;
        return;
      }
      out += line.substr(begin, end - begin);
      column += c < 0 ? 1 : static_cast<size_t>(codePointWidth(c));
    });
    return out;
  }

  // Runs of white space become one space.
  static std::string collapse(std::string_view text) {
    std::string out;
    bool space = false;
    for (char c : text) {
      if (isSpace(c)) {
        space = true;
        continue;
      }
      if (space && !out.empty()) out += ' ';
      space = false;
      out += c;
    }
    if (space && !out.empty()) out += ' ';
    if (space && out.empty()) out = " ";
    return out;
  }

  void addText(std::string_view text) {
    for (char c : text) {
      if (isSpace(c)) {
        if (!inline_.empty() && inline_.back() != ' ' && inline_.back() != '\n') inline_ += ' ';
      } else {
        inline_ += c;
      }
    }
  }

  void trimInlineRight() {
    while (!inline_.empty() && inline_.back() == ' ') inline_.pop_back();
  }

  // The number of a link to `href`; 0 for links that go nowhere (empty, "#...", javascript:).
  int linkNumber(const std::string& href) {
    std::string trimmed = collapse(href);
    if (trimmed.starts_with(' ')) trimmed.erase(0, 1);
    if (trimmed.ends_with(' ')) trimmed.pop_back();
    if (trimmed.empty() || trimmed.starts_with('#')) return 0;
    std::string lower = trimmed.substr(0, 11);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    if (lower.starts_with("javascript:")) return 0;
    std::string url = trimmed;
    if (base_) {
      if (auto resolved = base_->resolve(trimmed)) url = resolved->string();
    }
    url = terminalSafe(url);
    for (const auto& link : links_) {
      if (link.url == url) return link.number;
    }
    links_.push_back({static_cast<int>(links_.size()) + 1, url});
    return links_.back().number;
  }

  std::string currentPrefix(bool rest) const {
    std::string prefix;
    for (const auto& frame : frames_) prefix += rest || frame.used ? frame.rest : frame.first;
    return prefix;
  }

  void emitWantedBlank() {
    if (blankWanted_ && !lines_.empty() && !lastBlank_) {
      lines_.push_back(trimRight(currentPrefix(/*rest=*/true)));
      lastBlank_ = true;
    }
    blankWanted_ = false;
  }

  void emit(std::string text) {
    emitWantedBlank();
    lastBlank_ = text.empty() && frames_.empty();
    lines_.push_back(trimRight(currentPrefix(/*rest=*/false) + text));
    for (auto& frame : frames_) frame.used = true;
  }

  void spaceBefore() {
    if (!lines_.empty()) blankWanted_ = true;
  }

  // Writes the gathered inline text as wrapped lines.
  void flush() {
    if (inline_.empty()) return;
    std::string text = terminalSafe(inline_);
    inline_.clear();
    size_t at = 0;
    bool any = false;
    std::vector<std::string> pending;
    while (at <= text.size()) {
      size_t end = text.find('\n', at);
      if (end == std::string::npos) end = text.size();
      std::string_view line = std::string_view(text).substr(at, end - at);
      while (line.starts_with(' ')) line.remove_prefix(1);
      while (line.ends_with(' ')) line.remove_suffix(1);
      pending.emplace_back(line);
      if (!line.empty()) any = true;
      at = end + 1;
    }
    if (!any) return;
    // Line breaks at the very start or end of a block show nothing, as in a browser.
    while (!pending.empty() && pending.back().empty()) pending.pop_back();
    size_t first = 0;
    while (first < pending.size() && pending[first].empty()) ++first;
    for (size_t i = first; i < pending.size(); ++i) {
      const size_t prefixWidth = displayWidth(currentPrefix(/*rest=*/true));
      const size_t available = width_ > prefixWidth + kMinimumTextWidth ? width_ - prefixWidth : kMinimumTextWidth;
      if (pending[i].empty()) {
        emit("");
        continue;
      }
      for (auto& wrapped : wrapLine(pending[i], available, breaks_.get())) emit(std::move(wrapped));
    }
  }

  const size_t width_;
  std::optional<URL> base_;
  std::unique_ptr<icu::BreakIterator> breaks_;
  std::vector<std::string> lines_;
  std::vector<ArticleLink> links_;
  std::vector<Frame> frames_;
  std::string inline_;
  bool blankWanted_ = false;
  bool lastBlank_ = false;  // the last line is an empty line between blocks
  int listDepth_ = 0;
};

}  // namespace

ArticleText renderArticleText(std::string_view html, int width, std::string_view baseUrl) {
  Renderer renderer(width, baseUrl);
  if (html.find_first_not_of(" \t\r\n") == std::string_view::npos) return renderer.finish();
  QuietLibxml quiet;
  const int options = HTML_PARSE_RECOVER | HTML_PARSE_NONET | HTML_PARSE_NOERROR | HTML_PARSE_NOWARNING;
  htmlDocPtr doc = htmlReadMemory(html.data(), static_cast<int>(std::min<size_t>(html.size(), INT32_MAX)), nullptr,
                                  "UTF-8", options);
  if (!doc) return renderer.finish();
  renderer.walk(xmlDocGetRootElement(doc), 0);
  xmlFreeDoc(doc);
  return renderer.finish();
}

constexpr size_t kFieldIndent = 9;  // "Author:  "

ArticleText renderArticlePage(const ArticleDocument& document, int width) {
  const size_t columns = static_cast<size_t>(std::max(width, kMinimumTextWidth));
  ArticleText page;
  const std::string title = terminalSafe(document.title.empty() ? "(untitled)" : document.title);
  std::string flat;
  for (char c : title) flat += isSpace(c) ? ' ' : c;
  for (auto& line : wrapLine(flat, columns, nullptr)) page.lines.push_back(std::move(line));
  for (const auto& [name, value] : document.fields) {
    if (value.empty()) continue;
    const std::string label = name + ":";
    // An address stays whole so that it can be copied; other values wrap under their label.
    if (name == "Link" || columns <= kFieldIndent + 8) {
      page.lines.push_back(fmt::format("{:9}{}", label, terminalSafe(value)));
      continue;
    }
    bool first = true;
    for (auto& line : wrapLine(terminalSafe(value), columns - kFieldIndent, nullptr)) {
      page.lines.push_back(fmt::format("{:9}{}", first ? label : "", line));
      first = false;
    }
  }
  ArticleText body = renderArticleText(document.html, width, document.baseUrl);
  if (!body.lines.empty()) {
    page.lines.emplace_back();
    for (auto& line : body.lines) page.lines.push_back(std::move(line));
  }
  if (!body.links.empty()) {
    page.lines.emplace_back();
    page.lines.emplace_back("Links:");
    for (const auto& link : body.links) page.lines.push_back(fmt::format("  [{}] {}", link.number, link.url));
  }
  if (!document.enclosures.empty()) {
    page.lines.emplace_back();
    page.lines.emplace_back("Enclosures:");
    for (const auto& enclosure : document.enclosures) {
      std::string details = terminalSafe(enclosure.type);
      if (enclosure.length && *enclosure.length > 0) {
        details += (details.empty() ? "" : ", ") + humanSize(*enclosure.length);
      }
      page.lines.push_back(fmt::format("  {}{}", terminalSafe(enclosure.url), details.empty() ? "" : "  (" + details + ")"));
    }
  }
  page.links = std::move(body.links);
  return page;
}

size_t displayWidth(std::string_view utf8) {
  size_t width = 0;
  forEachCodePoint(utf8, [&](UChar32 c, size_t, size_t) { width += c < 0 ? 1 : static_cast<size_t>(codePointWidth(c)); });
  return width;
}

std::string fitToWidth(std::string_view utf8, size_t width) {
  if (displayWidth(utf8) <= width) return std::string(utf8);
  if (width == 0) return {};
  std::string out;
  size_t used = 0;
  bool full = false;
  forEachCodePoint(utf8, [&](UChar32 c, size_t begin, size_t end) {
    if (full) return;
    const size_t w = c < 0 ? 1 : static_cast<size_t>(codePointWidth(c));
    if (used + w > width - 1) {
      full = true;
      return;
    }
    out += utf8.substr(begin, end - begin);
    used += w;
  });
  return out + "…";
}

std::string terminalSafe(std::string_view utf8) {
  std::string out;
  out.reserve(utf8.size());
  forEachCodePoint(utf8, [&](UChar32 c, size_t begin, size_t end) {
    if (c < 0) {
      out += "\xEF\xBF\xBD";
    } else if (c == '\t' || c == '\n') {
      out += static_cast<char>(c);
    } else if (c < 0x20 || (c >= 0x7F && c < 0xA0)) {
      // Escape sequences and other controls would drive the terminal: dropped.
    } else {
      out += utf8.substr(begin, end - begin);
    }
  });
  return out;
}

std::string humanSize(std::int64_t bytes) {
  if (bytes < 1000) return fmt::format("{} bytes", bytes);
  if (bytes < 1'000'000) return fmt::format("{} KB", (bytes + 500) / 1000);
  if (bytes < 1'000'000'000) return fmt::format("{:.1f} MB", static_cast<double>(bytes) / 1e6);
  return fmt::format("{:.1f} GB", static_cast<double>(bytes) / 1e9);
}

}  // namespace lectern
