#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/Error.h"
#include "store/AccountService.h"
#include "store/BookmarkQuery.h"
#include "store/ManagedObject.h"
#include "store/OfflineOperation.h"
#include "store/QKAccountPreferences.h"
#include "store/ServiceIdentifiers.h"

namespace lectern {

class Bookmark;
class Feed;
class FeedFolder;
class Folder;
class Token;

// One configured service account with its folders, bookmarks, tags, offline queue and run-time
// companions (service object, preferences, keychain secret, sync state). Lives in one context.
class Account final : public ManagedObject {
 public:
  static constexpr Entity kEntity = Entity::kAccount;
  Account(Key, ObjectContext& context, ObjectId id) : ManagedObject(context, id) {}

  // A new account of `service`: its default folders are created (see setService).
  static std::shared_ptr<Account> create(ObjectContext& context, std::string_view service,
                                         std::optional<std::string> username = std::nullopt,
                                         std::optional<std::string> title = std::nullopt);

  // Every account but the smart-folders one, by position.
  static Result<std::vector<std::shared_ptr<Account>>> services(ObjectContext& context);
  // A nil username matches accounts stored without one.
  static Result<std::shared_ptr<Account>> findService(ObjectContext& context, std::string_view service,
                                                      const std::optional<std::string>& username);
  static Result<std::shared_ptr<Account>> smartFoldersAccount(ObjectContext& context);
  static Result<std::shared_ptr<Account>> localRSSAccount(ObjectContext& context);
  static Result<std::int64_t> numberOfAccounts(ObjectContext& context);
  static Result<bool> isServiceExists(ObjectContext& context, std::string_view service,
                                      const std::optional<std::string>& username);
  static Result<bool> hasFeedService(ObjectContext& context);

  std::optional<std::string> service() const;
  // Sets the identifier, rebuilds the service object, moves the preferences to the new unique
  // identifier and creates the missing default folders.
  void setService(std::optional<std::string> service);
  std::optional<std::string> username() const;
  // Moves the preferences when the unique identifier changes.
  void setUsername(std::optional<std::string> username);
  std::optional<std::string> title() const;
  void setTitle(std::optional<std::string> title);
  std::optional<std::string> api_endpoint() const;
  void setApi_endpoint(std::optional<std::string> endpoint);
  std::optional<std::string> token() const;
  void setToken(std::optional<std::string> token);
  std::optional<Date> token_expire() const;
  void setToken_expire(std::optional<Date> date);
  std::optional<Date> last_sync() const;
  void setLast_sync(std::optional<Date> date);
  std::int64_t last_sync_keep_index() const;
  void setLast_sync_keep_index(std::int64_t index);
  bool is_expanded() const;
  void setIs_expanded(bool expanded);
  std::int64_t pos() const;
  void setPos(std::int64_t pos);

  ServiceType serviceType() const;
  void setServiceType(ServiceType type);
  // "service:username" when the service can log in, else the service alone.
  std::string uniqueIdentifier() const;
  // Made by the registered factory on first use; nullptr when no service handles this kind.
  std::shared_ptr<AccountService> serviceObject();
  QKAccountPreferences& preferences();
  // The secret kept in the keychain under the unique identifier (nothing without a keychain).
  Result<std::optional<std::string>> tokenSecret() const;
  // A missing secret deletes the keychain item.
  Result<void> setTokenSecret(const std::optional<std::string>& secret);

  // Sync state, kept in memory only.
  bool isSyncing() const { return isSyncing_; }
  void setIsSyncing(bool syncing) { isSyncing_ = syncing; }
  bool isInitialSync() const { return isInitialSync_; }
  void setIsInitialSync(bool initial) { isInitialSync_ = initial; }
  const std::optional<Error>& syncError() const { return syncError_; }
  void setSyncError(std::optional<Error> error) { syncError_ = std::move(error); }
  bool hasError() const { return syncError_.has_value(); }
  std::string syncErrorDescription() const { return syncError_ ? syncError_->message() : std::string(); }

