#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Clock.h"
#include "core/Error.h"
#include "net/AFHTTPClient.h"

namespace lectern {

// What Pocket answers when a request token is traded: the account's token and its name there.
struct PocketAuthorization {
  std::string accessToken;
  std::string username;
};

// Pocket's API, version 3: every call a POST of a JSON body under "v3/", the consumer key and the
// access token travelling as ordinary parameters, every failure said in the "X-Error" header.
// Owned by the account's PocketService (or, while signing in, by the sign-in). Blocking calls are
// for the sync thread and the sign-in; the others complete on the main queue. Thread-safe. Made
// with std::make_shared: calls hold it weakly between request and answer.
class QKPocketClient final : public AFHTTPClient, public std::enable_shared_from_this<QKPocketClient> {
 public:
  static constexpr std::string_view kApiVersion = "v3";
  static constexpr std::string_view kDefaultBaseURL = "https://getpocket.com/";
  static constexpr std::string_view kErrorDomain = "com.quillhq.Lectern";
  // The code of a failure Pocket said in its "X-Error" header.
  static constexpr int kResponseErrorCode = 100;
  static constexpr std::string_view kErrorHeader = "X-Error";

  using Completion = std::function<void(std::optional<Error>)>;
  using ObjectCompletion = std::function<void(Result<nlohmann::json>)>;

  // For signing in: requests carry only what each call names.
  QKPocketClient(NetworkSession& session, std::string_view baseURL, std::string consumerKey,
                 const Clock& clock);
  // For everything else: every request is signed with the consumer key and the access token.
  QKPocketClient(NetworkSession& session, std::string_view baseURL, std::string consumerKey,
                 std::string accessToken, const Clock& clock);

  // When on, "consumer_key" and "access_token" join the parameters of every request that does not
  // carry them already.
  bool signRequests() const;
  void setSignRequests(bool sign);
  HttpRequest requestWithMethod(std::string_view method, std::string_view path,
                                const nlohmann::json& parameters = nullptr) override;
  HttpRequest requestWithMethod(std::string_view method, std::string_view path, const nlohmann::json& parameters,
                                AFHTTPClientParameterEncoding encoding) override;

  // ---- signing in (blocking) ----
  // "lectern://pocket/auth": where Pocket's page sends the browser back.
  static std::string redirectURL();
  // oauth/request: the request token ("code").
  Result<std::string> fetchRequestToken(std::string_view redirectURI);
  // The page on Pocket's web host (`webBaseURL`) where the person lets Lectern in.
  static std::string authorizationURL(std::string_view webBaseURL, std::string_view requestToken,
                                      std::string_view redirectURI);
  // oauth/authorize: the access token and the username, once the person agreed.
  Result<PocketAuthorization> convertRequestTokenToAccessToken(std::string_view requestToken);

  // One small list request: whether Pocket takes the access token.
  void checkAccessToken(Completion onCompleted);

  // ---- the list (blocking) ----
  // get with the page parameters: the parsed answer.
  Result<nlohmann::json> getBookmarksWithParams(nlohmann::json parameters);

  // ---- item changes: one action per send, completing on the main queue ----
  void markBookmarkWithIdFavorited(const std::string& itemId, bool favorited, Completion onCompleted);
  // "archive", or "add" to bring an item back to the list: one send per item, in order; the first
  // failure ends them.
  void markBookmarksWithIdsArchived(const std::vector<std::string>& itemIds, bool archived,
                                    Completion onCompleted);
  void deleteBookmarkWithId(const std::string& itemId, Completion onCompleted);
  // "tags_replace" with the names of `tags` (comma-separated), or "tags_clear" when there are none.
  void updateBookmarkWithIdTags(const std::string& itemId, std::string_view tags, Completion onCompleted);
  // add: the answer's "item".
  void addBookmarkWithUrl(const std::string& url, const std::optional<std::string>& title,
                          const std::optional<std::string>& tags, ObjectCompletion onCompleted);

  // The action object a send carries, with "time" now ("%.0f" seconds since 1970).
  nlohmann::json action(std::string_view name, const std::string& itemId) const;

  // The error a person sees for a failed request: with an "X-Error" header (whatever the status),
  // the title as description and that text as recovery suggestion, kErrorDomain and
  // kResponseErrorCode, the HTTP status kept (400 for a refusal said with 200, so that it is shown
  // and not queued again); otherwise titled as every service's failures are.
  static Error errorFromResponse(const std::optional<HttpResponse>& response, const Error& error,
                                 std::string_view title);

 private:
  std::string path(std::string_view resource) const;
  nlohmann::json signedParameters(const nlohmann::json& parameters) const;
  Result<nlohmann::json> blockingPost(std::string_view resource, nlohmann::json parameters,
                                      std::string_view title);
  void send(std::vector<nlohmann::json> actions, std::string_view title, Completion onCompleted);
  void post(std::string_view resource, nlohmann::json parameters, std::string_view title,
            ObjectCompletion onCompleted);

  const std::string consumerKey_;
  std::string accessToken_;  // set once, in the constructor
  const Clock& clock_;
  mutable std::mutex signMutex_;  // guards signRequests_
  bool signRequests_ = false;
};

}  // namespace lectern
