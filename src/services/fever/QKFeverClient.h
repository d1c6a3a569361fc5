#pragma once

#include <cstdint>
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

// The Fever API of a server the person runs: one endpoint, every call a form POST carrying the
// API key, the query word choosing the call. Owned by the account's FeverService; blocking calls
// for the sync thread, the others complete on the main queue. Thread-safe; made with
// std::make_shared.
class QKFeverClient final : public AFHTTPClient, public std::enable_shared_from_this<QKFeverClient> {
 public:
  // Items per page of a Fever answer: a shorter page is the last one.
  static constexpr size_t kItemsPerPage = 50;
  // The server polls its feeds when asked to refresh, which can take minutes.
  static constexpr std::chrono::seconds kRefreshTimeout{1800};

  using Completion = std::function<void(std::optional<Error>)>;

  // `endpoint` is the address the person entered ("https://host/fever/",
  // "https://host/api/fever.php"): calls add their query word to it as it stands.
  QKFeverClient(NetworkSession& session, std::string_view endpoint, std::string username,
                std::string password);

  // {"api_key": MD5 of "username:password", as 32 lowercase hexadecimal digits}.
  nlohmann::json defaultParameters() const;
  // A false "auth" (Fever says so with status 200) fails with "Failed to login" / "Invalid user
  // name or password" (domain "com.quillhq.Lectern", code 100).
  static Result<void> isAuthenticated(const nlohmann::json& answer);

  void login(Completion onCompleted);
  Result<void> refreshOnServer();
  Result<nlohmann::json> getGroups();
  Result<nlohmann::json> getFeeds();
  Result<nlohmann::json> getStoriesSinceId(std::string_view sinceId);
  Result<nlohmann::json> getStoriesWithIds(const std::vector<std::string>& ids);
  Result<nlohmann::json> getUnreadStoryIds();
  Result<nlohmann::json> getFavoriteStoryIds();

  // "mark=item&as=read|unread" and "as=saved|unsaved".
  void markStory(const std::string& id, bool readed, Completion onCompleted);
  void markStoryStarred(const std::string& id, bool starred, Completion onCompleted);

  // The endpoint with `query` added ("?api&groups", or "&api&groups" after a query it has).
  std::string urlWithQuery(std::string_view query) const;

 private:
  Result<nlohmann::json> blockingCall(std::string_view query, std::string_view title);
  void markItem(const std::string& id, std::string_view as, Completion onCompleted);

  const std::string endpoint_;
  const std::string apiKey_;
};

}  // namespace lectern
