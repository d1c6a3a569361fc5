#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "core/Clock.h"
#include "core/Error.h"
#include "net/AFHTTPClient.h"

namespace lectern {

// What Feedly issues to an application: its client id and secret and the scope it asks for.
// Configuration (user defaults), never logged.
struct FeedlyApplication {
  std::string clientId;
  std::string clientSecret;
  std::string scope;
};

// The tokens of one account. A developer access token has no refresh token and no expiry.
struct FeedlyTokens {
  std::string accessToken;
  std::optional<std::string> refreshToken;
  std::optional<Date> expire;
};

// Feedly's cloud API, version 3, with OAuth 2 tokens: the path, body and error title of each
// call, the token check before each of them and the renewal of a rejected token. Owned by the
// account's FeedlyService. Blocking calls are for the sync thread (or a sign-in that waits); the
// others complete on the main queue. Thread-safe; made with std::make_shared.
class QKFeedlyClient final : public AFHTTPClient, public std::enable_shared_from_this<QKFeedlyClient> {
 public:
  static constexpr std::string_view kDefaultBaseURL = "https://cloud.feedly.com/";
  static constexpr std::string_view kApiVersion = "v3";
  // Stream answers carry at most this many ids; Lectern asks for no continuation.
  static constexpr size_t kIdsPerStream = 10'000;
  // Entries fetched per `.mget` request.
  static constexpr size_t kEntriesPerRequest = 100;
  // A token checked less than this long ago, with more than kTokenMargin left, is not checked again.
  static constexpr std::chrono::seconds kTokenCheckInterval{21'600};
  static constexpr std::chrono::seconds kTokenMargin{86'400};
  // Errors of the token check and of its renewal.
  static constexpr std::string_view kTokenErrorDomain = "com.quillhq.Lectern.feedlyClient";
  static constexpr int kTokenErrorCode = 400;
  // The domain of an answer that says "message" (kept as it has always been).
  static constexpr std::string_view kMessageErrorDomain = "com.quillhq.Lectern.FeedWranglerClient";
  static constexpr int kMessageErrorCode = 100;

  using Completion = std::function<void(std::optional<Error>)>;
  using JSONCompletion = std::function<void(Result<nlohmann::json>)>;
  // Told of every renewed access token with its expiry: the account keeps them at once.
  using TokenDelegate = std::function<void(const std::string& accessToken, Date expire)>;

  // Paths are relative ("v3/..."), so that a server under a path works too.
  QKFeedlyClient(NetworkSession& session, std::string_view baseURL, FeedlyApplication application,
                 FeedlyTokens tokens, const Clock& clock);

  ~QKFeedlyClient() override;

  void setTokenDelegate(TokenDelegate delegate);
  // The profile id known from before (kept with the account), and who is told a new one: with
  // it, a sync needs no profile request unless the token is due for its check.
  void setProfileId(std::optional<std::string> profileId);
  void setProfileDelegate(std::function<void(const std::string& profileId)> delegate);
  FeedlyTokens tokens() const;

  // ---- OAuth ----
  // "lectern://feedly/auth": the address the browser is sent back to, through the desktop entry.
  static std::string redirectURL();
  // The page that asks the person to let Lectern in, sending the browser back to `redirectURI`
  // with a code and `state`.
  std::string authorizationURL(std::string_view redirectURI, std::string_view state);
  // Trades the code of a sign-in for tokens (form POST of auth/token); the client uses them from
  // then on. Blocking.
  Result<FeedlyTokens> convertAccessTokenFromAuthCode(std::string_view code, std::string_view redirectURI);
  // Renews the access token with the refresh token (form POST of auth/token). Blocking.
  Result<void> refreshToken();
  // The profile check: at most every six hours per process while the token has a day left; a
  // rejected token (errorCode 401) is renewed once and the delegate told. Blocking; every call
  // below runs it first.
  std::optional<Error> checkTokenAndRefreshIfNeeded();
  // Forgets when the token was last checked (one value for the whole process), so that the next
  // call checks again.
  static void resetLastTokenCheck();

  // ---- blocking calls; a failure carries the call's title ----
  Result<nlohmann::json> getProfile();
  // The profile's "id", which builds the account's stream ids.
  Result<std::string> profileId();
  Result<nlohmann::json> getCategories();
  Result<nlohmann::json> getSubscriptions();
  Result<nlohmann::json> getUnreadEntryIds();
  Result<nlohmann::json> getStarredEntryIds();
  Result<nlohmann::json> getReadEntryIdsSince(Date since);
  // A 404 is no error: the answer is what its body parsed to.
  Result<nlohmann::json> getEntriesWithIds(const std::vector<std::string>& ids);

  // ---- calls that complete on the main queue ----
  void markStories(const std::vector<std::string>& ids, bool readed, Completion onComplete);
  void markStoriesStarred(const std::vector<std::string>& ids, Completion onComplete);
  // DELETE of the saved tag with the ids, each encoded, joined by "," in the path.
  void markStoriesUnstarred(const std::vector<std::string>& ids, Completion onComplete);
  void markStory(const std::string& id, bool starred, Completion onComplete);
  void renameFolder(const std::string& categoryId, const std::string& title, Completion onComplete);
  void deleteFeed(const std::string& feedId, Completion onComplete);
  // A folder without a category id yet (made here) is sent by label: Feedly makes the category
  // "user/<profile id>/category/<label>" for it.
  // The answer is the server's body (a list of the subscription, when it says).
  void addFeedWithUrl(const std::string& url, const std::optional<std::string>& folderId,
                      const std::optional<std::string>& folderName, JSONCompletion onComplete);
  void authenticate(Completion onComplete);
  void moveFeed(const std::string& feedId, const std::optional<std::string>& title,
                const std::optional<std::string>& folderId, const std::optional<std::string>& folderName,
                Completion onComplete);

  // The profile id once a call needed it, and the category id Feedly gives a new folder's label.
  std::optional<std::string> knownProfileId() const;
  std::optional<std::string> categoryIdForLabel(const std::string& label) const;

  // Every character but letters, digits and "-._~" percent-escaped: ids travel in path segments.
  static std::string urlEncodedStringFromString(std::string_view text);
  // A dictionary with a non-empty "message" is a refusal, whatever the status.
  static bool isResponseError(const nlohmann::json& answer);

 private:
  std::string path(std::string_view resource) const;
  Result<std::string> streamId(std::string_view suffix);
  nlohmann::json categoryOf(const std::optional<std::string>& folderId,
                            const std::optional<std::string>& folderName) const;
  // Checks the token, then sends the request `makeRequest` builds (with the token as it is then).
  Result<nlohmann::json> blockingCall(const std::function<HttpRequest()>& makeRequest, std::string_view title,
                                      bool notFoundIsAnswer);
  Result<nlohmann::json> getStreamIds(std::string_view suffix, nlohmann::json parameters);
  // Sends `request` after the token check (run off the main thread when it has to ask the
  // server), one call at a time in the order they were made.
  // The profile id, when needed (the saved tag's path), is read off the main thread too.
  void send(std::function<HttpRequest()> makeRequest, std::string title, JSONCompletion onComplete,
            bool needsProfileId = false);
  void afterTokenCheck(bool needsProfileId, std::function<void(std::optional<Error>)> then);
  // Whether the token has to be checked now, for a token that expires at `expire`.
  bool tokenCheckDue(std::optional<Date> expire) const;
  // Adopts a token another client of the same grant renewed meanwhile.
  void adoptSharedToken();
  std::optional<Error> checkToken(bool notifyOnMainQueue);
  Result<nlohmann::json> tokenGrant(nlohmann::json form);
  void setAccessToken(const std::string& token, std::optional<Date> expire);

  const FeedlyApplication application_;
  const Clock& clock_;
  mutable std::mutex mutex_;
  FeedlyTokens tokens_;
  TokenDelegate delegate_;
  std::function<void(const std::string&)> profileDelegate_;
  std::optional<std::string> profileId_;
  // Calls waiting for a token check that runs off the main thread.
  bool checking_ = false;
  std::thread checker_;  // the token check of calls made on the main thread; joined before the next
  std::vector<std::function<void(std::optional<Error>)>> waiting_;
};

}  // namespace lectern
