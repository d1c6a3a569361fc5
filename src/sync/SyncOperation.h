#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Clock.h"
#include "core/Error.h"
#include "core/OperationQueue.h"
#include "store/EntitySchema.h"
#include "store/ServiceIdentifiers.h"
#include "sync/AccountSyncReport.h"
#include "sync/SyncEnvironment.h"

namespace lectern {

class Account;
class AccountService;
class Bookmark;
class ObjectContext;
class QKSyncNotificationCenter;
class SyncAppControllerDelegate;
class SyncWindowControllerDelegate;

// The code (domain "com.quillhq.Lectern") of the error an operation gets when its `main` returned
// without completing.
inline constexpr int kSyncOperationIncompleteErrorCode = 3002;

// The base of every service's sync operation: background context, offline replay, saves, cancel.
// Made on the main thread by the sync manager; runs on one thread of the sync queue.
class SyncOperation : public Operation {
 public:
  // initWithAccount: on the main thread, with the main context's account.
  SyncOperation(std::shared_ptr<Account> originalAccount, const SyncEnvironment& environment);
  ~SyncOperation() override;

  // The operation's class name, as the log lines show it ("FeedSyncOperation").
  virtual std::string_view className() const = 0;

  // Also stops the requests under way (the operation's own service client's and the subclass's),
  // so that a blocked request ends now. Any thread.
  void cancel() override;

  // The main context's account. Main thread only.
  const std::shared_ptr<Account>& originalAccount() const { return originalAccount_; }
  ObjectId accountID() const { return accountID_; }
  const std::string& accountTitle() const { return accountTitle_; }
  ServiceType serviceType() const { return serviceType_; }

  // Set by the subclass when the sync failed; becomes the account's syncError. Thread-safe.
  std::optional<Error> error() const;
  // Feeds that failed without failing the sync (the built-in reader's). Thread-safe.
  virtual std::vector<FeedRefreshFailure> feedErrors() const { return {}; }
  // Feeds whose first refresh kept nothing, every entry being older than the keep period.
  virtual std::vector<FeedEntriesNotKept> feedsWithOlderEntriesNotKept() const { return {}; }

  // Set by the manager before the operation is queued.
  bool isForced() const { return isForced_; }
  void setIsForced(bool forced) { isForced_ = forced; }
  void setAppControllerDelegate(SyncAppControllerDelegate* delegate) { appControllerDelegate_ = delegate; }
  void setMainWindowControllerDelegate(SyncWindowControllerDelegate* delegate) {
    mainWindowControllerDelegate_ = delegate;
  }
  void setNotificationCenter(QKSyncNotificationCenter* center) { notificationCenter_ = center; }

  // Which key of a server's item holds its id, for findAndDeleteDuplicatesInContainer.
  using UniqueId = std::function<std::optional<std::string>(const Bookmark&)>;
  static std::optional<std::string> bookmarkIdOf(const Bookmark& bookmark);

  // What findExistingBookmarksForIds found: the stored items among the ids, and the ids not
  // stored yet (in the order given, each once), which the caller downloads.
  struct ExistingBookmarks {
    std::vector<std::shared_ptr<Bookmark>> existing;
    std::vector<std::string> missing;
  };

 protected:
  // A subclass overrides `main` and ends every path through it with `completeOperation`: the
  // operation is finished only then. Between steps it asks `checkIsCancelled`.
  bool isAsynchronous() const override { return true; }
  // A `main` that returned without completing is a programming error: the base logs it, makes it
  // the operation's error and completes, so the pass never waits for it.
  void mainDidReturn() override;

  // Names the current thread (the sync queue's threads are anonymous otherwise).
  void nameCurrentThread(std::string_view name);

