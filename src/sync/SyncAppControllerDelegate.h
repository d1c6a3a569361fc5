#pragma once

namespace lectern {

class Account;

// What the application controller hears from sync operations: the account changed in the library.
// Called on the main thread with the main context's account.
class SyncAppControllerDelegate {
 public:
  virtual ~SyncAppControllerDelegate() = default;
  // After each intermediate save of an operation.
  virtual void syncOperationDidUpdateAccount(Account& account) = 0;
  // After the operation's final save.
  virtual void syncOperationDidCompletedForAccount(Account& account) = 0;
};

}  // namespace lectern
