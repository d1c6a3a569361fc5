#include "feeds/FeedLinks.h"

#include <cctype>
#include <optional>

#include "feeds/FeedStrings.h"

namespace lectern {
namespace {

bool isAsciiAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// The length of "scheme:" at the start of `text`, or 0 when it has no scheme.
std::size_t schemeLength(std::string_view text) {
  if (text.empty() || !isAsciiAlpha(text[0])) return 0;
  for (std::size_t i = 1; i < text.size(); ++i) {
    const char c = text[i];
    if (c == ':') return i + 1;
    if (!isAsciiAlpha(c) && !(c >= '0' && c <= '9') && c != '+' && c != '-' && c != '.') return 0;
  }
  return 0;
}

// A reference split into its parts; the authority includes its "//".
struct Parts {
  std::string_view scheme;  // with its ':'
  std::optional<std::string_view> authority;
  std::string_view path;
  std::optional<std::string_view> query;     // with its '?'
  std::optional<std::string_view> fragment;  // with its '#'
};

Parts split(std::string_view text) {
  Parts parts;
  parts.scheme = text.substr(0, schemeLength(text));
  text.remove_prefix(parts.scheme.size());
  if (const std::size_t hash = text.find('#'); hash != std::string_view::npos) {
    parts.fragment = text.substr(hash);
    text = text.substr(0, hash);
  }
  if (const std::size_t mark = text.find('?'); mark != std::string_view::npos) {
    parts.query = text.substr(mark);
    text = text.substr(0, mark);
  }
  if (text.starts_with("//")) {
    const std::size_t end = text.find('/', 2);
    parts.authority = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end);
  }
  parts.path = text;
  return parts;
}

// RFC 3986 5.2.4.
std::string removeDotSegments(std::string_view input) {
  std::string output;
  while (!input.empty()) {
    if (input.starts_with("../")) {
      input.remove_prefix(3);
    } else if (input.starts_with("./")) {
      input.remove_prefix(2);
    } else if (input.starts_with("/./")) {
      input.remove_prefix(2);
    } else if (input == "/.") {
      input = "/";
    } else if (input.starts_with("/../") || input == "/..") {
      input = input.size() == 3 ? std::string_view("/") : input.substr(3);
      const std::size_t slash = output.rfind('/');
      output.erase(slash == std::string::npos ? 0 : slash);
    } else if (input == "." || input == "..") {
      input = {};
    } else {
      const std::size_t next = input.find('/', input.front() == '/' ? 1 : 0);
      const std::string_view segment = input.substr(0, next);
      output.append(segment);
      input.remove_prefix(segment.size());
    }
  }
  return output;
}

bool isAttributeNameChar(char c) {
  return !std::isspace(static_cast<unsigned char>(c)) && c != '=' && c != '>' && c != '/' && c != '"' &&
         c != '\'';
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  }
  return true;
}

}  // namespace

std::string resolveLinkReference(std::string_view base, std::string_view reference) {
  const Parts ref = split(reference);
  if (!ref.scheme.empty()) return std::string(reference);
  const Parts from = split(base);
  if (from.scheme.empty()) return std::string(reference);

  std::string out(from.scheme);
  if (ref.authority) {
    out.append(*ref.authority).append(removeDotSegments(ref.path));
    if (ref.query) out.append(*ref.query);
  } else {
    if (from.authority) out.append(*from.authority);
    if (ref.path.empty()) {
      out.append(from.path);
      if (ref.query) {
        out.append(*ref.query);
      } else if (from.query) {
        out.append(*from.query);
      }
    } else {
      if (ref.path.front() == '/') {
        out.append(removeDotSegments(ref.path));
      } else {
        std::string merged;
        if (from.authority && from.path.empty()) {
          merged = "/";
        } else {
          const std::size_t slash = from.path.rfind('/');
          if (slash != std::string_view::npos) merged = from.path.substr(0, slash + 1);
        }
        merged.append(ref.path);
        out.append(removeDotSegments(merged));
      }
      if (ref.query) out.append(*ref.query);
    }
  }
  if (ref.fragment) out.append(*ref.fragment);
  return out;
}

std::string resolveRelativeLinksInHtml(std::string_view html, std::string_view base) {
  if (schemeLength(base) == 0 || html.find('<') == std::string_view::npos) return std::string(html);
  std::string out;
  out.reserve(html.size() + html.size() / 8);
  std::size_t copied = 0;  // html[0, copied) is in `out`
  std::size_t i = 0;
  while ((i = html.find('<', i)) != std::string_view::npos) {
    ++i;
    if (i >= html.size() || !isAsciiAlpha(html[i])) continue;     // end tags, comments, text "<"
    while (i < html.size() && isAttributeNameChar(html[i])) ++i;  // the element's name
    // Attributes up to the tag's '>'.
    while (i < html.size() && html[i] != '>') {
      if (!isAttributeNameChar(html[i])) {
        ++i;
        continue;
      }
      const std::size_t nameStart = i;
      while (i < html.size() && isAttributeNameChar(html[i])) ++i;
      const std::string_view name = html.substr(nameStart, i - nameStart);
      std::size_t j = i;
      while (j < html.size() && std::isspace(static_cast<unsigned char>(html[j]))) ++j;
      if (j >= html.size() || html[j] != '=') continue;
      ++j;
      while (j < html.size() && std::isspace(static_cast<unsigned char>(html[j]))) ++j;
      if (j >= html.size()) break;
      std::size_t valueStart = j;
      std::size_t valueEnd = j;
      if (html[j] == '"' || html[j] == '\'') {
        const std::size_t close = html.find(html[j], j + 1);
        if (close == std::string_view::npos) {
          i = html.size();
          break;
        }
        valueStart = j + 1;
        valueEnd = close;
        i = close + 1;
      } else {
        while (valueEnd < html.size() && !std::isspace(static_cast<unsigned char>(html[valueEnd])) &&
               html[valueEnd] != '>') {
          ++valueEnd;
        }
        i = valueEnd;
      }
      if (!equalsIgnoringCase(name, "href") && !equalsIgnoringCase(name, "src")) continue;
      const std::string_view value = trimWhitespaces(html.substr(valueStart, valueEnd - valueStart));
      if (schemeLength(value) != 0) continue;
      out.append(html.substr(copied, valueStart - copied));
      out.append(resolveLinkReference(base, value));
      copied = valueEnd;
    }
  }
  out.append(html.substr(copied));
  return out;
}

std::string collapseWhitespace(std::string_view text) {
  text = trimWhitespaces(text);
  std::string out;
  out.reserve(text.size());
  bool space = false;
  for (const char c : text) {
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v') {
      space = true;
      continue;
    }
    if (space) out.push_back(' ');
    space = false;
    out.push_back(c);
  }
  return out;
}

}  // namespace lectern
