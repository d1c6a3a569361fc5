#include "sync/QKSyncManager.h"

#include <fmt/format.h>

#include <algorithm>

#include "core/Dates.h"
#include "core/Log.h"
#include "core/Reachability.h"
#include "core/UserDefaults.h"
#include "store/Account.h"
#include "store/ObjectContext.h"
#include "store/QKDataManager.h"
#include "store/SmartFolder.h"
#include "sync/SmartFolderRearranging.h"
#include "sync/SyncOperation.h"
#include "sync/SyncOperationFactory.h"
#include "sync/SyncPassObserver.h"
#include "sync/SyncWindowControllerDelegate.h"

namespace lectern {
namespace {

constexpr std::string_view kCategory = "QKSyncManager";

int widthForIndex(std::int64_t index) {
  switch (index) {
    case 1:
      return 2;
    case 2:
      return 5;
    default:
      return 1;
  }
}

std::string titleOf(const Account& account) { return account.title().value_or(account.uniqueIdentifier()); }

}  // namespace

QKSyncManager::QKSyncManager(const SyncEnvironment& environment, UserNotificationPresenter* presenter)
    : environment_(environment),
      notifications_(environment.defaults, presenter != nullptr ? presenter : &logPresenter_),
      syncNotifications_(notifications_),
      syncQueue_(std::string(kSyncQueueName), 1) {
  setupConcurrentOperationCount();
  // The observer may run on any thread; the queue's width is thread-safe.
  defaultsObserver_ = environment_.defaults.addObserver(
      kConcurrentSyncOperationsIndex, [this](std::string_view) { setupConcurrentOperationCount(); });
}

QKSyncManager::~QKSyncManager() {
  stopTimer();
  environment_.defaults.removeObserver(defaultsObserver_);
  cancelAllSyncOperations();
  // Each operation completes on the main queue, so the main queue has to run until they have.
  while (syncQueue_.operationCount() > 0) {
    if (environment_.mainQueue.isMainThread()) {
      environment_.mainQueue.runUntil([this] { return syncQueue_.operationCount() == 0; },
                                      std::chrono::milliseconds(50));
    } else {
      syncQueue_.waitUntilAllOperationsAreFinished();
    }
  }
  alive_.reset();
}

void QKSyncManager::setNotificationPresenter(UserNotificationPresenter* presenter) {
  notifications_.setPresenter(presenter != nullptr ? presenter : &logPresenter_);
}

void QKSyncManager::setupConcurrentOperationCount() {
  syncQueue_.setMaxConcurrentOperationCount(
      widthForIndex(environment_.defaults.integerForKey(kConcurrentSyncOperationsIndex)));
}

void QKSyncManager::startTimer() {
  timer_ = std::make_unique<RepeatingTimer>(environment_.mainQueue, kSyncTimerInterval, kSyncTimerTolerance,
                                            [this] { syncTimerExpired(); });
  logDebugMessage(kCategory, "Next sync: {}", rfc3339String(timer_->fireDate()));
}

void QKSyncManager::stopTimer() { timer_.reset(); }

void QKSyncManager::syncTimerExpired() {
  logDebugMessage(kCategory, "Sync timer fired");
  auto context = environment_.dataManager.managedObjectContext();
  if (!context) return;
  auto accounts = Account::services(**context);
  if (!accounts) {
    logError(kCategory, "Failed to read the accounts: {}", accounts.error().message());
    return;
  }
  const Date now = environment_.clock.now();
  std::vector<std::shared_ptr<Account>> due;
  for (const auto& account : *accounts) {
    const auto next = account->nextSyncDate();
    if (next && *next <= now && !account->isSyncing()) due.push_back(account);
  }
  if (!due.empty()) syncAccounts(due);
}

size_t QKSyncManager::syncAccounts(const std::vector<std::shared_ptr<Account>>& accounts, bool forced) {
  if (!environment_.reachability.isReachable()) return 0;
  if (!isSyncing_) passReports_.clear();
  size_t queued = 0;
  for (const auto& account : accounts) {
    if (!account || account->isDeleted() || account->isSyncing()) continue;
    const ServiceType type = account->serviceType();
    switch (SyncOperationFactory::syncSupport(type)) {
      case SyncOperationFactory::Support::kNever:
        continue;
      case SyncOperationFactory::Support::kSupported:
        break;
    }
    auto operation = SyncOperationFactory::createSyncOperationForAccount(account, environment_);
    if (!operation) continue;

    account->setIsSyncing(true);
    logDebugMessage(kCategory, "Syncing account: {}", titleOf(*account));
    ++runningCount_;
    isSyncing_ = true;
    if (mainWindowControllerDelegate_ != nullptr) mainWindowControllerDelegate_->startSyncProgressIndicator();
    if (observer_ != nullptr) observer_->accountSyncStarted(*account);

    operation->setAppControllerDelegate(appControllerDelegate_);
    operation->setMainWindowControllerDelegate(mainWindowControllerDelegate_);
    operation->setNotificationCenter(&syncNotifications_);
    operation->setIsForced(forced);
    // The completion runs on the thread that finishes the operation; its work belongs on the main
    // queue, where the manager's state lives.
    std::weak_ptr<SyncOperation> weakOperation = operation;
    std::weak_ptr<bool> alive = alive_;
    operation->setCompletionBlock([this, weakOperation, alive] {
      environment_.mainQueue.runSync([&] {
        auto finished = weakOperation.lock();
        if (finished && !alive.expired()) operationFinished(*finished);
      });
    });
    running_.push_back(Running{operation, account});
    syncQueue_.addOperation(operation);
    ++queued;
  }
  // A pass that queued nothing ends at once, so the accounts refused above are still reported.
  if (queued == 0 && !isSyncing_ && !passReports_.empty()) {
    lastPassReports_ = std::move(passReports_);
    passReports_.clear();
    if (observer_ != nullptr) observer_->syncPassFinished(lastPassReports_);
  }
  return queued;
}

void QKSyncManager::reportFinished(Account& account, AccountSyncReport report) {
  passReports_.push_back(report);
  if (observer_ != nullptr) observer_->accountSyncFinished(account, passReports_.back());
}

void QKSyncManager::operationFinished(SyncOperation& operation) {
  auto found = std::find_if(running_.begin(), running_.end(),
                            [&](const Running& entry) { return entry.operation.get() == &operation; });
  if (found == running_.end()) {
    logError(kCategory, "syncOperation is nil");
    return;
  }
  const std::shared_ptr<Account> account = found->account;
  running_.erase(found);

  const std::optional<Error> error = operation.error();
  account->setSyncError(error);
  logDebugMessage(kCategory, "Did finished sync: {}", titleOf(*account));
  account->setIsSyncing(false);
  if (!error && !operation.isCancelled()) account->setIsInitialSync(false);
  reportFinished(*account,
                 AccountSyncReport{account->objectID(), titleOf(*account), error, operation.feedErrors(),
                                   operation.isCancelled(), operation.feedsWithOlderEntriesNotKept()});

  if (--runningCount_ == 0) {
    isSyncing_ = false;
    syncNotifications_.showNotifications();
    rearrangeSmartFoldersWithDatePredicate();
    lastPassReports_ = std::move(passReports_);
    passReports_.clear();
    if (observer_ != nullptr) observer_->syncPassFinished(lastPassReports_);
    if (catchesUpSearchIndex_ && !operation.isCancelled()) catchUpSearchIndex();
  }
  if (mainWindowControllerDelegate_ != nullptr) mainWindowControllerDelegate_->stopSyncProgressIndicator();

  const auto [first, last] = waiters_.equal_range(account->objectID().row);
  for (auto waiter = first; waiter != last; ++waiter) environment_.mainQueue.post(std::move(waiter->second));
  waiters_.erase(first, last);
}

bool QKSyncManager::waitUntilSyncFinished(MainQueue::Clock::duration timeout) {
  if (!isSyncing_) return true;
  return environment_.mainQueue.runUntil([this] { return !isSyncing_; }, timeout);
}

void QKSyncManager::cancelAllSyncOperations() { syncQueue_.cancelAllOperations(); }

void QKSyncManager::cancelAndWaitSyncOperationOfAccount(Account& account, std::function<void()> onComplete) {
  bool found = false;
  for (const auto& entry : running_) {
    if (!(entry.operation->accountID() == account.objectID())) continue;
    found = true;
    entry.operation->cancel();
  }
  if (!found) {
    if (onComplete) environment_.mainQueue.post(std::move(onComplete));
    return;
  }
  account.clearAllRequest();
  if (onComplete) waiters_.emplace(account.objectID().row, std::move(onComplete));
}

bool QKSyncManager::cancelAndWaitSyncOperationOfAccount(Account& account,
                                                        MainQueue::Clock::duration timeout) {
  auto done = std::make_shared<bool>(false);
  cancelAndWaitSyncOperationOfAccount(account, [done] { *done = true; });
  return environment_.mainQueue.runUntil([done] { return *done; }, timeout);
}

void QKSyncManager::rearrangeSmartFoldersWithDatePredicate() {
  if (rearranger_ == nullptr || !environment_.mainQueue.isMainThread()) return;
  auto context = environment_.dataManager.managedObjectContext();
  if (!context) return;
  auto smart = Account::smartFoldersAccount(**context);
  if (!smart || !*smart) return;
  auto folders = (*smart)->allFolders();
  if (!folders) return;
  for (const auto& folder : *folders) {
    if (folder->entity() == Entity::kSmartFolder)
      rearranger_->rearrangeIfHasDatePredicate(static_cast<SmartFolder&>(*folder));
  }
}

void QKSyncManager::catchUpSearchIndex() {
  if (catchUpScheduled_ || !environment_.mainQueue.isMainThread()) return;
  catchUpScheduled_ = true;
  environment_.mainQueue.post([this, alive = std::weak_ptr<bool>(alive_)] {
    if (alive.expired()) return;
    catchUpScheduled_ = false;
    // A pass that starts now stores more; its end takes the work up again.
    if (isSyncing_ || !catchesUpSearchIndex_) return;
    auto context = environment_.dataManager.managedObjectContext();
    if (!context) return;
    auto indexed = (*context)->indexStoriesAwaitingSearch(kSearchIndexBatch);
    if (!indexed) {
      logError(kCategory, "Failed to index new stories for search: {}", indexed.error().message());
      return;
    }
    if (*indexed == kSearchIndexBatch) catchUpSearchIndex();
  });
}

std::string olderEntriesNotKeptNote(std::int64_t count, std::int64_t keepDays) {
  return fmt::format(
      "{} older articles not kept (keep period {} {}; `lectern config set DaysKeepFeedReadItemsIndex …`)",
      count, keepDays, keepDays == 1 ? "day" : "days");
}

}  // namespace lectern
