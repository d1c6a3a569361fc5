#pragma once

#include <mutex>
#include <set>
#include <string>

#include "core/Error.h"
#include "feeds/RSSFeed.h"

namespace lectern {

class AFHTTPClient;
class Clock;
class NetworkSession;

// The feed downloads of one refresh, each through a feed client of its own. Cancelling stops the
// downloads under way and refuses new ones. Thread-safe: several download threads use it at once.
class FeedFetchGroup {
 public:
  FeedFetchGroup(NetworkSession& session, const Clock& clock);

  // Fetches and parses the document, blocking for at most the feed client's timeout. Transport
  // and HTTP failures give "Failed to fetch feed: <url>"; a bad document gives the parser's error.
  Result<RSSFeed> synchronouslyFetchFeed(const std::string& url);
  void cancelAll();

 private:
  NetworkSession& session_;
  const Clock& clock_;
  std::mutex mutex_;  // guards active_, cancelled_
  std::set<AFHTTPClient*> active_;
  bool cancelled_ = false;
};

}  // namespace lectern
