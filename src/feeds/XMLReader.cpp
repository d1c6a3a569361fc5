#include "feeds/XMLReader.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "feeds/XhtmlCapture.h"

namespace lectern {
namespace {

bool isBlank(std::string_view text) {
  for (char c : text) {
    if (c != ' ' && c != '\n' && c != '\t' && c != '\r') return false;
  }
  return true;
}

// Builds the dictionary tree from parser events. An element's entries wait on a stack until it
// ends; then they are grouped by name and written to the arena in one piece, so the tree holds
// no spare capacity and no per-node allocations.
class TreeBuilder final : public XmlSaxHandler {
 public:
  explicit TreeBuilder(std::size_t documentBytes)
      : arena_(std::make_unique<std::pmr::monotonic_buffer_resource>(documentBytes / 2 + 4096)) {
    textNodeKey_ = internText(kXmlTextNodeKey);
    frames_.push_back({0, false});
  }

  void startElement(std::string_view name, std::span<const XmlAttribute> attributes) override {
    if (xhtml_.active()) return xhtml_.startElement(name, attributes);
    if (frames_.size() == 1 && pending_.empty()) rootName_ = name;
    if (!text_.empty() && isBlank(text_)) text_.clear();
    frames_.back().hadChildren = true;
    frames_.push_back({pending_.size(), false});
    for (const auto& attribute : attributes) {
      pending_.push_back({intern(attribute.name), XmlValue::string(copy(attribute.value))});
    }
    if (XhtmlCapture::opensConstruct(rootName_, attributes)) xhtml_.begin();
  }

  void endElement(std::string_view name) override {
    // An XHTML construct keeps its content as markup, in place of child dictionaries and text.
    if (xhtml_.active()) {
      if (xhtml_.endElement(name)) return;
      text_ = xhtml_.take();
    }
    const Frame frame = frames_.back();
    frames_.pop_back();
    std::optional<std::string_view> text;
    if (!text_.empty()) {
      if (!(frame.hadChildren && isBlank(text_))) text = copy(text_);
      text_.clear();
    }
    const XmlValue dictionary = makeDictionary(frame.firstEntry, text);
    pending_.resize(frame.firstEntry);
    pending_.push_back({intern(name), dictionary});
  }

  void characters(std::string_view text) override {
    if (xhtml_.active()) {
      xhtml_.characters(text);
    } else {
      text_.append(text);
    }
  }

  XmlDocument finish() && {
    const XmlValue root = makeDictionary(0, std::nullopt);
    return XmlDocument(std::move(arena_), root.asDictionary());
  }

 private:
  struct Frame {
    std::size_t firstEntry;  // in pending_
    bool hadChildren;
  };
  struct Group {
    std::string_view key;
    std::uint32_t count;
    std::uint32_t filled;
    XmlValue* members;  // in the arena, when count > 1
  };

  template <typename T>
  T* allocate(std::size_t count) {
    return static_cast<T*>(arena_->allocate(count * sizeof(T), alignof(T)));
  }

  std::string_view copy(std::string_view text) {
    if (text.empty()) return {};
    char* bytes = allocate<char>(text.size());
    std::memcpy(bytes, text.data(), text.size());
    return {bytes, text.size()};
  }

  std::string_view internText(std::string_view name) {
    auto it = keysByText_.find(name);
    if (it == keysByText_.end()) {
      const std::string_view stored = copy(name);
      it = keysByText_.emplace(stored, stored).first;
    }
    return it->second;
  }

  // The parser hands out each name at one stable address, so most lookups go by address. Keys
  // end up unique by content too, so grouping can compare addresses.
  std::string_view intern(std::string_view name) {
    auto [it, inserted] = keysByAddress_.try_emplace(name.data());
    if (inserted || it->second != name) it->second = internText(name);
    return it->second;
  }

  std::size_t groupOf(const char* key) {
    if (groups_.size() <= 8) {
      for (std::size_t g = 0; g < groups_.size(); ++g) {
        if (groups_[g].key.data() == key) return g;
      }
      if (groups_.size() < 8) return groups_.size();
      // Many distinct names under one element: index them from here on.
      groupIndex_.clear();
      for (std::size_t g = 0; g < groups_.size(); ++g) groupIndex_.emplace(groups_[g].key.data(), g);
    }
    auto it = groupIndex_.find(key);
    return it == groupIndex_.end() ? groups_.size() : it->second;
  }