  // Bookmarks.
  Result<std::shared_ptr<Bookmark>> findBookmarkWithId(std::string_view bookmarkId);
  Result<std::vector<std::shared_ptr<Bookmark>>> findBookmarksWithIds(
      const std::vector<std::string>& bookmarkIds);
  // The account's bookmarks whose bookmark_hash is among `bookmarkHashes` (services that name
  // items by hash).
  Result<std::vector<std::shared_ptr<Bookmark>>> findBookmarksWithHashes(
      const std::vector<std::string>& bookmarkHashes);
  Result<std::vector<std::shared_ptr<Bookmark>>> bookmarks(const BookmarkQuery& query = {});
  // The newest value among the account's bookmarks (ids compare as numbers when they are numbers).
  Result<std::optional<std::string>> lastBookmarkId();
  Result<std::optional<Date>> lastBookmarkUpdateDate();
  Result<std::optional<Date>> lastBookmarkAddDate();

  // Folders and feeds.
  std::shared_ptr<Folder> addFolderWithTitle(std::optional<std::string> title, std::int64_t pos,
                                             std::optional<std::string> folderId);
  std::shared_ptr<FeedFolder> addFeedFolderWithTitle(std::optional<std::string> title, std::int64_t pos,
                                                     std::optional<std::string> folderId);
  // A new subscription, in `folder` when given.
  std::shared_ptr<Feed> addFeedWithTitle(std::optional<std::string> title,
                                         std::optional<std::string> feedLink,
                                         std::optional<std::string> folderId, FeedFolder* folder = nullptr);
  Result<std::vector<std::string>> getLocalFolderIds();
  Result<std::shared_ptr<Folder>> findFolderWithId(std::string_view folderId);
  // Positions follow the titles' alphabetical order.
  void rearrangeItemsAlphabetically(const std::vector<std::shared_ptr<Folder>>& items);
  Result<std::shared_ptr<Folder>> unreadFolder();
  Result<std::shared_ptr<Folder>> favoriteFolder();
  Result<std::shared_ptr<Folder>> archiveFolder();
  Result<std::shared_ptr<Folder>> articleFolder();
  Result<std::shared_ptr<Folder>> videoFolder();
  Result<std::shared_ptr<Folder>> imageFolder();
  Result<std::shared_ptr<Folder>> privateFolder();
  Result<std::shared_ptr<Folder>> sharedFolder();
  // The account's folders that are not feeds, by position and then title.
  Result<std::vector<std::shared_ptr<Folder>>> sortedFolders();
  // Every folder of the account, feeds and smart folders included.
  Result<std::vector<std::shared_ptr<Folder>>> allFolders();
  Result<std::vector<std::shared_ptr<Feed>>> feeds();
  // The order the built-in reader refreshes in: the first folder's title, then the feed's title,
  // both ignoring case.
  Result<std::vector<std::shared_ptr<Feed>>> feedsInSyncOrder();
  Result<std::vector<std::shared_ptr<Token>>> fetchTags();
  // Tokens with at least one unread bookmark.
  Result<std::vector<std::shared_ptr<Token>>> unreadTokens();
  // Unread stories per feed (every feed of the account, zeros included).
  Result<std::unordered_map<ObjectId, std::int64_t>> unreadFeedCounts();

  // last_sync plus the interval "autoSyncIntervalIndex" selects (1-4: 300, 600, 1800, 3600 s);
  // now when never synced; nothing for manual sync (0 and anything else).
  std::optional<Date> nextSyncDate();
  // The keep period was lengthened since the last sync (and this is not the first sync).
  bool isKeepIndexChangedToLonger() const;
  // Cancels the service's requests under way.
  void clearAllRequest();
  // Where the pictures of this account's items are cached: a folder of its own inside the image
  // cache, so that deleting the account deletes them too.
  std::filesystem::path imageCacheFolder() const;
  static std::filesystem::path imageCacheFolderOfAccount(const std::filesystem::path& imageCache, std::int64_t row);

