#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Error.h"
#include "net/QKXAuthClient.h"

namespace lectern {

// Instapaper's full API, version 1: every call a signed form POST under "api/1/", every answer
// (but the sign-in's) asked for in the line-oriented "qline" form. Owned by the account's
// InstapaperService (or, while signing in, by the service's sign-in). Blocking calls are for the
// sync thread; the others complete on the main queue. Thread-safe. Made with std::make_shared:
// calls of several requests hold it weakly between their answers.
class QKInstapaperClient final : public QKXAuthClient, public std::enable_shared_from_this<QKInstapaperClient> {
 public:
  static constexpr int kApiVersion = 1;
  static constexpr std::string_view kDefaultBaseURL = "https://www.instapaper.com/";
  // The most bookmarks one list call brings.
  static constexpr std::size_t kBookmarkListLimit = 500;

  using Completion = std::function<void(std::optional<Error>)>;
  using ListCompletion = std::function<void(Result<nlohmann::json>)>;
  using TokenCompletion = std::function<void(Result<std::pair<std::string, std::string>>)>;

  struct Credentials {
    std::string username;
    std::string password;
  };
  struct TokenPair {
    std::string token;
    std::string secret;
  };

  // xAuth mode, for signing in: the consumer pair Instapaper issued to Lectern and the person's
  // user name and password, which travel once, signed.
  QKInstapaperClient(NetworkSession& session, std::string_view baseURL, std::string consumerKey,
                     std::string consumerSecret, Credentials credentials);
  // Signed mode with the token pair of an earlier sign-in; never sends the password.
  QKInstapaperClient(NetworkSession& session, std::string_view baseURL, std::string consumerKey,
                     std::string consumerSecret, TokenPair pair);

  // "api/1/<resource>", relative to the base URL.
  static std::string path(std::string_view resource);

  // oauth/access_token with the xAuth parameters: the token pair, or the failure titled
  // "Instapaper: Failed to login".
  void authenticate(TokenCompletion onCompleted);
  void verifyCredentials(ListCompletion onCompleted);

  // Blocking calls, for the sync thread: the parsed answer, or the failure with the call's title.
  Result<nlohmann::json> getBookmarksInFolder(const std::string& folderId, std::size_t limit,
                                              const std::string& have);
  Result<nlohmann::json> getFolderList();

  void updateReadProgressOfBookmark(const std::string& bookmarkId, double progress, double progressTimestamp,
                                    ListCompletion onComplete);
  // Each of title, description and folder only when given.
  void addBookmarkWithUrl(const std::string& url, const std::optional<std::string>& title,
                          const std::optional<std::string>& description,
                          const std::optional<std::string>& folderId, ListCompletion onComplete);
  void deleteBookmarkWithId(const std::string& bookmarkId, ListCompletion onComplete);
  void starBookmarkWithId(const std::string& bookmarkId, ListCompletion onComplete);
  void unstarBookmarkWithId(const std::string& bookmarkId, ListCompletion onComplete);
  void archiveBookmarkWithId(const std::string& bookmarkId, ListCompletion onComplete);
  void unarchiveBookmarkWithId(const std::string& bookmarkId, ListCompletion onComplete);
  void markBookmarkWithId(const std::string& bookmarkId, bool favorited, ListCompletion onComplete);
  void markBookmarkArchived(const std::string& bookmarkId, bool archived, ListCompletion onComplete);
  void moveBookmarkWithId(const std::string& bookmarkId, const std::string& folderId, ListCompletion onComplete);
  // The answer is an HTML page, handed on as a one-element list {"type": "text", "html": ...}.
  void getTextOfBookmarkWithId(const std::string& bookmarkId, ListCompletion onComplete);
  void addFolderWithTitle(const std::string& title, ListCompletion onComplete);
  void deleteFolderWithId(const std::string& folderId, ListCompletion onComplete);
  // (folder_id, position) pairs, written "id:pos" and joined by ",".
  void setFoldersOrder(const std::vector<std::pair<std::string, std::int64_t>>& order, ListCompletion onComplete);
  static std::string folderOrderString(const std::vector<std::pair<std::string, std::int64_t>>& order);

  // Archives (or unarchives) each bookmark, one request after the other; the first failure ends them.
  void markBookmarksArchived(std::vector<std::string> bookmarkIds, bool archived, Completion onComplete);

  // The answer's objects: a JSON list when the body is one, else the qline lines.
  static nlohmann::json parseResponse(std::string_view body);
  // A list whose first element has "type" "error".
  static bool isResponseError(std::string_view body);
  // The underlying error's domain and code with the title as description; the recovery suggestion
  // is the server's "message" when its body gives one, else the network layer's sentence.
  Error errorFromResponseData(std::string_view responseData, const std::optional<Error>& error,
                              std::string_view titleMessage) const override;
  // The same for a finished operation: its status stays in the user info, so that a refusal (a 4xx)
  // is told from a change that never arrived. An error answer with status 200 counts as a refusal.
  Error errorForOperation(const AFHTTPRequestOperation* operation, const std::optional<Error>& error,
                          std::string_view title) const;

 private:
  // Posts `parameters` (with "format" = "qline") and hands the parsed answer, or the titled error,
  // to `onComplete` on the main queue.
  void post(std::string_view resource, nlohmann::json parameters, std::string_view title,
            ListCompletion onComplete);
  Result<nlohmann::json> blockingPost(std::string_view resource, nlohmann::json parameters,
                                      std::string_view title);
  Result<nlohmann::json> handleResponseOperation(const AFHTTPRequestOperation& operation, std::string_view title) const;

  // Sign-in only, until authenticate sends it.
  std::string signInPassword_;
};

}  // namespace lectern
