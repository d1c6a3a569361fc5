#pragma once

#include <memory>

#include "core/Error.h"
#include "store/ServiceIdentifiers.h"
#include "sync/SyncEnvironment.h"

namespace lectern {

class Account;
class SyncOperation;

// Makes the sync operation of an account by its service type. Stateless.
class SyncOperationFactory {
 public:
  enum class Support {
    kSupported,  // an operation exists
    kNever,      // the smart-folders account, retired and unknown kinds
  };

  // On the main thread, with the main context's account. nullptr when the type has no operation.
  static std::shared_ptr<SyncOperation> createSyncOperationForAccount(std::shared_ptr<Account> account,
                                                                      const SyncEnvironment& environment);
  static Support syncSupport(ServiceType type);
};

}  // namespace lectern
