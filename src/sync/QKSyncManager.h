#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "core/MainQueue.h"
#include "core/OperationQueue.h"
#include "store/EntitySchema.h"
#include "sync/AccountSyncReport.h"
#include "sync/QKNotificationCenter.h"
#include "sync/QKSyncNotificationCenter.h"
#include "sync/SyncEnvironment.h"
#include "sync/UserNotificationPresenter.h"

namespace lectern {

class Account;
class SmartFolderRearranging;
class SyncAppControllerDelegate;
class SyncOperation;
class SyncPassObserver;
class SyncWindowControllerDelegate;

// Decides when accounts sync, runs one operation per account on the sync queue, finishes passes.
// Owned by the application controller; main thread only, whose loop must run while a pass does.
class QKSyncManager {
 public:
  static constexpr std::string_view kSyncQueueName = "com.quillhq.Lectern.SyncOperationQueue";
  static constexpr std::chrono::seconds kSyncTimerInterval{120};
  static constexpr std::chrono::seconds kSyncTimerTolerance{30};

  // `presenter` shows the notifications collected during a pass; nothing: the log.
  explicit QKSyncManager(const SyncEnvironment& environment, UserNotificationPresenter* presenter = nullptr);
  // Cancels running operations and waits for them, running the main queue meanwhile.
  ~QKSyncManager();
  QKSyncManager(const QKSyncManager&) = delete;
  QKSyncManager& operator=(const QKSyncManager&) = delete;

  // Delegates and hooks, all optional; each must outlive the manager or be reset first.
  void setAppControllerDelegate(SyncAppControllerDelegate* delegate) { appControllerDelegate_ = delegate; }
  void setMainWindowControllerDelegate(SyncWindowControllerDelegate* delegate) {
    mainWindowControllerDelegate_ = delegate;
  }
  void setSyncPassObserver(SyncPassObserver* observer) { observer_ = observer; }
  void setSmartFolderRearranger(SmartFolderRearranging* rearranger) { rearranger_ = rearranger; }
  void setNotificationPresenter(UserNotificationPresenter* presenter);

  // The queue's width from "ConcurrentSyncOperationsIndex": 1 gives 2, 2 gives 5, else 1. Runs at
  // construction and whenever the preference changes.
  void setupConcurrentOperationCount();
  int concurrentOperationCount() const { return syncQueue_.maxConcurrentOperationCount(); }
  const OperationQueue& syncQueue() const { return syncQueue_; }

  // The repeating timer (120 s, tolerance 30 s) that syncs due accounts. Logs "Next sync: ...".
  void startTimer();
  void stopTimer();
  // Syncs every account whose next sync date has come and that is not syncing.
  void syncTimerExpired();

  // Starts a pass over `accounts` (main-context objects) unless the network is unreachable.
  // Accounts already syncing or deleted are skipped; smart folders and retired kinds never sync;
  // a kind whose operation this version lacks gets that error as its syncError at once.
  // `forced` asks the operations for a full sync. Answers how many operations were queued.
  size_t syncAccounts(const std::vector<std::shared_ptr<Account>>& accounts, bool forced = false);
  // A pass is running (set by the first queued operation, cleared by the last one's completion).
  bool isSyncing() const { return isSyncing_; }
  // Runs the main queue until the pass ends or `timeout` passes; true when it ended.
  bool waitUntilSyncFinished(MainQueue::Clock::duration timeout = MainQueue::Clock::duration::max());
  // The reports of the last finished pass, in the order the accounts ended.
  const std::vector<AccountSyncReport>& lastPassReports() const { return lastPassReports_; }

  // Cancels every queued and running operation; each still completes and clears its account.
  void cancelAllSyncOperations();
  // Cancels the account's operation and calls `onComplete` on the main queue once it has
  // completed (at once when none runs). Used before an account is deleted.
  void cancelAndWaitSyncOperationOfAccount(Account& account, std::function<void()> onComplete);
  // The same, returning once the operation has completed (running the main queue meanwhile):
  // what deleting an account needs. False when it had not completed within `timeout`.
  bool cancelAndWaitSyncOperationOfAccount(Account& account,
                                           MainQueue::Clock::duration timeout = std::chrono::seconds(60));

  // Every smart folder of the smart-folders account re-runs a date condition it has.
  void rearrangeSmartFoldersWithDatePredicate();

  // Syncs store stories without indexing them for search (a first sync can bring thousands).
  // A long-running front end turns this on: after each pass the stories awaiting the index are
  // indexed on the main queue, kSearchIndexBatch at a time between other work, until none is left
  // or a pass starts. A one-shot command leaves them to the next search or the next front end.
  static constexpr std::int64_t kSearchIndexBatch = 200;
  void setCatchesUpSearchIndex(bool catchesUp) { catchesUpSearchIndex_ = catchesUp; }

  QKSyncNotificationCenter& syncNotificationCenter() { return syncNotifications_; }
  QKNotificationCenter& notificationCenter() { return notifications_; }

 private:
  struct Running {
    std::shared_ptr<SyncOperation> operation;
    std::shared_ptr<Account> account;
  };
  // The completion work of one operation, on the main queue.
  void operationFinished(SyncOperation& operation);
  void reportFinished(Account& account, AccountSyncReport report);
  void catchUpSearchIndex();

  const SyncEnvironment environment_;
  LogNotificationPresenter logPresenter_;
  QKNotificationCenter notifications_;
  QKSyncNotificationCenter syncNotifications_;
  SyncAppControllerDelegate* appControllerDelegate_ = nullptr;
  SyncWindowControllerDelegate* mainWindowControllerDelegate_ = nullptr;
  SyncPassObserver* observer_ = nullptr;
  SmartFolderRearranging* rearranger_ = nullptr;
  std::unique_ptr<RepeatingTimer> timer_;
  int defaultsObserver_ = 0;
  bool catchesUpSearchIndex_ = false;
  bool catchUpScheduled_ = false;

  // Main thread only.
  bool isSyncing_ = false;
  int runningCount_ = 0;  // operations of the current pass not yet completed
  std::vector<Running> running_;
  std::multimap<std::int64_t, std::function<void()>> waiters_;  // by account row
  std::vector<AccountSyncReport> passReports_;
  std::vector<AccountSyncReport> lastPassReports_;

  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);  // posted work checks it first
  OperationQueue syncQueue_;  // last: it is emptied before the members above go
};

}  // namespace lectern
