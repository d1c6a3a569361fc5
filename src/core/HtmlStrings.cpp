#include "core/HtmlStrings.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

#include "core/Strings.h"

namespace lectern {
namespace {

constexpr size_t npos = std::string_view::npos;

struct HtmlEntity {
  std::string_view name;   // without the "&", with the ";" where the reference needs one
  std::string_view value;  // UTF-8, one or two code points
};

#include "core/HtmlEntities.inc"

static_assert(kHtmlEntityCount == 2231, "the HTML5 list of named references is frozen at 2,231 names");
static_assert(std::ranges::adjacent_find(kHtmlEntities, std::ranges::greater_equal{}, &HtmlEntity::name) ==
                  std::ranges::end(kHtmlEntities),
              "the entity table must be sorted and free of duplicates for binary search");

const HtmlEntity* findEntity(std::string_view name) {
  const auto* it = std::ranges::lower_bound(kHtmlEntities, name, {}, &HtmlEntity::name);
  return it != std::ranges::end(kHtmlEntities) && it->name == name ? it : nullptr;
}

bool isAsciiAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isAsciiDigit(char c) { return c >= '0' && c <= '9'; }
bool isAsciiAlnum(char c) { return isAsciiAlpha(c) || isAsciiDigit(c); }

int hexValue(char c) {
  if (isAsciiDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

void appendUTF8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
    return;
  }
  const int continuations = cp < 0x800 ? 1 : cp < 0x10000 ? 2 : 3;
  out +=
      static_cast<char>(((0xFF << (7 - continuations)) & 0xFF) | (cp >> (6 * continuations)));  // lead byte
  for (int shift = 6 * (continuations - 1); shift >= 0; shift -= 6) {
    out += static_cast<char>(0x80 | ((cp >> shift) & 0x3F));
  }
}

// What "&#128;" to "&#159;" mean: pages labelled Latin-1 were written in Windows-1252, so browsers
// read these as its characters. Zero marks the five codes Windows-1252 leaves undefined; they stay.
constexpr std::array<char16_t, 32> kWindows1252 = {
    0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0,      0x017D, 0,      0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};

char32_t numericReferenceCodePoint(std::uint32_t value) {
  if (value == 0 || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return 0xFFFD;
  if (value >= 0x80 && value <= 0x9F && kWindows1252[value - 0x80] != 0) return kWindows1252[value - 0x80];
  return value;
}

// Where a legacy reference written without ";" ("&copy") is decoded.
enum class LegacyForm {
  kAlways,              // as in HTML text: "&copy2024" is "©2024"
  kNotBeforeNameChars,  // as in attribute values: "&copy=1" and "&notes" stay as written
};

// Decodes the numeric reference whose "&#" is at `amp`; returns the bytes it spans, 0 if none.
size_t decodeNumericReference(std::string_view text, size_t amp, std::string& out) {
  size_t i = amp + 2;
  const bool hex = i < text.size() && (text[i] == 'x' || text[i] == 'X');
  if (hex) ++i;
  const size_t digits = i;
  std::uint32_t value = 0;
  for (; i < text.size(); ++i) {
    const int digit = hex ? hexValue(text[i]) : (isAsciiDigit(text[i]) ? text[i] - '0' : -1);
    if (digit < 0) break;
    // Saturates just past the last code point, so any number of digits is safe.
    value = std::min<std::uint32_t>(value * (hex ? 16 : 10) + static_cast<std::uint32_t>(digit), 0x110000);
  }
  if (i == digits) return 0;
  if (i < text.size() && text[i] == ';') ++i;
  appendUTF8(out, numericReferenceCodePoint(value));
  return i - amp;
}

// Decodes the reference whose "&" is at `amp` onto `out`; returns the bytes it spans, or 0 when
// there is none there (the "&" then stands for itself).
size_t decodeReference(std::string_view text, size_t amp, LegacyForm legacy, std::string& out) {
  const size_t begin = amp + 1;
  if (begin < text.size() && text[begin] == '#') return decodeNumericReference(text, amp, out);
  size_t end = begin;
  while (end < text.size() && end - begin < kMaxEntityNameLength && isAsciiAlnum(text[end])) ++end;
  if (end == begin) return 0;
  if (end < text.size() && text[end] == ';') {
    if (const HtmlEntity* entity = findEntity(text.substr(begin, end + 1 - begin))) {
      out += entity->value;
      return end + 1 - amp;
    }
  }
  // The longest legacy name the text starts with, as browsers do: "&notit;" is "¬it;".
  for (size_t length = std::min(end - begin, kMaxLegacyEntityNameLength); length >= 2; --length) {
    const HtmlEntity* entity = findEntity(text.substr(begin, length));
    if (entity == nullptr) continue;
    const size_t after = begin + length;
    if (legacy == LegacyForm::kNotBeforeNameChars && after < text.size() &&
        (isAsciiAlnum(text[after]) || text[after] == '=')) {
      return 0;
    }
    out += entity->value;
    return after - amp;
  }
  return 0;
}

// Any bytes in: the functions below work on valid UTF-8 and keep it valid.
std::string_view validUTF8(std::string_view text, std::string& storage) {
  if (isValidUTF8(text)) return text;
  storage = sanitizeUTF8(text);
  return storage;
}

enum ElementFlag : std::uint16_t {
  kLineBlock = 1 << 0,         // starts and ends on a line of its own
  kParagraphBlock = 1 << 1,    // set off by an empty line
  kLineBreak = 1 << 2,         // br
  kCell = 1 << 3,              // table cells: a space between neighbours
  kRawText = 1 << 4,           // contents are text up to the matching end tag
  kEscapableRawText = 1 << 5,  // the same, but character references count
  kPlaintextElement = 1 << 6,  // everything after it is text
  kHidden = 1 << 7,            // contents never shown
  kPreformatted = 1 << 8,      // line breaks in the text are kept
  kForeign = 1 << 9,           // svg, math: any name inside is a tag
  kLeavesForeign = 1 << 10,    // an HTML element that ends unclosed svg or math around it
};

struct ElementInfo {
  std::string_view name;
  std::uint16_t flags;
};

// Every HTML element, obsolete ones included, sorted by name. A "<" starts a tag only before one
// of these names or a custom or prefixed one ("my-widget", "o:p"), so that text such as
// "List<String>" or "if x<y" survives: it turns up when entities were decoded twice.
// clang-format off
constexpr ElementInfo kElements[] = {
    {"a", 0}, {"abbr", 0}, {"acronym", 0}, {"address", kLineBlock}, {"applet", 0}, {"area", 0},
    {"article", kLineBlock}, {"aside", kLineBlock}, {"audio", kHidden}, {"b", kLeavesForeign}, {"base", 0},
    {"basefont", 0}, {"bdi", 0}, {"bdo", 0}, {"bgsound", 0}, {"big", kLeavesForeign}, {"blink", 0},
    {"blockquote", kParagraphBlock | kLeavesForeign}, {"body", kLeavesForeign},
    {"br", kLineBreak | kLeavesForeign}, {"button", 0}, {"canvas", kHidden}, {"caption", kLineBlock},
    {"center", kLineBlock | kLeavesForeign}, {"cite", 0}, {"code", kLeavesForeign}, {"col", 0},
    {"colgroup", 0}, {"data", 0}, {"datalist", kHidden}, {"dd", kLineBlock | kLeavesForeign}, {"del", 0},
    {"details", kLineBlock}, {"dfn", 0}, {"dialog", kLineBlock}, {"dir", kLineBlock},
    {"div", kLineBlock | kLeavesForeign}, {"dl", kLineBlock | kLeavesForeign},
    {"dt", kLineBlock | kLeavesForeign}, {"em", kLeavesForeign}, {"embed", kLeavesForeign},
    {"fieldset", kLineBlock}, {"figcaption", kLineBlock}, {"figure", kLineBlock}, {"font", 0},
    {"footer", kLineBlock}, {"form", kLineBlock}, {"frame", 0}, {"frameset", 0},
    {"h1", kParagraphBlock | kLeavesForeign}, {"h2", kParagraphBlock | kLeavesForeign},
    {"h3", kParagraphBlock | kLeavesForeign}, {"h4", kParagraphBlock | kLeavesForeign},
    {"h5", kParagraphBlock | kLeavesForeign}, {"h6", kParagraphBlock | kLeavesForeign},
    {"head", kLeavesForeign}, {"header", kLineBlock}, {"hgroup", kLineBlock},
    {"hr", kParagraphBlock | kLeavesForeign}, {"html", 0}, {"i", kLeavesForeign},
    {"iframe", kRawText | kHidden}, {"image", 0}, {"img", kLeavesForeign}, {"input", 0}, {"ins", 0},
    {"isindex", 0}, {"kbd", 0}, {"keygen", 0}, {"label", 0}, {"legend", kLineBlock},
    {"li", kLineBlock | kLeavesForeign}, {"link", 0},
    {"listing", kParagraphBlock | kPreformatted | kLeavesForeign}, {"main", kLineBlock}, {"map", 0},
    {"mark", 0}, {"marquee", 0}, {"math", kForeign}, {"menu", kLineBlock | kLeavesForeign}, {"menuitem", 0},
    {"meta", kLeavesForeign}, {"meter", 0}, {"multicol", 0}, {"nav", kLineBlock}, {"nextid", 0},
    {"nobr", kLeavesForeign}, {"noembed", kRawText | kHidden}, {"noframes", kRawText | kHidden},
    {"noscript", 0}, {"object", 0}, {"ol", kLineBlock | kLeavesForeign}, {"optgroup", kLineBlock},
    {"option", kLineBlock}, {"output", 0}, {"p", kParagraphBlock | kLeavesForeign}, {"param", 0},
    {"picture", 0}, {"plaintext", kPlaintextElement | kParagraphBlock | kPreformatted},
    {"pre", kParagraphBlock | kPreformatted | kLeavesForeign}, {"progress", 0}, {"q", 0}, {"rb", 0},
    {"rp", 0}, {"rt", 0}, {"rtc", 0}, {"ruby", kLeavesForeign}, {"s", kLeavesForeign}, {"samp", 0},
    {"script", kRawText | kHidden}, {"search", kLineBlock}, {"section", kLineBlock}, {"select", kHidden},
    {"slot", 0}, {"small", kLeavesForeign}, {"source", 0}, {"spacer", 0}, {"span", kLeavesForeign},
    {"strike", kLeavesForeign}, {"strong", kLeavesForeign}, {"style", kRawText | kHidden},
    {"sub", kLeavesForeign}, {"summary", kLineBlock}, {"sup", kLeavesForeign}, {"svg", kForeign | kHidden},
    {"table", kLineBlock | kLeavesForeign}, {"tbody", kLineBlock}, {"td", kCell}, {"template", kHidden},
    {"textarea", kEscapableRawText | kHidden}, {"tfoot", kLineBlock}, {"th", kCell}, {"thead", kLineBlock},
    {"time", 0}, {"title", kEscapableRawText | kHidden}, {"tr", kLineBlock}, {"track", 0},
    {"tt", kLeavesForeign}, {"u", kLeavesForeign}, {"ul", kLineBlock | kLeavesForeign},
    {"var", kLeavesForeign}, {"video", kHidden}, {"wbr", 0},
    {"xmp", kRawText | kParagraphBlock | kPreformatted}};
// clang-format on

static_assert(std::ranges::adjacent_find(kElements, std::ranges::greater_equal{}, &ElementInfo::name) ==
                  std::ranges::end(kElements),
              "the element table must be sorted for binary search");

constexpr size_t kMaxElementNameLength = 10;  // "blockquote", "figcaption"
static_assert(std::ranges::all_of(kElements, [](const ElementInfo& e) {
  return e.name.size() <= kMaxElementNameLength;
}));

const ElementInfo* findElement(std::string_view name) {
  if (name.size() > kMaxElementNameLength) return nullptr;
  char lower[kMaxElementNameLength];
  for (size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    lower[i] = (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
  }
  const std::string_view key(lower, name.size());
  const auto* it = std::ranges::lower_bound(kElements, key, {}, &ElementInfo::name);
  return it != std::ranges::end(kElements) && it->name == key ? it : nullptr;
}

bool isHtmlSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f'; }
bool endsTagName(char c) { return isHtmlSpace(c) || c == '/' || c == '>'; }
// What element names are made of, custom ("my-widget") and prefixed ("o:p") ones included.
bool isNameChar(char c) { return isAsciiAlnum(c) || c == '-' || c == ':' || c == '_' || c == '.'; }

// Ends `element` and whatever opened inside it and is still open; nothing when it is not open.
void closeUpTo(std::vector<const ElementInfo*>& open, const ElementInfo* element) {
  const auto it = std::find(open.rbegin(), open.rend(), element);
  if (it != open.rend()) open.erase(std::prev(it.base()), open.end());
}

enum class TextKind {
  kMarkup,   // text where character references count
  kLiteral,  // raw text, CDATA: exactly as written
};

// One forward pass over an HTML fragment in the manner of the HTML5 tokenizer, telling `Sink`
// about text and tags (comments, doctypes and processing instructions vanish). It never looks
// back, so any input costs linear time; whatever is cut off at the end (an unclosed comment, a
// tag without its ">") is dropped, as browsers do.
template <typename Sink>
class HtmlScanner {
 public:
  HtmlScanner(std::string_view html, Sink& sink) : html_(html), sink_(sink) {}

  void run() {
    size_t text = 0;  // start of the text not yet handed on; a "<" that starts nothing joins it
    size_t pos = 0;
    while (pos < html_.size()) {
      const size_t lt = html_.find('<', pos);
      if (lt == npos) break;
      const size_t next = markup(lt, text);
      if (next == kNotMarkup) {
        pos = lt + 1;
      } else {
        text = pos = next;
      }
    }
    if (text < html_.size()) sink_.text(html_.substr(text), TextKind::kMarkup);
  }

 private:
  struct TagEnd {
    size_t after;  // just past the ">", npos when the input ends first
    bool selfClosing;
  };

  bool startsWith(size_t pos, std::string_view prefix) const {
    return pos <= html_.size() && html_.substr(pos).starts_with(prefix);
  }

  static constexpr size_t kNotMarkup = 0;  // never a position to go on from

  // Handles what starts with the "<" at `lt`, first handing on the text from `text` to it.
  // Returns where scanning goes on, or kNotMarkup when the "<" is text.
  size_t markup(size_t lt, size_t text) {
    const bool declaration = startsWith(lt, "<!") || startsWith(lt, "<?");
    const bool isEndTag = startsWith(lt, "</");
    const size_t nameBegin = lt + (isEndTag ? 2 : 1);
    size_t nameEnd = nameBegin;
    const ElementInfo* element = nullptr;
    if (!declaration && !startsWith(lt, "</>")) {  // "</>" vanishes
      if (nameBegin >= html_.size() || !isAsciiAlpha(html_[nameBegin])) return kNotMarkup;
      // Names stop short of "<", so no byte is read twice here however many "<a<a<a" follow.
      while (nameEnd < html_.size() && isNameChar(html_[nameEnd])) ++nameEnd;
      if (nameEnd < html_.size() && !endsTagName(html_[nameEnd])) return kNotMarkup;
      const std::string_view name = html_.substr(nameBegin, nameEnd - nameBegin);
      element = findElement(name);
      if (element == nullptr && foreign_.empty() && name.find_first_of("-:") == npos) return kNotMarkup;
    }
    if (lt > text) sink_.text(html_.substr(text, lt - text), TextKind::kMarkup);

    if (declaration) {
      if (startsWith(lt, "<!--")) return skipComment(lt + 4);
      if (startsWith(lt, "<![CDATA[")) return cdata(lt + 9);
      const size_t close = html_.find('>', lt + 2);  // doctypes, processing instructions ...
      return close == npos ? npos : close + 1;
    }
    const TagEnd end = skipAttributes(nameEnd);
    if (end.after == npos) return npos;
    if (!isEndTag) return startTag(element, end);
    endTag(element);
    return end.after;
  }

  size_t startTag(const ElementInfo* element, TagEnd end) {
    const std::uint16_t flags = element != nullptr ? element->flags : 0;
    if ((flags & kLeavesForeign) != 0) leaveForeign();
    sink_.startTag(element, end.selfClosing);
    // A self-closed "<script/>" or "<iframe/>" is XHTML written into HTML: reading the rest of
    // the document as its contents would lose it all.
    if (end.selfClosing || element == nullptr) return end.after;
    if ((flags & kForeign) != 0 && foreign_.size() < kMaxDepth) foreign_.push_back(element);
    if (!foreign_.empty()) return end.after;
    if ((flags & kPlaintextElement) != 0) {
      sink_.text(html_.substr(end.after), TextKind::kLiteral);
      return npos;
    }
    if ((flags & (kRawText | kEscapableRawText)) == 0) return end.after;
    const size_t close = findEndTag(element->name, end.after);
    const size_t stop = close == npos ? html_.size() : close;
    sink_.text(html_.substr(end.after, stop - end.after),
               (flags & kEscapableRawText) != 0 ? TextKind::kMarkup : TextKind::kLiteral);
    return stop;
  }

  void endTag(const ElementInfo* element) {
    if (element != nullptr && (element->flags & kForeign) != 0) {
      closeUpTo(foreign_, element);
    }
    sink_.endTag(element);
  }

  // HTML inside unclosed svg or math ends them, as in browsers.
  void leaveForeign() {
    while (!foreign_.empty()) {
      sink_.endTag(foreign_.back());
      foreign_.pop_back();
    }
  }

  // From just past a tag's name to just past its ">", stepping over quoted attribute values
  // (which may hold ">"). An attribute name may itself begin with "=" or a quote, as in HTML5.
  TagEnd skipAttributes(size_t i) const {
    const size_t n = html_.size();
    while (i < n) {
      const char c = html_[i];
      if (c == '>') return {i + 1, false};
      if (isHtmlSpace(c)) {
        ++i;
        continue;
      }
      if (c == '/') {
        ++i;
        if (i < n && html_[i] == '>') return {i + 1, true};
        continue;
      }
      ++i;
      while (i < n && !endsTagName(html_[i]) && html_[i] != '=') ++i;
      while (i < n && isHtmlSpace(html_[i])) ++i;
      if (i >= n || html_[i] != '=') continue;
      ++i;
      while (i < n && isHtmlSpace(html_[i])) ++i;
      if (i < n && (html_[i] == '"' || html_[i] == '\'')) {
        const size_t close = html_.find(html_[i], i + 1);
        if (close == npos) break;
        i = close + 1;
      } else {
        while (i < n && !isHtmlSpace(html_[i]) && html_[i] != '>') ++i;
      }
    }
    return {npos, false};
  }

  // "</name" (any case) ending a raw-text element, or npos.
  size_t findEndTag(std::string_view name, size_t from) const {
    for (size_t i = html_.find("</", from); i != npos; i = html_.find("</", i + 2)) {
      const size_t nameEnd = i + 2 + name.size();
      if (nameEnd <= html_.size() && equalsIgnoringASCIICase(html_.substr(i + 2, name.size()), name) &&
          (nameEnd == html_.size() || endsTagName(html_[nameEnd]))) {
        return i;
      }
    }
    return npos;
  }

  // From just past "<!--": "-->" or "--!>" ends it; "<!-->" and "<!--->" are empty comments.
  size_t skipComment(size_t i) const {
    if (startsWith(i, ">")) return i + 1;
    if (startsWith(i, "->")) return i + 2;
    for (size_t dashes = html_.find("--", i); dashes != npos; dashes = html_.find("--", dashes + 1)) {
      if (startsWith(dashes + 2, ">")) return dashes + 3;
      if (startsWith(dashes + 2, "!>")) return dashes + 4;
    }
    return npos;
  }

  // CDATA sections are kept as text: feeds wrap real content in them.
  size_t cdata(size_t i) {
    const size_t close = html_.find("]]>", i);
    sink_.text(html_.substr(i, close == npos ? npos : close - i), TextKind::kLiteral);
    return close == npos ? npos : close + 3;
  }

  static constexpr size_t kMaxDepth = 32;  // svg in math in svg ... deeper is only abuse

  const std::string_view html_;
  Sink& sink_;
  std::vector<const ElementInfo*> foreign_;  // open svg and math elements, innermost last
};

class TagStripper {
 public:
  explicit TagStripper(size_t capacity) { out_.reserve(capacity); }
  void text(std::string_view text, TextKind) { out_ += text; }
  void startTag(const ElementInfo*, bool) {}
  void endTag(const ElementInfo*) {}
  std::string take() { return std::move(out_); }

 private:
  std::string out_;
};

// How the plain-text writer treats each byte of text.
enum ByteClass : std::uint8_t { kPlain, kSpace, kNewline, kControl, kAmpersand, kLeadC2 };

constexpr std::array<ByteClass, 256> makeByteClasses() {
  std::array<ByteClass, 256> classes{};
  for (int c = 0; c < 0x20; ++c) classes[c] = kControl;
  classes[0x7F] = kControl;
  classes[' '] = classes['\t'] = classes['\f'] = classes['\v'] = kSpace;
  classes['\n'] = classes['\r'] = kNewline;
  classes['&'] = kAmpersand;
  classes[0xC2] = kLeadC2;
  return classes;
}
constexpr std::array<ByteClass, 256> kByteClass = makeByteClasses();

// Lays text out as lines: breaks and spaces are owed until a visible character needs them, so
// runs collapse and nothing dangles at either end.
class PlainTextWriter {
 public:
  explicit PlainTextWriter(size_t capacity) { out_.reserve(capacity / 2); }

  void startTag(const ElementInfo* element, bool selfClosing) {
    if (element == nullptr) return;
    const std::uint16_t flags = element->flags;
    if ((flags & kHidden) != 0) {
      if (!selfClosing && hidden_.size() < kMaxHiddenDepth) hidden_.push_back(element);
      return;
    }
    if (!hidden_.empty()) return;
    layOut(flags);
    if ((flags & kPreformatted) != 0 && !selfClosing) ++preformatted_;
  }

  void endTag(const ElementInfo* element) {
    if (element == nullptr) return;
    const std::uint16_t flags = element->flags;
    if ((flags & kHidden) != 0) {
      closeUpTo(hidden_, element);
      return;
    }
    if (!hidden_.empty()) return;
    layOut(flags);  // "</br>" is a line break too, as in browsers
    if ((flags & kPreformatted) != 0 && preformatted_ > 0) --preformatted_;
  }

  void text(std::string_view text, TextKind kind) {
    if (!hidden_.empty()) return;
    size_t i = 0;
    while (i < text.size()) {
      size_t run = i;
      while (run < text.size() && kByteClass[static_cast<unsigned char>(text[run])] == kPlain) ++run;
      if (run > i) {
        settleDebts();
        out_.append(text.substr(i, run - i));
        i = run;
        continue;
      }
      const ByteClass byteClass = kByteClass[static_cast<unsigned char>(text[i])];
      if (byteClass == kAmpersand) {
        i += reference(text, i, kind);
      } else if (byteClass == kLeadC2) {
        i += twoByteCharacter(text, i);
      } else {
        if (byteClass == kNewline && preformatted_ > 0) {
          addLineBreak();
        } else if (byteClass != kControl) {
          spaceOwed_ = true;  // a space, or a line end outside pre
        }
        i += text.substr(i).starts_with("\r\n") ? 2 : 1;
      }
    }
  }

  std::string take() { return std::move(out_); }

 private:
  // Decodes a reference at `i` and lays out what it stands for; returns the bytes used.
  size_t reference(std::string_view text, size_t i, TextKind kind) {
    if (kind == TextKind::kMarkup) {
      scratch_.clear();
      // Text here may already have been decoded once, so a legacy name glued to a word ("&notes",
      // "?a=1&copy=2") is left alone: decoding it a second time would change ordinary text.
      if (const size_t used = decodeReference(text, i, LegacyForm::kNotBeforeNameChars, scratch_)) {
        this->text(scratch_, TextKind::kLiteral);  // literal text never touches scratch_
        return used;
      }
    }
    settleDebts();
    out_ += '&';
    return 1;
  }

  // U+00A0 (no-break space) collapses like a space; U+00AD (soft hyphen) and the C1 controls
  // are invisible. Other two-byte characters pass.
  size_t twoByteCharacter(std::string_view text, size_t i) {
    const auto second = static_cast<unsigned char>(text[i + 1]);  // the input is valid UTF-8
    if (second == 0xA0) {
      spaceOwed_ = true;
    } else if (second != 0xAD && second > 0x9F) {
      settleDebts();
      out_.append(text.substr(i, 2));
    }
    return 2;
  }

  void layOut(std::uint16_t flags) {
    if ((flags & kLineBreak) != 0) addLineBreak();
    if ((flags & kLineBlock) != 0) owe(1);
    if ((flags & kParagraphBlock) != 0) owe(2);
    if ((flags & kCell) != 0) spaceOwed_ = true;
  }

  // A block asks for at least `breaks` line ends; each "<br>" adds one. Two at most: one empty line.
  void owe(int breaks) { breaksOwed_ = std::max(breaksOwed_, breaks); }
  void addLineBreak() { breaksOwed_ = std::min(breaksOwed_ + 1, 2); }

  void settleDebts() {
    if (!out_.empty() && breaksOwed_ > 0) out_.append(static_cast<size_t>(breaksOwed_), '\n');
    if (!out_.empty() && breaksOwed_ == 0 && spaceOwed_) out_ += ' ';
    breaksOwed_ = 0;
    spaceOwed_ = false;
  }

  static constexpr size_t kMaxHiddenDepth = 32;

  std::string out_;
  std::string scratch_;  // a decoded reference
  int breaksOwed_ = 0;
  bool spaceOwed_ = false;
  int preformatted_ = 0;                    // open pre, textarea ... elements
  std::vector<const ElementInfo*> hidden_;  // open elements whose contents are not shown
};

// The code point at `i` and its length in bytes; length 0 for an invalid sequence.
std::pair<char32_t, size_t> codePointAt(std::string_view text, size_t i) {
  const auto lead = static_cast<unsigned char>(text[i]);
  const size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (i + length > text.size() || !isValidUTF8(text.substr(i, length))) return {0, 0};
  char32_t cp = length == 1 ? lead : lead & (0x7F >> length);
  for (size_t k = 1; k < length; ++k) cp = (cp << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
  return {cp, length};
}

// Characters that never belong to a link in running text: white space, quotes and brackets
// around it, and the CJK punctuation that follows it with no space.
constexpr char32_t kLinkEnders[] = {0x00A0, 0x00AB, 0x00BB, 0x200B, 0x201C, 0x201D, 0x2028,
                                    0x2029, 0x202F, 0x205F, 0x3000, 0x3001, 0x3002, 0x300C,
                                    0x300D, 0xFEFF, 0xFF08, 0xFF09, 0xFF0C};
bool endsLink(char32_t cp) {
  if (cp >= 0x80) {
    return (cp >= 0x2000 && cp <= 0x200A) || std::ranges::find(kLinkEnders, cp) != std::end(kLinkEnders);
  }
  return cp <= 0x20 || cp == 0x7F || std::strchr("<>\"`{}|\\^", static_cast<int>(cp)) != nullptr;
}

// Punctuation that ends a sentence more often than a link.
bool isTrailingPunctuation(char32_t cp) {
  if (cp < 0x80) return cp != 0 && std::strchr(".,:;!?'*", static_cast<int>(cp)) != nullptr;
  return cp == 0x2018 || cp == 0x2019 || cp == 0x2026;
}

struct LinkStart {
  size_t prefixLength = 0;  // 0: no link starts here
  bool bare = false;        // "www." without a scheme
};

LinkStart linkStartAt(std::string_view text, size_t i) {
  if (i > 0 && isAsciiAlnum(text[i - 1])) return {};
  const std::string_view rest = text.substr(i, 8);
  for (std::string_view scheme : {"http://", "https://", "ftp://", "mailto:"}) {
    if (rest.size() >= scheme.size() && equalsIgnoringASCIICase(rest.substr(0, scheme.size()), scheme)) {
      return {scheme.size(), false};
    }
  }
  // A bare host must stand on its own: not "a.www.b", "user@www.b" or a path's "/www.b".
  if (rest.size() >= 4 && equalsIgnoringASCIICase(rest.substr(0, 4), "www.") &&
      (i == 0 || std::strchr(".-_@/:", text[i - 1]) == nullptr)) {
    return {4, true};
  }
  return {};
}

// Whether what follows a link's prefix can start one: a host for the schemes and "www.", an
// address for mail. Checked before the link is scanned, so that a run of broken candidates
// ("http://.http://.") costs no more than one look each.
bool startsLinkBody(std::string_view text, size_t begin, size_t body) {
  if (body >= text.size()) return false;
  if (equalsIgnoringASCIICase(text.substr(begin, 7), "mailto:")) {
    constexpr size_t kMaxLocalPart = 64;
    for (size_t i = body; i < text.size() && i - body <= kMaxLocalPart; ++i) {
      const auto c = static_cast<unsigned char>(text[i]);
      if (c == '@') return i > body;
      if (c <= 0x20 || c == 0x7F || std::strchr("<>\"(),;:[]\\", c) != nullptr) return false;
    }
    return false;
  }
  const auto first = static_cast<unsigned char>(text[body]);
  if (isAsciiAlnum(text[body]) || first == '[') return true;
  const auto [cp, length] = codePointAt(text, body);
  return length > 1 && !endsLink(cp) && !isTrailingPunctuation(cp);  // an internationalised host
}

// The end of the link whose body (after the scheme) starts at `body`, or `body` when none.
size_t linkEnd(std::string_view text, size_t begin, size_t body) {
  if (!startsLinkBody(text, begin, body)) return body;
  size_t end = body;
  int parens = 0, brackets = 0;  // opened minus closed
  while (end < text.size()) {
    const auto [cp, length] = codePointAt(text, end);
    if (length == 0 || endsLink(cp)) break;
    parens += (cp == '(') - (cp == ')');
    brackets += (cp == '[') - (cp == ']');
    end += length;
  }
  while (end > body) {
    size_t last = end - 1;
    while (last > body && (static_cast<unsigned char>(text[last]) & 0xC0) == 0x80) --last;
    const char32_t cp = codePointAt(text, last).first;
    int* balance = cp == ')' ? &parens : cp == ']' ? &brackets : nullptr;
    if (balance != nullptr && *balance < 0) {
      ++*balance;  // closes a bracket opened before the link
    } else if (!isTrailingPunctuation(cp)) {
      break;
    }
    end = last;
  }
  // Mail needs something after the "@" once the punctuation is gone ("mailto:me@." is not a link).
  if (equalsIgnoringASCIICase(text.substr(begin, 7), "mailto:")) {
    const size_t at = text.substr(body, end - body).find('@');
    if (at == npos || body + at + 1 >= end) return body;
  }
  return end;
}

}  // namespace

std::string decodeHtmlEntities(std::string_view text) {
  std::string storage;
  text = validUTF8(text, storage);
  std::string out;
  out.reserve(text.size());
  size_t pos = 0;
  for (size_t amp = text.find('&'); amp != npos; amp = text.find('&', pos)) {
    out.append(text.substr(pos, amp - pos));
    const size_t used = decodeReference(text, amp, LegacyForm::kAlways, out);
    if (used == 0) out += '&';
    pos = amp + std::max<size_t>(used, 1);
  }
  out.append(text.substr(pos));
  return out;
}

std::string encodeHtmlEntities(std::string_view text) {
  std::string storage;
  text = validUTF8(text, storage);
  std::string out;
  out.reserve(text.size() + text.size() / 8);
  for (const char c : text) {
    const char* escaped = c == '&'    ? "&amp;"
                          : c == '<'  ? "&lt;"
                          : c == '>'  ? "&gt;"
                          : c == '"'  ? "&quot;"
                          : c == '\'' ? "&#39;"
                                      : nullptr;
    if (escaped != nullptr) {
      out += escaped;
    } else {
      out += c;
    }
  }
  return out;
}

std::string htmlToPlainText(std::string_view html) {
  std::string storage;
  html = validUTF8(html, storage);
  PlainTextWriter writer(html.size());
  HtmlScanner(html, writer).run();
  return writer.take();
}

std::string stripTags(std::string_view html) {
  std::string storage;
  html = validUTF8(html, storage);
  TagStripper stripper(html.size());
  HtmlScanner(html, stripper).run();
  return stripper.take();
}

std::vector<DetectedLink> detectLinks(std::string_view text) {
  std::vector<DetectedLink> links;
  size_t i = 0;
  while (i < text.size()) {
    const LinkStart start = linkStartAt(text, i);
    if (start.prefixLength == 0) {
      ++i;
      continue;
    }
    const size_t end = linkEnd(text, i, i + start.prefixLength);
    if (end == i + start.prefixLength) {
      i += start.prefixLength;
      continue;
    }
    const std::string_view written = text.substr(i, end - i);
    links.push_back({i, end, start.bare ? "http://" + std::string(written) : std::string(written)});
    i = end;
  }
  return links;
}

std::string linkifyText(std::string_view text) {
  std::string storage;
  text = validUTF8(text, storage);
  std::string out;
  size_t pos = 0;
  for (const DetectedLink& link : detectLinks(text)) {
    out += encodeHtmlEntities(text.substr(pos, link.begin - pos));
    out += "<a href=\"";
    out += encodeHtmlEntities(link.url);
    out += "\">";
    out += encodeHtmlEntities(text.substr(link.begin, link.end - link.begin));
    out += "</a>";
    pos = link.end;
  }
  out += encodeHtmlEntities(text.substr(pos));
  return out;
}

}  // namespace lectern
