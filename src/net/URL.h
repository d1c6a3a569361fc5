#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace lectern {

// A URL reference split by the generic syntax (scheme, authority, path, query, fragment), with
// reference resolution against a base. A plain value; components are kept as written.
class URL {
 public:
  // Any reference, absolute or relative. Nothing for text with control characters or spaces
  // in the scheme or authority.
  static std::optional<URL> parse(std::string_view text);

  // `reference` resolved against this URL by the generic resolution rules (a path starting with
  // "/" replaces the base path, "../" climbs, an absolute URL stands as it is). This URL must be
  // absolute; nothing when it is not or when `reference` does not parse.
  std::optional<URL> resolve(std::string_view reference) const;

  bool isAbsolute() const { return !scheme_.empty(); }
  bool hasAuthority() const { return hasAuthority_; }
  const std::string& scheme() const { return scheme_; }
  const std::string& userInfo() const { return userInfo_; }
  // Without the brackets of an IPv6 literal.
  const std::string& host() const { return host_; }
  std::optional<int> port() const { return port_; }
  const std::string& path() const { return path_; }
  const std::optional<std::string>& query() const { return query_; }
  const std::optional<std::string>& fragment() const { return fragment_; }

  // "json" for ".../feed.json"; "" when the last path component has no extension.
  std::string pathExtension() const;
  // The reference written out again.
  std::string string() const;
  // scheme://authority with no path.
  std::string origin() const;

  void setPath(std::string path) { path_ = std::move(path); }
  void setQuery(std::optional<std::string> query) { query_ = std::move(query); }
  void setFragment(std::optional<std::string> fragment) { fragment_ = std::move(fragment); }

  bool operator==(const URL&) const = default;

 private:
  std::string authority() const;

  std::string scheme_;
  bool hasAuthority_ = false;
  std::string userInfo_;
  std::string host_;
  bool ipv6Host_ = false;
  std::optional<int> port_;
  std::string path_;
  std::optional<std::string> query_;
  std::optional<std::string> fragment_;
};

// The path with "." and ".." segments removed, as reference resolution does.
std::string removeDotSegments(std::string_view path);

}  // namespace lectern