  // Opens the operation's context and brings the account into it. False (logged) when either
  // fails; the operation then completes with no error recorded.
  bool setupManagedObjectContext();
  // True when the operation was cancelled; the account's requests are stopped too.
  bool checkIsCancelled();
  // Saves the operation's context when it has changes, then the main context, and tells the
  // application controller (syncOperationDidUpdateAccount). Failures are logged, never fatal.
  void saveContext();
  // The final save (as saveContext, telling syncOperationDidCompletedForAccount), the context
  // closed, the operation finished. Call it once, last, on the operation's thread.
  void completeOperation();

  // Replays the account's offline queue (read, unread, star, unstar, delete) through the account's
  // service, waiting for each call and stopping when cancelled. Failures are logged; what could
  // not be sent stays queued for the next sync.
  void processOfflineOperations();

  // Downloads the article text of each bookmark, unless cancelled on the way.
  void downloadArticles(const std::vector<std::shared_ptr<Bookmark>>& bookmarks);
  // The readable text of the bookmark's page as its HTML. Failures are logged and change nothing.
  virtual void downloadArticle(Bookmark& bookmark);

  // `ids` is an array of id strings or of objects holding the id at `idKey` (numbers become
  // strings). Stored items are matched on the column `idKey` names ("bookmark_id", or
  // "bookmark_hash" for a service that identifies items by hash); among them, those that are
  // not unread become unread (`isUnread`) and those not starred become starred (`isFavorited`).
  Result<ExistingBookmarks> findExistingBookmarksForIds(const nlohmann::json& ids, bool isUnread,
                                                        bool isFavorited, std::string_view idKey);
  // Keeps the first item of each value of `uniqueId` and deletes the rest from the context.
  // Answers the items kept, in order.
  std::vector<std::shared_ptr<Bookmark>> findAndDeleteDuplicatesInContainer(
      const std::vector<std::shared_ptr<Bookmark>>& container, const UniqueId& uniqueId);

  // Stops requests of the subclass that are under way; called by cancel and checkIsCancelled,
  // from any thread.
  virtual void cancelRequests() {}
  // The account's service object in the operation's context, whose client the operation uses.
  // Kept so that `cancel` can stop its requests from any thread.
  std::shared_ptr<AccountService> service() const;

  void setError(Error error);
  // The operation's context and its account: valid between setupManagedObjectContext and
  // completeOperation, on the operation's thread.
  ObjectContext& moc() { return *moc_; }
  Account& account() { return *account_; }
  bool hasContext() const { return moc_ != nullptr; }
  const SyncEnvironment& environment() const { return environment_; }
  SyncWindowControllerDelegate* mainWindowControllerDelegate() const { return mainWindowControllerDelegate_; }
  QKSyncNotificationCenter* notificationCenter() const { return notificationCenter_; }
  // The account's first sync: it was never synced, or the front end marked it new.
  bool isInitialSync() const { return initialSync_; }

 private:
  enum class ParentSave { kUpdate, kCompletion };
  void saveOwnContext();
  // Saves the main context and tells the application controller, on the main queue (waiting).
  void saveParent(ParentSave which);

  void cancelServiceRequests();

  const SyncEnvironment environment_;
  std::shared_ptr<Account> originalAccount_;  // main thread only (and released there)
  const ObjectId accountID_;
  const std::string accountTitle_;
  const ServiceType serviceType_;
  const bool initialSync_;
  bool isForced_ = false;
  SyncAppControllerDelegate* appControllerDelegate_ = nullptr;
  SyncWindowControllerDelegate* mainWindowControllerDelegate_ = nullptr;
  QKSyncNotificationCenter* notificationCenter_ = nullptr;

  // The operation's thread only.
  std::unique_ptr<ObjectContext> moc_;
  std::shared_ptr<Account> account_;
  bool completed_ = false;

  mutable std::mutex errorMutex_;  // guards error_
  std::optional<Error> error_;
  mutable std::mutex serviceMutex_;  // guards service_
  std::shared_ptr<AccountService> service_;
};

}  // namespace lectern
