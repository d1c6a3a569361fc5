#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "accounts/FeedService.h"
#include "core/Error.h"
#include "feeds/RSSFeed.h"
#include "store/EntitySchema.h"

namespace lectern {

class QKFeedParserClient;

// The built-in reader's service: no server and no login, so every subscription and item change is
// made on the local store alone. Owned by the "localrss" Account object; its context's thread.
class LocalRSSService final : public FeedService {
 public:
  LocalRSSService(Account& account, const ServiceDependencies& dependencies);
  // Fetches under way are cancelled; their completions run on the main queue with an error.
  ~LocalRSSService() override;

  ServiceType serviceType() const override { return ServiceType::kLocalRSS; }
  std::string_view descriptionName() const override { return "Built-in RSS Reader"; }
  std::string_view serviceIcon() const override { return "localRSSTemplate"; }
  bool canLogin() const override { return false; }

  // Fetches `url` once to learn the feed's title, then adds the Feed (folder_id and feed_link the
  // address as given, trimmed) to `folder`. A feed already subscribed is not added again: it joins
  // `folder` and is handed back. Errors: "Failed to add subscription: invalid url" for an address
  // that is not http(s), else "Failed to add subscription" with the reason as recovery suggestion.
  // Main context only.
  void addFeedWithUrl(std::string url, FeedFolder* folder, FeedCompletion onCompleted) override;
  // The feed and its stories are deleted and the context saved.
  void deleteFeed(Feed& feed, ServiceCompletion handler) override;
  void moveFeed(Feed& feed, FeedFolder* folder, ServiceCompletion onComplete) override;
  // Main context only (the folder is handed to the completion).
  void addOrRenameFolder(std::string title, FeedFolder* originalFolder,
                         FolderCompletion onCompleted) override;

  // Item changes are the store's alone: they succeed at once.
  void markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account& account, bool archived,
                     ServiceCompletion onCompleted) override;
  void markBookmarkFavorited(Bookmark& bookmark, bool favorited, ServiceCompletion onCompleted) override;
  void markBookmarkShared(Bookmark& bookmark, bool shared, ServiceCompletion onCompleted) override;
  void deleteBookmark(Account& account, const std::string& bookmarkId,
                      const std::optional<std::string>& feedId, ServiceCompletion onCompleted) override;
  void moveBookmark(Bookmark& bookmark, Folder& folder, ServiceCompletion onCompleted) override;
  void updateTags(Bookmark& bookmark, ServiceCompletion onCompleted) override;
  void updateReadProgress(Bookmark& bookmark, double progress, ServiceCompletion onCompleted) override;

  // The two errors of adding a subscription.
  static Error invalidURLError(std::string_view reason);
  static Error addSubscriptionError(std::string_view reason);

 private:
  // On the main queue, once the fetch of pending fetch `id` ended.
  void finishAdd(std::uint64_t id, const std::string& url, std::optional<ObjectId> folderId,
                 Result<RSSFeed> fetched);
  Result<std::shared_ptr<Feed>> addFetchedFeed(const std::string& url, std::optional<ObjectId> folderId,
                                               Result<RSSFeed> fetched);
  // The account's Feed for `url`, joined to `folder` when given, saved; nullptr when there is none.
  Result<std::shared_ptr<Feed>> existingFeed(const std::string& url, FeedFolder* folder);
  Result<std::shared_ptr<FeedFolder>> folderWithId(std::optional<ObjectId> folderId);
  Result<void> save();

  struct PendingFetch {
    std::shared_ptr<QKFeedParserClient> client;
    FeedCompletion onCompleted;
    // Keeps the account object, and with it this service, until the answer is in.
    std::shared_ptr<Account> account;
  };
  // Fetches under way, by id. A client is released on the main queue after its completion ran.
  std::map<std::uint64_t, PendingFetch> fetches_;
  std::uint64_t nextFetchId_ = 1;
};

}  // namespace lectern
