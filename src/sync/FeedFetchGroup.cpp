#include "sync/FeedFetchGroup.h"

#include <algorithm>

#include "net/NetworkSession.h"
#include "net/URLError.h"

namespace lectern {

FeedFetchGroup::FeedFetchGroup(NetworkSession& session) : session_(session) {}

Result<ConditionalFeed> FeedFetchGroup::synchronouslyFetchFeed(const std::string& url,
                                                               const FeedValidators& held) {
  QKFeedParserClient client(session_, url);
  // A session with a shorter idle timeout than the fetch's own bound shortens the bound too.
  client.setSynchronousTimeout(std::min<std::chrono::duration<double>>(
      QKFeedParserClient::kSynchronousFetchTimeout, session_.options().defaultTimeoutInterval));
  {
    std::lock_guard lock(mutex_);
    if (cancelled_) {
      return fail(
          QKFeedParserClient::fetchError(makeURLError(URLErrorCode::kCancelled, url, "cancelled"), url));
    }
    active_.insert(&client);
  }
  auto feed = client.synchronouslyFetchFeed(held);
  std::lock_guard lock(mutex_);
  active_.erase(&client);
  return feed;
}

void FeedFetchGroup::cancelAll() {
  std::lock_guard lock(mutex_);
  cancelled_ = true;
  for (auto* client : active_) client->operationQueue().cancelAllOperations();
}

}  // namespace lectern