  XmlValue makeDictionary(std::size_t firstEntry, std::optional<std::string_view> text) {
    groups_.clear();
    for (std::size_t i = firstEntry; i < pending_.size(); ++i) {
      const std::string_view key = pending_[i].key;
      const std::size_t g = groupOf(key.data());
      if (g == groups_.size()) {
        if (groups_.size() >= 8) groupIndex_.emplace(key.data(), g);
        groups_.push_back({key, 1, 0, nullptr});
      } else {
        ++groups_[g].count;
      }
    }
    std::size_t textGroup = groups_.size();
    if (text) {
      textGroup = groupOf(textNodeKey_.data());
      if (textGroup == groups_.size()) {
        if (groups_.size() >= 8) groupIndex_.emplace(textNodeKey_.data(), textGroup);
        groups_.push_back({textNodeKey_, 0, 0, nullptr});
      }
    }
    if (groups_.empty()) return XmlValue::dictionary({});

    auto* entries = allocate<XmlEntry>(groups_.size());
    for (std::size_t g = 0; g < groups_.size(); ++g) {
      if (groups_[g].count > 1) groups_[g].members = allocate<XmlValue>(groups_[g].count);
    }
    for (std::size_t i = firstEntry; i < pending_.size(); ++i) {
      const std::size_t g = groupOf(pending_[i].key.data());
      Group& group = groups_[g];
      if (group.count == 1) {
        new (&entries[g]) XmlEntry(pending_[i]);
      } else {
        new (&group.members[group.filled++]) XmlValue(pending_[i].value);
      }
    }
    for (std::size_t g = 0; g < groups_.size(); ++g) {
      const Group& group = groups_[g];
      if (g == textGroup) {
        // Text replaces whatever else was stored under "textNode".
        new (&entries[g]) XmlEntry{textNodeKey_, XmlValue::string(*text)};
      } else if (group.count > 1) {
        new (&entries[g]) XmlEntry{group.key, XmlValue::list({group.members, group.count})};
      }
    }
    return XmlValue::dictionary({entries, groups_.size()});
  }

