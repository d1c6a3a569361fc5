#include "app/QKApplicationController.h"

#include "accounts/AccountLifecycle.h"
#include "accounts/ServiceDependencies.h"
#include "accounts/ServiceFactory.h"
#include "core/Log.h"
#include "core/MainQueue.h"
#include "core/Reachability.h"
#include "core/UserDefaults.h"
#include "store/Account.h"
#include "store/ObjectContext.h"
#include "store/QKDataManager.h"
#include "sync/SyncWindowControllerDelegate.h"

namespace lectern {
namespace {

constexpr std::string_view kCategory = "QKApplicationController";

}  // namespace

QKApplicationController::QKApplicationController(const SyncEnvironment& environment, Options options)
    : environment_(environment), options_(options), syncManager_(environment, options.presenter) {
  syncManager_.setAppControllerDelegate(this);
  // Observers may be told on any thread; the work belongs on the main queue.
  std::weak_ptr<bool> alive = alive_;
  reachabilityObserver_ = environment_.reachability.addObserver([this, alive](ReachabilityStatus) {
    environment_.mainQueue.post([this, alive] {
      if (!alive.expired()) reachabilityChanged();
    });
  });
}

QKApplicationController::~QKApplicationController() {
  environment_.reachability.removeObserver(reachabilityObserver_);
  cancelScheduled();
  alive_.reset();
}

Result<void> QKApplicationController::setupApp() {
  auto& dataManager = environment_.dataManager;
  // Accounts get their real service objects (smart folders, the built-in reader's subscriptions).
  registerServiceFactory(
      dataManager, ServiceDependencies{environment_.mainQueue, environment_.clock, &environment_.session});
  if (dataManager.isMigrationNeeded()) {
    if (auto migrated = dataManager.migrate(nullptr); !migrated) return migrated;
  }
  auto context = dataManager.managedObjectContext();
  if (!context) return fail(context.error());
  if (auto folders = dataManager.environment().paths().createSupportFolders(); !folders) return folders;
  if (auto smart = ensureSmartFoldersAccount(**context); !smart) return fail(smart.error());
  registerLecternDefaults(environment_.defaults);
  // Folders with a date rule are re-run after each sync pass.
  smartFolders_ = std::make_unique<QKSmartFolderContents>(**context, environment_.clock, environment_.defaults);
  syncManager_.setSmartFolderRearranger(smartFolders_.get());
  if (auto removed = deleteObsoleteServices(**context); !removed) return fail(removed.error());
  return migrateAccountPreferences(**context);
}

void QKApplicationController::startScheduling() {
  std::weak_ptr<bool> alive = alive_;
  auto& mainQueue = environment_.mainQueue;
  scheduled_.push_back(mainQueue.postAfter(options_.reachabilityDelay, [this, alive] {
    if (!alive.expired()) reachabilityChanged();
  }));
  scheduled_.push_back(mainQueue.postAfter(options_.syncOnStartDelay, [this, alive] {
    if (alive.expired()) return;
    syncOnStart();
    syncManager_.startTimer();
  }));
}

void QKApplicationController::syncOnStart() {
  auto context = environment_.dataManager.managedObjectContext();
  if (!context) return;
  auto accounts = Account::services(**context);
  if (!accounts) {
    logError(kCategory, "Failed to read the accounts: {}", accounts.error().message());
    return;
  }
  std::vector<std::shared_ptr<Account>> onStart;
  for (const auto& account : *accounts) {
    if (account->preferences().boolForKey("syncOnStart")) onStart.push_back(account);
  }
  if (!onStart.empty()) syncManager_.syncAccounts(onStart);
}

void QKApplicationController::cancelScheduled() {
  for (const auto id : scheduled_) environment_.mainQueue.cancelScheduled(id);
  scheduled_.clear();
}

void QKApplicationController::shutdown() {
  cancelScheduled();
  syncManager_.stopTimer();
  syncManager_.cancelAllSyncOperations();
  syncManager_.waitUntilSyncFinished();
  environment_.dataManager.save();
}

void QKApplicationController::reachabilityChanged() {
  if (mainWindowController_ != nullptr) mainWindowController_->networkStatusDidChanged();
  if (environment_.reachability.isReachable()) {
    logDebugMessage(kCategory, "*** Network status changed: reachable (periodic sync needed)");
    if (mainWindowController_ != nullptr) mainWindowController_->setSyncEnabled(true);
    return;
  }
  logDebugMessage(kCategory, "*** Network status changed: NOT reachable");
  if (syncManager_.isSyncing()) syncManager_.cancelAllSyncOperations();
  if (mainWindowController_ != nullptr) mainWindowController_->setSyncEnabled(false);
}

void QKApplicationController::computerWillSleep() {
  logDebugMessage(kCategory, "*** Computer will sleep, disable periodic update");
  if (syncManager_.isSyncing()) syncManager_.cancelAllSyncOperations();
}

void QKApplicationController::computerDidWake() {
  // The timer picks up the accounts that fell due during the sleep at its next tick.
  logDebugMessage(kCategory, "*** Computer wake up from sleep");
}

size_t QKApplicationController::startSync(bool forced) {
  auto context = environment_.dataManager.managedObjectContext();
  if (!context) return 0;
  auto accounts = Account::services(**context);
  if (!accounts) {
    logError(kCategory, "Failed to read the accounts: {}", accounts.error().message());
    return 0;
  }
  return syncManager_.syncAccounts(*accounts, forced);
}

size_t QKApplicationController::syncAccount(const std::shared_ptr<Account>& account, bool forced) {
  return syncManager_.syncAccounts({account}, forced);
}

void QKApplicationController::setMainWindowController(SyncWindowControllerDelegate* controller) {
  mainWindowController_ = controller;
  syncManager_.setMainWindowControllerDelegate(controller);
}

void QKApplicationController::syncOperationDidUpdateAccount(Account& account) {
  if (accountObserver_ != nullptr) accountObserver_->syncOperationDidUpdateAccount(account);
}

void QKApplicationController::syncOperationDidCompletedForAccount(Account& account) {
  if (accountObserver_ != nullptr) accountObserver_->syncOperationDidCompletedForAccount(account);
}

}  // namespace lectern
