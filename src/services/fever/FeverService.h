#pragma once

#include <memory>

#include "accounts/FeedService.h"

namespace lectern {

class QKFeverClient;

// What a person does with a Fever account: mark items. Fever's API manages no subscriptions:
// feeds and groups are changed on the server. Owned by one Account object; its context's thread.
class FeverService final : public FeedService {
 public:
  using FeedService::FeedService;

  ServiceType serviceType() const override { return ServiceType::kFever; }
  std::string_view descriptionName() const override { return "Fever"; }
  std::string_view serviceIcon() const override { return "feverTemplate"; }

  void authenticate(ServiceCompletion onCompleted) override;

  void markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account& account, bool archived,
                     ServiceCompletion onCompleted) override;
  void markBookmarkFavorited(Bookmark& bookmark, bool favorited, ServiceCompletion onCompleted) override;
  // Fever keeps every item: the item is marked read there, so it does not come back unread.
  void deleteBookmark(Account& account, const std::string& bookmarkId,
                      const std::optional<std::string>& feedId, ServiceCompletion onCompleted) override;

  // None is offered, and each of these does nothing and never calls back.
  bool offers(SubscriptionChange) const override { return false; }
  std::string changeNotOfferedReason(SubscriptionChange change) const override;
  void addFeedWithUrl(std::string url, FeedFolder* folder, FeedCompletion onCompleted) override;
  void deleteFeed(Feed& feed, ServiceCompletion handler) override;
  void moveFeed(Feed& feed, FeedFolder* folder, ServiceCompletion onComplete) override;
  void addOrRenameFolder(std::string title, FeedFolder* originalFolder,
                         FolderCompletion onCompleted) override;

  std::string unavailableReason() const override;

 protected:
  std::shared_ptr<AFHTTPClient> makeApiClient() override;
};

}  // namespace lectern
