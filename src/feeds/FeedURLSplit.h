#pragma once

#include <string>
#include <string_view>

namespace lectern {

// A feed URL cut into the base URL and request path that QKFeedParserClient is built with.
// The origin is "scheme://host" without port or user; the path is the URL with every occurrence
// of the origin removed, and the base URL is the URL with every occurrence of the path removed.
// So a query stays in the path, and an explicit port stays at the front of the path
// ("http://h:8080/f" gives base "http://h" and path ":8080/f"): the HTTP client must keep that.
struct FeedURLSplit {
  std::string origin;
  std::string path;
  std::string baseUrl;

  static FeedURLSplit fromURL(std::string_view url);
};

}  // namespace lectern
