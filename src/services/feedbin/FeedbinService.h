#pragma once

#include <memory>
#include <nlohmann/json_fwd.hpp>

#include "accounts/FeedService.h"

namespace lectern {

class QKFeedbinClient;

// What a person does with a Feedbin account: subscribe, unsubscribe, move a feed, mark items.
// Owned by one Account object; used on that account's context thread.
class FeedbinService final : public FeedService {
 public:
  // The user default that points every Feedbin account without an endpoint of its own elsewhere.
  static constexpr std::string_view kApiEndpointDefaultsKey = "feedbinApiEndpoint";

  using FeedService::FeedService;

  ServiceType serviceType() const override { return ServiceType::kFeedbin; }
  std::string_view descriptionName() const override { return "Feedbin"; }
  std::string_view serviceIcon() const override { return "feedbinTemplate"; }

  // The account's client (username and the password from the secret store), one request at a
  // time; nullptr when the password cannot be read.
  std::shared_ptr<QKFeedbinClient> feedbinClient();

  void authenticate(ServiceCompletion onCompleted) override;

  void markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account& account, bool archived,
                     ServiceCompletion onCompleted) override;
  void markBookmarkFavorited(Bookmark& bookmark, bool favorited, ServiceCompletion onCompleted) override;
  // Feedbin keeps every entry: the item is marked read there, so it does not come back unread.
  void deleteBookmark(Account& account, const std::string& bookmarkId,
                      const std::optional<std::string>& feedId, ServiceCompletion onCompleted) override;

  void addFeedWithUrl(std::string url, FeedFolder* folder, FeedCompletion onCompleted) override;
  void deleteFeed(Feed& feed, ServiceCompletion handler) override;
  void moveFeed(Feed& feed, FeedFolder* folder, ServiceCompletion onComplete) override;
  // Feedbin's folders are the names of tags on feeds: a folder cannot be renamed on its own.
  // Nothing happens and the completion is never called.
  void addOrRenameFolder(std::string title, FeedFolder* originalFolder,
                         FolderCompletion onCompleted) override;

  // A folder is the name of a tag on feeds: it is renamed by moving its feeds.
  bool offers(SubscriptionChange change) const override { return change != SubscriptionChange::kRenameFolder; }
  std::string changeNotOfferedReason(SubscriptionChange change) const override;

  // Why there is no client: the password is missing from the secret store.
  std::string unavailableReason() const override;

 protected:
  std::shared_ptr<AFHTTPClient> makeApiClient() override;

 private:
  void insertSubscribedFeed(const nlohmann::json& subscription, FeedFolder* folder,
                            FeedCompletion onCompleted);
};

}  // namespace lectern
