#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "core/Error.h"
#include "smart/library/QKSmartFolderContents.h"
#include "sync/QKSyncManager.h"
#include "sync/SyncAppControllerDelegate.h"
#include "sync/SyncEnvironment.h"

namespace lectern {

class Account;
class SyncWindowControllerDelegate;
class UserNotificationPresenter;

// Lectern's start-up, and the sync manager wired to the clock, reachability, sleep and shutdown.
// Owned by the program; main thread only, whose loop must run for the scheduled work to happen.
class QKApplicationController final : public SyncAppControllerDelegate {
 public:
  struct Options {
    std::chrono::milliseconds reachabilityDelay{1000};  // the first look at the network
    std::chrono::milliseconds syncOnStartDelay{3000};   // the start-up sync, then the timer
    UserNotificationPresenter* presenter = nullptr;     // nothing: notifications go to the log
  };

  QKApplicationController(const SyncEnvironment& environment, Options options);
  explicit QKApplicationController(const SyncEnvironment& environment)
      : QKApplicationController(environment, Options{}) {}
  ~QKApplicationController() override;
  QKApplicationController(const QKApplicationController&) = delete;
  QKApplicationController& operator=(const QKApplicationController&) = delete;

  // Registers the service factory, migrates the library when needed, opens the main context,
  // creates the support folders and the smart-folders account, registers the defaults, removes
  // accounts of retired services and gives older accounts their preferences. An error here means
  // the program cannot go on (the library cannot be opened or migrated).
  Result<void> setupApp();
  // After 1 s reachability is looked at once; after 3 s every account whose "syncOnStart" is on
  // syncs and the periodic timer starts. Call once, after setupApp.
  void startScheduling();
  // Cancels running syncs and waits for them (running the main queue), then saves the library.
  void shutdown();

  // Reachability changed (or is looked at): a lost network cancels a running pass.
  void reachabilityChanged();
  void computerWillSleep();
  void computerDidWake();

  // The Sync command: every account but the smart-folders one. Answers how many were queued.
  size_t startSync(bool forced = false);
  size_t syncAccount(const std::shared_ptr<Account>& account, bool forced = false);

  QKSyncManager& syncManager() { return syncManager_; }
  // What the smart folders hold, kept current; nullptr before setupApp.
  QKSmartFolderContents* smartFolders() { return smartFolders_.get(); }
  void setMainWindowController(SyncWindowControllerDelegate* controller);
  // The front end hears account updates through this (optional).
  void setAccountObserver(SyncAppControllerDelegate* observer) { accountObserver_ = observer; }

  void syncOperationDidUpdateAccount(Account& account) override;
  void syncOperationDidCompletedForAccount(Account& account) override;

 private:
  void syncOnStart();
  void cancelScheduled();

  const SyncEnvironment environment_;
  const Options options_;
  SyncWindowControllerDelegate* mainWindowController_ = nullptr;
  SyncAppControllerDelegate* accountObserver_ = nullptr;
  std::vector<std::uint64_t> scheduled_;
  int reachabilityObserver_ = 0;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);  // posted work checks it first
  // Before the sync manager, which points at it, so that it goes after it.
  std::unique_ptr<QKSmartFolderContents> smartFolders_;
  QKSyncManager syncManager_;
};

}  // namespace lectern
