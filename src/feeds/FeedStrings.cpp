#include "feeds/FeedStrings.h"
#include "core/Strings.h"

#include <algorithm>
#include <cctype>
#include <cfloat>
#include <charconv>
#include <climits>
#include <unordered_set>

namespace lectern {
namespace {

bool isAsciiDigit(char c) { return c >= '0' && c <= '9'; }

// The code point of the UTF-8 sequence that starts at `i`, with its length; {0, 1} for a stray byte.
std::pair<char32_t, std::size_t> decodeAt(std::string_view s, std::size_t i) {
  const auto b = [&](std::size_t k) { return static_cast<unsigned char>(s[k]); };
  const unsigned char c = b(i);
  if (c < 0x80) return {c, 1};
  std::size_t n = (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : (c & 0xF8) == 0xF0 ? 4 : 0;
  if (n == 0 || i + n > s.size()) return {0, 1};
  char32_t cp = c & (0x7F >> n);
  for (std::size_t k = 1; k < n; ++k) {
    if ((b(i + k) & 0xC0) != 0x80) return {0, 1};
    cp = (cp << 6) | (b(i + k) & 0x3F);
  }
  return {cp, n};
}

// ICU's \s: the Unicode White_Space property.
bool isPatternSpace(char32_t c) {
  switch (c) {
    case 0x09:
    case 0x0A:
    case 0x0B:
    case 0x0C:
    case 0x0D:
    case 0x20:
    case 0x85:
    case 0xA0:
    case 0x1680:
    case 0x2028:
    case 0x2029:
    case 0x202F:
    case 0x205F:
    case 0x3000:
      return true;
    default:
      return c >= 0x2000 && c <= 0x200A;
  }
}

// The start of the UTF-8 sequence that ends just before `end`.
std::size_t previousStart(std::string_view s, std::size_t end) {
  std::size_t i = end - 1;
  while (i > 0 && end - i < 4 && (static_cast<unsigned char>(s[i]) & 0xC0) == 0x80) --i;
  return i;
}

// Trailing white space ending at `end`: the offset where it starts.
std::size_t trailingSpaceStart(std::string_view s, std::size_t begin, std::size_t end) {
  while (end > begin) {
    const std::size_t start = previousStart(s, end);
    const auto [cp, n] = decodeAt(s, start);
    if (start + n != end || !isPatternSpace(cp)) break;
    end = start;
  }
  return end;
}

// The digits of a number at the start of `text` after white space: [+-]digits[.digits][e[+-]digits].
std::string_view numberPrefix(std::string_view text, bool allowFraction) {
  std::size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  const std::size_t start = i;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  std::size_t digits = 0;
  while (i < text.size() && isAsciiDigit(text[i])) ++i, ++digits;
  if (allowFraction) {
    if (i < text.size() && text[i] == '.') {
      ++i;
      while (i < text.size() && isAsciiDigit(text[i])) ++i, ++digits;
    }
    if (digits > 0 && i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
      std::size_t j = i + 1;
      if (j < text.size() && (text[j] == '+' || text[j] == '-')) ++j;
      if (j < text.size() && isAsciiDigit(text[j])) {
        while (j < text.size() && isAsciiDigit(text[j])) ++j;
        i = j;
      }
    }
  }
  return digits == 0 ? std::string_view() : text.substr(start, i - start);
}

}  // namespace

std::string_view trimWhitespaces(std::string_view text) {
  std::size_t begin = 0;
  while (begin < text.size()) {
    const auto [cp, n] = decodeAt(text, begin);
    if (!isPatternSpace(cp)) break;
    begin += n;
  }
  const std::size_t end = trailingSpaceStart(text, begin, text.size());
  return text.substr(begin, end - begin);
}

std::int32_t intValue(std::string_view text) {
  std::string_view digits = numberPrefix(text, false);
  if (digits.empty()) return 0;
  const bool negative = digits.front() == '-';
  if (digits.front() == '+' || digits.front() == '-') digits.remove_prefix(1);
  long long value = 0;
  for (char c : digits) {
    value = value * 10 + (c - '0');
    if (value > static_cast<long long>(INT_MAX) + 1) break;
  }
  if (negative) return value > static_cast<long long>(INT_MAX) ? INT_MIN : static_cast<std::int32_t>(-value);
  return value > INT_MAX ? INT_MAX : static_cast<std::int32_t>(value);
}

float floatValue(std::string_view text) {
  std::string_view number = numberPrefix(text, true);
  if (number.empty()) return 0;
  const bool negative = number.front() == '-';
  if (number.front() == '+' || number.front() == '-') number.remove_prefix(1);
  double parsed = 0;
  if (fromChars(number.data(), number.data() + number.size(), parsed).ec ==
      std::errc::result_out_of_range) {
    const bool tiny =
        number.find("e-") != std::string_view::npos || number.find("E-") != std::string_view::npos;
    parsed = tiny ? 0 : DBL_MAX;
  }
  const float value = parsed > FLT_MAX ? FLT_MAX : static_cast<float>(parsed);
  return negative ? -value : value;
}

std::string urlOrigin(std::string_view url) {
  std::size_t i = 0;
  if (url.empty() || !std::isalpha(static_cast<unsigned char>(url[0]))) return {};
  while (i < url.size() && (std::isalnum(static_cast<unsigned char>(url[i])) || url[i] == '+' ||
                            url[i] == '-' || url[i] == '.')) {
    ++i;
  }
  if (url.substr(i, 3) != "://") return {};
  const std::string_view scheme = url.substr(0, i);
  std::string_view authority = url.substr(i + 3);
  authority = authority.substr(0, authority.find_first_of("/?#"));
  if (const std::size_t at = authority.rfind('@'); at != std::string_view::npos)
    authority.remove_prefix(at + 1);
  std::string_view host;
  if (!authority.empty() && authority.front() == '[') {
    const std::size_t close = authority.find(']');
    if (close == std::string_view::npos) return {};
    host = authority.substr(0, close + 1);
  } else {
    host = authority.substr(0, authority.find(':'));
  }
  if (host.empty()) return {};
  std::string origin;
  origin.reserve(scheme.size() + 3 + host.size());
  origin.append(scheme).append("://").append(host);
  return origin;
}

std::vector<std::string_view> rootRelativeImageSources(std::string_view html) {
  constexpr std::string_view kOpen = "<img", kSource = "src=";
  std::vector<std::string_view> sources;
  std::size_t from = 0;
  for (std::size_t tag; (tag = html.find(kOpen, from)) != std::string_view::npos;) {
    const std::size_t attributes = tag + kOpen.size();
    // [^>]* stops at the tag's first '>' and, being greedy, backs off from there: the last
    // "src=" that lets the rest of the pattern match is the one taken.
    const std::size_t tagEnd = html.find('>', attributes);
    // Every match ends with a '>': without one, no later tag can match either.
    if (tagEnd == std::string_view::npos) break;
    std::size_t searchEnd = tagEnd;
    std::size_t matchEnd = std::string_view::npos;
    while (searchEnd >= attributes + kSource.size()) {
      const std::size_t source = html.rfind(kSource, searchEnd - kSource.size());
      if (source == std::string_view::npos || source < attributes) break;
      const std::size_t quote = source + kSource.size();
      if (quote + 1 < html.size() && (html[quote] == '"' || html[quote] == '\'') && html[quote + 1] == '/') {
        const std::size_t closing = html.find_first_of("\"'", quote + 1);
        const std::size_t end = closing == std::string_view::npos ? closing : html.find('>', closing + 1);
        if (end != std::string_view::npos) {
          sources.push_back(html.substr(quote + 1, closing - quote - 1));
          matchEnd = end + 1;
          break;
        }
      }
      searchEnd = source;
    }
    // Every "<img" up to the same '>' sees the same sources, fewer of them: when this one found
    // none, neither can they, so the search goes on past the '>' (one pass, whatever the input).
    from = matchEnd != std::string_view::npos ? matchEnd : tagEnd;
  }
  return sources;
}

std::string xhtmlText(std::string_view markup) {
  static constexpr std::pair<std::string_view, char> kEscapes[] = {
      {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}};
  std::string text;
  text.reserve(markup.size());
  bool space = false;
  const auto put = [&](char c) {
    if (space && !text.empty()) text += ' ';
    space = false;
    text += c;
  };
  for (std::size_t i = 0; i < markup.size();) {
    const char c = markup[i];
    if (c == '<') {
      // Attribute values never hold a '>': XhtmlCapture escapes it.
      const std::size_t close = markup.find('>', i);
      i = close == std::string_view::npos ? markup.size() : close + 1;
    } else if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
      space = true;
      ++i;
    } else if (c == '&') {
      const auto escape = std::find_if(std::begin(kEscapes), std::end(kEscapes),
                                       [&](const auto& e) { return markup.substr(i).starts_with(e.first); });
      put(escape == std::end(kEscapes) ? '&' : escape->second);
      i += escape == std::end(kEscapes) ? 1 : escape->first.size();
    } else {
      put(c);
      ++i;
    }
  }
  return std::string(trimWhitespaces(text));
}

namespace {

bool isQuote(char c) { return c == '"' || c == '\''; }
bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f'; }

// A URL token starts at the beginning of the text or after one of these.
bool opensToken(char c) {
  return isQuote(c) || isSpace(c) || c == '=' || c == ',' || c == '(' || c == ')' || c == '>';
}

// A URL token ends at the end of the text or before one of these; the '/' of a "/>" closes a tag.
bool closesToken(std::string_view text, std::size_t i) {
  const char c = text[i];
  return isQuote(c) || isSpace(c) || c == ',' || c == '(' || c == ')' || c == '<' || c == '>' ||
         (c == '/' && i + 1 < text.size() && text[i + 1] == '>');
}

}  // namespace

std::string prefixUrlTokens(std::string_view html, const std::unordered_set<std::string_view>& tokens,
                            std::string_view prefix) {
  if (tokens.empty()) return std::string(html);
  std::size_t shortest = std::string_view::npos, longest = 0;
  for (const auto token : tokens) {
    shortest = std::min(shortest, token.size());
    longest = std::max(longest, token.size());
  }
  const auto known = [&](std::size_t begin, std::size_t end) {
    const std::size_t length = end - begin;
    return length >= shortest && length <= longest && tokens.contains(html.substr(begin, length));
  };
  std::string out;
  bool changed = false;
  std::size_t copied = 0;  // html before this offset is in `out`
  const auto prefixAt = [&](std::size_t begin) {
    if (!changed) out.reserve(html.size() + html.size() / 4);
    changed = true;
    out.append(html.substr(copied, begin - copied)).append(prefix);
    copied = begin;
  };
  // Each character is looked at a bounded number of times: runs between delimiters are disjoint,
  // and so are the quoted values; replaced text is never read again.
  for (std::size_t i = 0; i < html.size();) {
    if (closesToken(html, i)) {
      ++i;
      continue;
    }
    // A quoted value is one token whatever it holds, as a source may contain spaces or commas.
    if (i > 0 && isQuote(html[i - 1])) {
      const std::size_t quote = html.find_first_of("\"'", i);
      if (quote != std::string_view::npos && known(i, quote)) {
        prefixAt(i);
        i = quote;
        continue;
      }
    }
    std::size_t end = i;
    while (end < html.size() && !closesToken(html, end)) ++end;
    // The run itself, or what follows its first '=' (an unquoted attribute value, a query value).
    if ((i == 0 || opensToken(html[i - 1])) && known(i, end)) {
      prefixAt(i);
    } else if (const std::size_t equals = html.substr(i, end - i).find('=');
               equals != std::string_view::npos && known(i + equals + 1, end)) {
      prefixAt(i + equals + 1);
    }
    i = end;
  }
  if (!changed) return std::string(html);
  out.append(html.substr(copied));
  return out;
}

}  // namespace lectern