  std::unique_ptr<std::pmr::monotonic_buffer_resource> arena_;
  std::vector<XmlEntry> pending_;
  std::vector<Frame> frames_;
  std::vector<Group> groups_;
  std::unordered_map<const char*, std::size_t> groupIndex_;
  std::string text_;
  std::unordered_map<const char*, std::string_view> keysByAddress_;
  std::unordered_map<std::string_view, std::string_view> keysByText_;
  std::string_view textNodeKey_;
  std::string rootName_;
  XhtmlCapture xhtml_;
};

// Windows-1252 characters of the bytes 0x80 to 0x9F; the five it leaves undefined read as Latin-1.
constexpr std::array<char16_t, 32> kWindows1252High = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

// Length of the well-formed UTF-8 sequence at `i`, or 0.
std::size_t utf8Length(std::string_view s, std::size_t i) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(s[k]); };
  const unsigned char c = byte(i);
  std::size_t n = 0;
  std::uint32_t min = 0, cp = 0;
  if (c < 0x80) return 1;
  if ((c & 0xE0) == 0xC0)
    n = 2, min = 0x80, cp = c & 0x1F;
  else if ((c & 0xF0) == 0xE0)
    n = 3, min = 0x800, cp = c & 0x0F;
  else if ((c & 0xF8) == 0xF0)
    n = 4, min = 0x10000, cp = c & 0x07;
  else
    return 0;
  if (i + n > s.size()) return 0;
  for (std::size_t k = 1; k < n; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (byte(i + k) & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return n;
}

void appendUTF8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// Bytes as UTF-8 text: UTF-8 sequences kept, every other byte taken as a Windows-1252
// character, and the control characters XML forbids dropped.
std::string asUTF8(std::string_view bytes) {
  const auto plain = [](unsigned char c) { return c >= 0x20 && c < 0x80; };
  std::string out;
  out.reserve(bytes.size() + bytes.size() / 8);
  for (std::size_t i = 0; i < bytes.size();) {
    std::size_t run = i;
    while (run < bytes.size() && plain(static_cast<unsigned char>(bytes[run]))) ++run;
    out.append(bytes.substr(i, run - i));
    if ((i = run) == bytes.size()) break;
    const auto c = static_cast<unsigned char>(bytes[i]);
    if (c < 0x20) {
      if (c == '\t' || c == '\n' || c == '\r') out += static_cast<char>(c);
      ++i;
    } else if (const std::size_t n = utf8Length(bytes, i)) {
      out.append(bytes.substr(i, n));
      i += n;
    } else {
      appendUTF8(out, c < 0xA0 ? kWindows1252High[c - 0x80] : c);
      ++i;
    }
  }
  return out;
}

bool isNameStart(char c) {
  return std::isalpha(static_cast<unsigned char>(c)) || c == '_' || c == ':' ||
         static_cast<unsigned char>(c) >= 0x80;
}

bool isNameChar(char c) {
  return isNameStart(c) || std::isdigit(static_cast<unsigned char>(c)) || c == '.' || c == '-';
}

// Whether the '&' at `i` starts a reference: "&name;", "&#123;" or "&#x1F;".
bool startsReference(std::string_view text, std::size_t i) {
  constexpr std::size_t kLongestName = 64;
  std::size_t j = i + 1;
  if (j < text.size() && text[j] == '#') {
    const bool hex = ++j < text.size() && text[j] == 'x';
    if (hex) ++j;
    const std::size_t first = j;
    while (j < text.size() && j - first < kLongestName &&
           (hex ? std::isxdigit(static_cast<unsigned char>(text[j]))
                : std::isdigit(static_cast<unsigned char>(text[j])))) {
      ++j;
    }
    return j > first && j < text.size() && text[j] == ';';
  }
  if (j >= text.size() || !isNameStart(text[j])) return false;
  while (j < text.size() && j - i <= kLongestName && isNameChar(text[j])) ++j;
  return j < text.size() && text[j] == ';';
}

// The second reading of a document the parser refused: UTF-8 text (see asUTF8) without the
// white space some servers send before the XML declaration, and with every '&' that starts no
// reference escaped, outside CDATA sections and comments.
std::string repairedText(std::string_view bytes) {
  const std::string text = asUTF8(bytes);
  std::string_view rest(text);
  if (rest.starts_with("\xEF\xBB\xBF")) rest.remove_prefix(3);
  rest.remove_prefix(std::min(rest.size(), rest.find_first_not_of(" \t\r\n")));
  std::string out;
  out.reserve(rest.size() + 64);
  std::size_t i = 0;
  while (i < rest.size()) {
    const std::size_t special = std::min(rest.find_first_of("<&", i), rest.size());
    out.append(rest.substr(i, special - i));
    if ((i = special) == rest.size()) break;
    if (rest[i] == '&') {
      out += startsReference(rest, i) ? "&" : "&amp;";
      ++i;
      continue;
    }
    std::size_t stop = i + 1;
    for (const auto& [open, close] :
         {std::pair<std::string_view, std::string_view>{"<![CDATA[", "]]>"}, {"<!--", "-->"}}) {
      if (!rest.substr(i).starts_with(open)) continue;
      const std::size_t end = rest.find(close, i + open.size());
      stop = end == std::string_view::npos ? rest.size() : end + close.size();
      break;
    }
    out.append(rest.substr(i, stop - i));
    i = stop;
  }
  return out;
}

Result<XmlDocument> read(std::string_view data, XmlInputEncoding encoding, const XmlParseLimits& limits) {
  TreeBuilder builder(data.size());
  if (auto parsed = XmlSaxParser::parse(data, builder, encoding, limits); !parsed)
    return fail(parsed.error());
  return std::move(builder).finish();
}

}  // namespace

Result<XmlDocument> XMLReader::dictionaryForXMLData(std::string_view data, const XmlParseLimits& limits) {
  auto document = read(data, XmlInputEncoding::kDeclared, limits);
  // Our own limits would refuse the second reading just the same.
  if (document || isXmlLimitError(document.error())) return document;
  return read(repairedText(data), XmlInputEncoding::kUTF8, limits);
}

}  // namespace lectern
