#pragma once

#include <vector>

#include "sync/AccountSyncReport.h"

namespace lectern {

class Account;

// Hears a sync pass account by account (the `lectern sync` command, a window's progress).
// Called on the main thread with the main context's accounts.
class SyncPassObserver {
 public:
  virtual ~SyncPassObserver() = default;
  virtual void accountSyncStarted(Account& account) { (void)account; }
  // Also for an account that could not start (its kind cannot be synced in this version).
  virtual void accountSyncFinished(Account& account, const AccountSyncReport& report) {
    (void)account, (void)report;
  }
  // After the last operation of the pass, with every account's report in the order they ended.
  virtual void syncPassFinished(const std::vector<AccountSyncReport>& reports) { (void)reports; }
};

}  // namespace lectern
