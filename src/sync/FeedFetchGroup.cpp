#include "sync/FeedFetchGroup.h"

#include <fmt/format.h>

#include "feeds/FeedDocumentParser.h"
#include "net/AFHTTPClient.h"
#include "net/QKKindURLErrorMessage.h"
#include "net/URLError.h"
#include "sync/WebClients.h"

namespace lectern {
namespace {

// A feed that has not answered in this time fails; the other feeds go on.
constexpr std::chrono::seconds kFeedTimeout{30};

}  // namespace

FeedFetchGroup::FeedFetchGroup(NetworkSession& session, const Clock& clock)
    : session_(session), clock_(clock) {}

Result<RSSFeed> FeedFetchGroup::synchronouslyFetchFeed(const std::string& url) {
  const auto title = fmt::format("Failed to fetch feed: {}", url);
  auto client = makeClientForAddress(session_, url);
  if (!client) return fail(QKKindURLErrorMessage::kindErrorFromNSURLError(client.error(), title));
  (*client)->setDefaultHeader("Accept", "*/*");
  {
    std::lock_guard lock(mutex_);
    if (cancelled_) {
      return fail(QKKindURLErrorMessage::kindErrorFromNSURLError(
          makeURLError(URLErrorCode::kCancelled, url, "cancelled"), title));
    }
    active_.insert(client->get());
  }
  auto response = (*client)->synchronouslyGetPath(url, nullptr, kFeedTimeout);
  {
    std::lock_guard lock(mutex_);
    active_.erase(client->get());
  }
  if (response.error) return fail(QKKindURLErrorMessage::kindErrorFromNSURLError(*response.error, title));
  const auto* body = std::get_if<std::string>(&response.responseObject);
  return FeedDocumentParser::parseFeedData(body != nullptr ? std::string_view(*body) : std::string_view(),
                                           clock_.now());
}

void FeedFetchGroup::cancelAll() {
  std::lock_guard lock(mutex_);
  cancelled_ = true;
  for (auto* client : active_) client->operationQueue().cancelAllOperations();
}

}  // namespace lectern
