#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Clock.h"
#include "core/Error.h"
#include "net/AFHTTPClient.h"

namespace lectern {

// Feedbin's API, version 2, over HTTP Basic: the path, parameters and error title of each call.
// Owned by the account's FeedbinService. Blocking calls are for the sync thread; the others
// complete on the main queue. Thread-safe. Made with std::make_shared: calls of several requests
// hold it weakly between their answers.
class QKFeedbinClient final : public AFHTTPClient, public std::enable_shared_from_this<QKFeedbinClient> {
 public:
  static constexpr int kApiVersion = 2;
  static constexpr std::string_view kDefaultBaseURL = "https://api.feedbin.com/";
  // Entries per page of a paged request, and ids per request by id.
  static constexpr int kEntriesPerPage = 50;
  // The server refuses mark requests of more ids than this.
  static constexpr size_t kMaximumIdsPerMark = 1000;

  using Completion = std::function<void(std::optional<Error>)>;
  using SubscriptionCompletion = std::function<void(Result<nlohmann::json>)>;

  // Paths are relative ("v2/..."), so a server under a path ("https://host/feedbin/") works too.
  QKFeedbinClient(NetworkSession& session, std::string_view baseURL, std::string username,
                  std::string password);

  const std::string& username() const { return username_; }

  // GET subscriptions.json; nothing on success.
  void authenticate(Completion onCompleted);

  // Blocking calls. The answer is the parsed body; a failure carries the call's title.
  Result<nlohmann::json> getFeeds();
  Result<nlohmann::json> getTags();
  Result<nlohmann::json> getUnreadEntryIds();
  Result<nlohmann::json> getStarredEntryIds();
  // A 404 (past the last page) is no error: the answer is what its body parsed to.
  Result<nlohmann::json> getEntriesWithIds(const std::vector<std::string>& ids, int page);
  Result<nlohmann::json> getReadEntriesSince(std::optional<Date> since, int page);

  // Read (DELETE) or unread (POST) for many entries; long lists go in several requests, one
  // after the other, and the first failure ends them.
  void markStories(const std::vector<std::string>& ids, bool readed, Completion onCompleted);
  void markStory(const std::string& id, bool readed, Completion onCompleted);
  void markStoryStarred(const std::string& id, bool starred, Completion onCompleted);

  // POST subscriptions.json {"feed_url"}: the subscription object (an already subscribed feed
  // answers with the existing one).
  void addFeedWithUrl(const std::string& url, SubscriptionCompletion onCompleted);
  // DELETE subscriptions/<subscription id>.json.
  void deleteFeed(const std::string& subscriptionId, Completion onCompleted);
  // Untags the feed (by its feed id) everywhere, then tags it `folderName` when one is given, so
  // that it sits in at most one folder.
  void moveFeed(const std::string& feedId, const std::optional<std::string>& folderName,
                Completion onCompleted);
  void createTaggingWithFeedId(const std::string& feedId, const std::string& folderName,
                               Completion onCompleted);

  // "2013-02-04T01:00:19.1278930Z": the `since` of a read-entries request (seven digits).
  static std::string sinceString(Date date);

 private:
  std::string path(std::string_view resource) const;
  Result<nlohmann::json> blockingGet(std::string_view resource, const nlohmann::json& parameters,
                                     std::string_view title, bool notFoundEndsPaging);
  void sendInOrder(std::vector<HttpRequest> requests, std::string_view title, Completion onCompleted);
  // The mark requests for `ids` under `key`: DELETE parameters go into the URL, kept short by
  // batching; POST bodies carry at most kMaximumIdsPerMark ids each.
  Result<std::vector<HttpRequest>> markRequests(std::string_view method, std::string_view resource,
                                                std::string_view key, const std::vector<std::string>& ids);

  const std::string username_;
};

}  // namespace lectern
