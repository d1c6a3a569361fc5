#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Error.h"
#include "net/AFHTTPClient.h"

namespace lectern {

// Feed Wrangler's API, version 2: every call a query (or form) of parameters with the access
// token, every answer a JSON object whose "result" says whether it worked. Owned by the
// account's FeedWranglerService (or, while signing in, by the service's sign-in). Blocking calls
// are for the sync thread; the others complete on the main queue. Thread-safe. Made with
// std::make_shared: calls of several requests hold it weakly between their answers.
class QKFeedWranglerClient final : public AFHTTPClient,
                                   public std::enable_shared_from_this<QKFeedWranglerClient> {
 public:
  static constexpr int kApiVersion = 2;
  static constexpr std::string_view kDefaultBaseURL = "https://feedwrangler.net/";
  static constexpr std::string_view kErrorDomain = "com.quillhq.Lectern.FeedWranglerClient";
  // The code of a failure the server reported in its answer ("result": "error").
  static constexpr int kResponseErrorCode = 100;
  // Ids per page of an id list, and items per page of an item list or request by id.
  static constexpr int kIdsPerPage = 1000;
  static constexpr int kItemsPerPage = 100;

  using Completion = std::function<void(std::optional<Error>)>;
  using ObjectCompletion = std::function<void(Result<nlohmann::json>)>;
  using TokenCompletion = std::function<void(Result<std::string>)>;

  // For signing in: the e-mail address, the password and the client key Feed Wrangler issued
  // to Lectern. Paths are relative ("api/v2/..."), so a server under a path works too.
  QKFeedWranglerClient(NetworkSession& session, std::string_view baseURL, std::string email,
                       std::string password, std::string clientKey);
  // For everything else: the access token of a sign-in.
  QKFeedWranglerClient(NetworkSession& session, std::string_view baseURL, std::string accessToken);

  // {"format": "json", "access_token": the token, or "" while signing in}: part of every call.
  nlohmann::json defaultParameters() const;

  // users/authorize: the access token.
  void authenticate(TokenCompletion onCompleted);

  // Blocking calls. The answer is the parsed body; a failure carries the call's title.
  Result<nlohmann::json> getFeeds();
  // Pages count from 1, kIdsPerPage ids each.
  Result<nlohmann::json> getUnreadStoryIdsOnPage(int page);
  Result<nlohmann::json> getStarredStoryIdsOnPage(int page);
  // Newest first, kItemsPerPage items a page.
  Result<nlohmann::json> getStoriesReadStatus(bool read, int page);
  // At most kItemsPerPage ids at a time make a sensible request.
  Result<nlohmann::json> getEntriesWithIds(const std::vector<std::string>& ids);
  Result<nlohmann::json> getListOfStreams();
  Result<nlohmann::json> getItemIdsOfStream(const std::string& streamId);

  // Read: mark_all_read, kIdsPerPage ids a request. Unread: Feed Wrangler has no call for many
  // items, so one update per item. Requests go one after the other; the first failure ends them.
  void markStories(const std::vector<std::string>& ids, bool readed, Completion onCompleted);
  void markStory(const std::string& id, bool readed, Completion onCompleted);
  void markStoryStarred(const std::string& id, bool starred, Completion onCompleted);

  // subscriptions/add_feed_and_wait, taking the first feed a page offers: the whole answer
  // (the subscribed feed is its "feed").
  void addFeedWithUrl(const std::string& url, ObjectCompletion onCompleted);
  void deleteFeed(const std::string& feedId, Completion onCompleted);

  // An answer whose "result" is "error".
  static bool isResponseError(const nlohmann::json& answer);
  // The error a person sees for a failed request: the title as description and, when the server
  // explained itself ("result": "error"), its "error" text as recovery suggestion, in the domain
  // and code of the transport error (the Feed Wrangler domain and kResponseErrorCode when the
  // request itself worked). A failure explained in a successful HTTP answer is a refusal: it
  // carries the status 400, so that a declined change is not queued again. Other failures are
  // titled as every service's are (titledError).
  static Error errorFromResponseObject(const AFHTTPRequestOperation* operation, const Error& error,
                                       std::string_view title);

 private:
  std::string path(std::string_view resource) const;
  nlohmann::json withDefaultParameters(nlohmann::json parameters) const;
  Result<nlohmann::json> blockingGet(std::string_view resource, nlohmann::json parameters,
                                     std::string_view title);
  void requestObject(std::string_view method, std::string_view resource, nlohmann::json parameters,
                     std::string_view title, ObjectCompletion onCompleted);
  HttpRequest updateRequest(const std::string& id, std::string_view key, bool value);
  void sendInOrder(std::vector<HttpRequest> requests, std::string_view title, Completion onCompleted);

  const std::string accessToken_;
  // Sign-in only.
  const std::string email_;
  const std::string password_;
  const std::string clientKey_;
};

}  // namespace lectern