  // Offline operations. Queueing cancels a queued opposite (nothing is queued then) and skips a
  // duplicate; the caller saves. A nil feed id matches operations stored without one.
  Result<void> addOfflineOperationForBookmark(std::string_view bookmarkId,
                                              const std::optional<std::string>& feedId,
                                              OfflineOperationType type);
  Result<std::vector<std::shared_ptr<OfflineOperation>>> offlineOperationsWithType(OfflineOperationType type);
  Result<std::vector<std::shared_ptr<OfflineOperation>>> offlineOperationsWithBookmarkId(
      std::string_view bookmarkId, const std::optional<std::string>& feedId, OfflineOperationType type);
  // True when at least one opposite was found and deleted.
  Result<bool> removeOppositeOfflineOperationsForBookmark(std::string_view bookmarkId,
                                                          const std::optional<std::string>& feedId,
                                                          OfflineOperationType type);
  // Deletes the queued changes of both codes of `type`'s pair (read and unread, or star and
  // unstar) for the item: a change sent now supersedes them. The caller saves.
  Result<void> removeSupersededOfflineOperationsForBookmark(std::string_view bookmarkId,
                                                            const std::optional<std::string>& feedId,
                                                            OfflineOperationType type);
  struct OperationEntry {
    std::shared_ptr<Bookmark> bookmarkObject;  // none for a delete: the item went when it was queued
    std::shared_ptr<OfflineOperation> operationObject;
  };
  // The queued operations of `type` in ascending created_at with their bookmarks; an operation
  // (other than a delete) whose bookmark no longer exists is deleted on the way and left out.
  Result<std::vector<OperationEntry>> arrayWithOperationsDictionariesForOperationType(
      OfflineOperationType type);
  void clearOfflineOperations(const std::vector<std::shared_ptr<OfflineOperation>>& operations);

  // Asked while a replay waits for its service; true stops the replay.
  using CancellationCheck = std::function<bool()>;
  // Replays the queue through the account's service in the order read, unread, star, unstar,
  // delete, waiting for each call (the completion comes on the main queue, so off the main thread
  // the main queue must run meanwhile). An operation is cleared once its service took it or its
  // server refused it; one that could not be sent stays queued and the replay stops there, so the
  // order holds at the next sync. Saves the context after each kind.
  Result<void> processOfflineOperations(const CancellationCheck& isCancelled = {});
  // Each answers whether the replay goes on (false: something could not be sent, or cancelled).
  Result<bool> processOfflineReadOperations(const std::vector<OperationEntry>& entries,
                                            const CancellationCheck& isCancelled = {});
  Result<bool> processOfflineUnreadOperations(const std::vector<OperationEntry>& entries,
                                              const CancellationCheck& isCancelled = {});
  Result<bool> processOfflineStarOperations(const std::vector<OperationEntry>& entries,
                                            const CancellationCheck& isCancelled = {});
  Result<bool> processOfflineUnstarOperations(const std::vector<OperationEntry>& entries,
                                              const CancellationCheck& isCancelled = {});
  Result<bool> processOfflineDeleteOperations(const std::vector<OperationEntry>& entries,
                                              const CancellationCheck& isCancelled = {});

 protected:
  // On the main context: deletes the keychain secret and the preferences entry.
  void prepareForDeletion() override;

 private:
  void identifierChanged(const std::string& oldIdentifier);
  void createDefaultFolders();
  Result<bool> processOfflineMarkOperations(const std::vector<OperationEntry>& entries, bool archived,
                                            const CancellationCheck& isCancelled);
  Result<bool> processOfflineFavoriteOperations(const std::vector<OperationEntry>& entries, bool favorited,
                                                const CancellationCheck& isCancelled);
  // Clears `operations` when `outcome` says the service took or refused them; false otherwise.
  bool settleReplayed(const std::vector<std::shared_ptr<OfflineOperation>>& operations,
                      const std::optional<std::optional<Error>>& outcome);

  std::shared_ptr<AccountService> service_;
  bool serviceMade_ = false;
  std::unique_ptr<QKAccountPreferences> preferences_;
  bool isSyncing_ = false;
  bool isInitialSync_ = false;
  std::optional<Error> syncError_;
};

}  // namespace lectern
