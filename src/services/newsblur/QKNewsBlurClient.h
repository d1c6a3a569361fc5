#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/Error.h"
#include "net/AFHTTPClient.h"

namespace lectern {

// NewsBlur's web API: a login whose session cookie lives in this client's own cookie jar (sent
// with its requests only, never written anywhere), form posts, and answers that report most
// failures with HTTP 200. Owned by the account's NewsBlurService. Blocking calls are for the
// sync thread; the others complete on the main queue. Thread-safe; made with std::make_shared.
class QKNewsBlurClient final : public AFHTTPClient, public std::enable_shared_from_this<QKNewsBlurClient> {
 public:
  static constexpr std::string_view kDefaultBaseURL = "https://www.newsblur.com/";
  static constexpr std::string_view kErrorDomain = "com.quillhq.Lectern";
  // A refused login.
  static constexpr int kLoginFailedCode = 100;
  // An answer that says the session is gone ("authenticated": false, or 403 for a write).
  static constexpr int kNotAuthenticatedCode = 101;
  // An action the server declined ("code": -1 with HTTP 200).
  static constexpr int kRefusedCode = 102;
  // NewsBlur drops hashes past 100 in one request without a word.
  static constexpr size_t kMaxHashesPerRequest = 100;

  using Completion = std::function<void(std::optional<Error>)>;
  using ObjectCompletion = std::function<void(Result<nlohmann::json>)>;
  // A story as a mark call names it: its "id" (unique within its feed only) and its feed's id.
  struct StoryRef {
    std::string storyId;
    std::string feedId;
  };

  // An empty password is allowed: NewsBlur has accounts without one.
  QKNewsBlurClient(NetworkSession& session, std::string_view baseURL, std::string username,
                   std::string password);

  const std::string& username() const { return username_; }
  // Whether a login succeeded and no answer said its session ended since.
  bool hasSession() const { return hasSession_; }

  // "authenticated" true or the error "Failed to login" / "Invalid user name or password"
  // (kErrorDomain, kLoginFailedCode). A failed login carries no HTTP status: changes waiting
  // for it stay queued.
  void login(Completion onCompleted);
  Result<void> loginSynchronously();
  void logout(Completion onCompleted);
  Result<void> logoutSynchronously();

  // Blocking reads. Each opens a session first when there is none, and logs in once more when
  // an answer says the session ended; a failure carries the call's title.
  Result<nlohmann::json> refreshFeeds();
  Result<nlohmann::json> getReaderFeeds();
  Result<nlohmann::json> getUnreadStoryHashes();
  Result<nlohmann::json> getStarredStoryHashes();
  // At most kMaxHashesPerRequest hashes, one "h" pair each.
  Result<nlohmann::json> getUnreadStoriesWithHashes(const std::vector<std::string>& hashes);
  Result<nlohmann::json> getStarredStoriesWithHashes(const std::vector<std::string>& hashes);
  // Pages count from 1, newest first.
  Result<nlohmann::json> getRiverStoriesOfPage(int page, bool unreadOnly);

  // Marks by story id and feed id, one request after the other; the first failure ends them.
  // Read: one request per feed for all of its stories. Unread, star and unstar: one per story.
  void markStories(const std::vector<StoryRef>& stories, bool readed, Completion onCompleted);
  void markStory(const StoryRef& story, bool readed, Completion onCompleted);
  void markStoryStarred(const StoryRef& story, bool starred, Completion onCompleted);

  // Folder names as NewsBlur knows them; "" is the top level. The answer of add_url is the whole
  // answer (the subscribed feed is its "feed").
  void addFeedWithUrl(const std::string& url, const std::string& folderName, ObjectCompletion onCompleted);
  void addFolder(const std::string& folder, const std::string& parentFolder, Completion onCompleted);
  void moveFeed(const std::string& feedId, const std::string& fromFolder, const std::string& toFolder,
                Completion onCompleted);
  void deleteFeed(const std::string& feedId, const std::string& fromFolder, Completion onCompleted);
  // One delete_feed per folder, in order: a feed can sit in several.
  void deleteFeedFromFolders(const std::string& feedId, const std::vector<std::string>& folders,
                             Completion onCompleted);
  void renameFolder(const std::string& folder, const std::string& title, const std::string& inFolder,
                    Completion onCompleted);
  void deleteFolder(const std::string& folder, const std::string& fromFolder,
                    const std::vector<std::string>& feedIds, Completion onCompleted);

  // The error a person sees for a failed request titled `title`: a refusal said with HTTP 200
  // ("code": -1) has the server's message as recovery suggestion and the status 400, so that
  // a declined change is not queued again; an ended session is kNotAuthenticatedCode; other
  // failures are titled as every service's are.
  static Error errorFromResponse(const AFHTTPRequestOperation* operation, const Error& error,
                                 std::string_view title);
  static bool isSessionError(const Error& error);

 private:
  using Pairs = std::vector<std::pair<std::string, std::string>>;
  struct SessionCall;

  // A request to `resource` (relative to the base URL) with the pairs in the query (GET) or a form
  // body (POST), repeated keys kept, and "Accept: text/plain".
  HttpRequest request(std::string_view method, std::string_view resource, const Pairs& pairs);
  Result<nlohmann::json> blocking(std::string_view method, std::string_view resource, const Pairs& pairs,
                                  std::string_view title);
  Result<nlohmann::json> perform(const HttpRequest& request, std::string_view title);
  void send(HttpRequest request, std::string_view title, ObjectCompletion onCompleted);
  void sendInOrder(std::vector<HttpRequest> requests, std::string_view title, Completion onCompleted);
  static Error loginError(const std::optional<HttpResponse>& response, const Error& error);

  const std::string username_;
  const std::string password_;
  std::atomic<bool> hasSession_{false};
};

}  // namespace lectern
