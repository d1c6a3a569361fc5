#include "net/URL.h"

#include <cctype>
#include <charconv>

namespace lectern {
namespace {

bool isSchemeChar(char c, bool first) {
  if (std::isalpha(static_cast<unsigned char>(c))) return true;
  return !first && (std::isdigit(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.');
}

// Spaces and control characters are never part of a URL; other bytes (UTF-8 included) are
// passed on as written.
bool hasForbiddenCharacter(std::string_view text) {
  for (char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if (c <= 0x20 || c == 0x7F) return true;
  }
  return false;
}

}  // namespace

std::string removeDotSegments(std::string_view path) {
  std::string input(path);
  std::string output;
  while (!input.empty()) {
    if (input.starts_with("../")) {
      input.erase(0, 3);
    } else if (input.starts_with("./")) {
      input.erase(0, 2);
    } else if (input.starts_with("/./")) {
      input.erase(0, 2);
    } else if (input == "/.") {
      input = "/";
    } else if (input.starts_with("/../") || input == "/..") {
      input = input == "/.." ? "/" : input.substr(3);
      const auto cut = output.rfind('/');
      output.erase(cut == std::string::npos ? 0 : cut);
    } else if (input == "." || input == "..") {
      input.clear();
    } else {
      // Move the first segment (with its leading "/", if any) to the output.
      const size_t next = input.find('/', input[0] == '/' ? 1 : 0);
      const size_t length = next == std::string::npos ? input.size() : next;
      output.append(input, 0, length);
      input.erase(0, length);
    }
  }
  return output;
}

std::optional<URL> URL::parse(std::string_view text) {
  if (hasForbiddenCharacter(text)) return std::nullopt;
  URL url;
  std::string_view rest = text;

  // A scheme is present only when its ':' comes before any '/', '?' or '#'.
  const size_t colon = rest.find(':');
  const size_t firstDelimiter = rest.find_first_of("/?#");
  if (colon != std::string_view::npos && colon > 0 &&
      (firstDelimiter == std::string_view::npos || colon < firstDelimiter)) {
    bool valid = true;
    for (size_t i = 0; i < colon; ++i) valid = valid && isSchemeChar(rest[i], i == 0);
    if (valid) {
      url.scheme_ = std::string(rest.substr(0, colon));
      rest.remove_prefix(colon + 1);
    }
  }

  if (rest.starts_with("//")) {
    rest.remove_prefix(2);
    const size_t end = rest.find_first_of("/?#");
    std::string_view authority = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end);
    url.hasAuthority_ = true;
    if (const size_t at = authority.rfind('@'); at != std::string_view::npos) {
      url.userInfo_ = std::string(authority.substr(0, at));
      authority.remove_prefix(at + 1);
    }
    std::string_view portText;
    if (authority.starts_with('[')) {
      const size_t close = authority.find(']');
      if (close == std::string_view::npos) return std::nullopt;
      url.host_ = std::string(authority.substr(1, close - 1));
      url.ipv6Host_ = true;
      authority.remove_prefix(close + 1);
      if (!authority.empty()) {
        if (authority[0] != ':') return std::nullopt;
        portText = authority.substr(1);
      }
    } else {
      const size_t portColon = authority.rfind(':');
      url.host_ = std::string(authority.substr(0, portColon));
      // Only a bracketed IPv6 literal may hold a colon; "h:1,x:" is no host and no port.
      if (url.host_.find(':') != std::string::npos) return std::nullopt;
      if (portColon != std::string_view::npos) portText = authority.substr(portColon + 1);
    }
    if (!portText.empty()) {
      int port = 0;
      const auto [end2, ec] = std::from_chars(portText.data(), portText.data() + portText.size(), port);
      if (ec != std::errc() || end2 != portText.data() + portText.size() || port < 0 || port > 65535) {
        return std::nullopt;
      }
      url.port_ = port;
    }
  }

  const size_t pathEnd = rest.find_first_of("?#");
  url.path_ = std::string(rest.substr(0, pathEnd));
  rest.remove_prefix(pathEnd == std::string_view::npos ? rest.size() : pathEnd);
  if (rest.starts_with('?')) {
    const size_t hash = rest.find('#');
    url.query_ =
        std::string(rest.substr(1, hash == std::string_view::npos ? std::string_view::npos : hash - 1));
    rest.remove_prefix(hash == std::string_view::npos ? rest.size() : hash);
  }
  if (rest.starts_with('#')) url.fragment_ = std::string(rest.substr(1));
  return url;
}

std::optional<URL> URL::resolve(std::string_view referenceText) const {
  if (!isAbsolute()) return std::nullopt;
  auto reference = parse(referenceText);
  if (!reference) return std::nullopt;
  const URL& r = *reference;
  URL t;
  if (r.isAbsolute()) {
    t = r;
    t.path_ = removeDotSegments(r.path_);
  } else {
    if (r.hasAuthority_) {
      t = r;
      t.path_ = removeDotSegments(r.path_);
    } else {
      t = *this;
      if (r.path_.empty()) {
        if (r.query_) t.query_ = r.query_;
      } else {
        if (r.path_.starts_with('/')) {
          t.path_ = removeDotSegments(r.path_);
        } else if (hasAuthority_ && path_.empty()) {
          t.path_ = removeDotSegments("/" + r.path_);
        } else {
          const size_t slash = path_.rfind('/');
          const std::string merged =
              (slash == std::string::npos ? std::string() : path_.substr(0, slash + 1)) + r.path_;
          t.path_ = removeDotSegments(merged);
        }
        t.query_ = r.query_;
      }
    }
    t.scheme_ = scheme_;
  }
  t.fragment_ = r.fragment_;
  return t;
}

std::string URL::pathExtension() const {
  const size_t slash = path_.rfind('/');
  const std::string_view last = std::string_view(path_).substr(slash == std::string::npos ? 0 : slash + 1);
  const size_t dot = last.rfind('.');
  if (dot == std::string_view::npos || dot == 0 || dot + 1 == last.size()) return {};
  return std::string(last.substr(dot + 1));
}

std::string URL::authority() const {
  std::string out;
  if (!userInfo_.empty()) out += userInfo_ + "@";
  out += ipv6Host_ ? "[" + host_ + "]" : host_;
  if (port_) out += ":" + std::to_string(*port_);
  return out;
}

std::string URL::string() const {
  std::string out;
  if (!scheme_.empty()) out += scheme_ + ":";
  if (hasAuthority_) out += "//" + authority();
  out += path_;
  if (query_) out += "?" + *query_;
  if (fragment_) out += "#" + *fragment_;
  return out;
}

std::string URL::origin() const {
  std::string out;
  if (!scheme_.empty()) out += scheme_ + ":";
  if (hasAuthority_) out += "//" + authority();
  return out;
}

}  // namespace lectern
