#pragma once

#include <mutex>
#include <set>
#include <string>

#include "core/Error.h"
#include "feeds/QKFeedParserClient.h"
#include "feeds/RSSFeed.h"

namespace lectern {

class NetworkSession;

// The feed downloads of one refresh, each through a feed client of its own. Cancelling stops the
// downloads under way and refuses new ones. Thread-safe: several download threads use it at once.
class FeedFetchGroup {
 public:
  explicit FeedFetchGroup(NetworkSession& session);

  // QKFeedParserClient's conditional synchronouslyFetchFeed with a client of its own: blocking for
  // at most the client's timeout; "Failed to fetch feed: <url>" or the parser's error.
  Result<ConditionalFeed> synchronouslyFetchFeed(const std::string& url, const FeedValidators& held);
  void cancelAll();

 private:
  NetworkSession& session_;
  std::mutex mutex_;  // guards active_, cancelled_
  std::set<QKFeedParserClient*> active_;
  bool cancelled_ = false;
};

}  // namespace lectern
