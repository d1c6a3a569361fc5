#pragma once

#include <memory>
#include <nlohmann/json_fwd.hpp>

#include "accounts/FeedService.h"
#include "core/Clock.h"

namespace lectern {

class QKFeedlyClient;
class UserDefaults;
struct FeedlyApplication;

// What a person does with a Feedly account: subscribe, unsubscribe, move a feed, rename a folder,
// mark items. Its client renews the access token by itself; the account keeps each renewed token
// at once. Owned by one Account object; used on that account's context thread.
class FeedlyService final : public FeedService {
 public:
  static constexpr std::string_view kApiEndpointDefaultsKey = "feedlyApiEndpoint";
  static constexpr std::string_view kClientIdDefaultsKey = "feedlyClientId";
  static constexpr std::string_view kClientSecretDefaultsKey = "feedlyClientSecret";
  static constexpr std::string_view kScopeDefaultsKey = "feedlyScope";
  // The account preference that keeps the Feedly profile id.
  static constexpr std::string_view kProfileIdPreferenceKey = "feedlyProfileId";

  using FeedService::FeedService;

  ServiceType serviceType() const override { return ServiceType::kFeedly; }
  std::string_view descriptionName() const override { return "Feedly"; }
  std::string_view serviceIcon() const override { return "feedlyTemplate"; }

  // The application Feedly knows Lectern as, from the user defaults; the scope defaults to the
  // subscriptions scope of the API's host. An error saying how to set what is missing.
  static Result<FeedlyApplication> application(const UserDefaults& defaults, std::string_view baseURL);

  // The account's client with its tokens, one request at a time; nullptr without a token or an
  // application.
  std::shared_ptr<QKFeedlyClient> feedlyClient();

  // Checks the stored token with the profile call.
  void authenticate(ServiceCompletion onCompleted) override;

  void markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account& account, bool archived,
                     ServiceCompletion onCompleted) override;
  void markBookmarkFavorited(Bookmark& bookmark, bool favorited, ServiceCompletion onCompleted) override;
  // Feedly keeps every entry: the item is marked read there, so it does not come back unread.
  void deleteBookmark(Account& account, const std::string& bookmarkId,
                      const std::optional<std::string>& feedId, ServiceCompletion onCompleted) override;

  void addFeedWithUrl(std::string url, FeedFolder* folder, FeedCompletion onCompleted) override;
  void deleteFeed(Feed& feed, ServiceCompletion handler) override;
  void moveFeed(Feed& feed, FeedFolder* folder, ServiceCompletion onComplete) override;
  // Renames the folder's category; a new folder is made here and reaches Feedly with the first
  // feed moved into it.
  void addOrRenameFolder(std::string title, FeedFolder* originalFolder,
                         FolderCompletion onCompleted) override;

  std::string unavailableReason() const override;

  // The account keeps a renewed token (in the secret store) and its expiry, saved at once.
  void feedlyTokenRefreshed(const std::string& accessToken, Date expire);

 protected:
  std::shared_ptr<AFHTTPClient> makeApiClient() override;

 private:
  // A folder made here gets the category id Feedly gave it.
  void adoptCategoryId(FeedFolder* folder);
};

}  // namespace lectern
