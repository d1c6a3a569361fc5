#include "store/StoreEnvironment.h"

namespace lectern {

StoreEnvironment::StoreEnvironment(Paths paths, UserDefaults& defaults, MainQueue& mainQueue,
                                   const Clock& clock, Reachability& reachability, SecretStore* secretStore)
    : paths_(std::move(paths)),
      defaults_(defaults),
      mainQueue_(mainQueue),
      clock_(clock),
      reachability_(reachability),
      secretStore_(secretStore),
      factory_(defaultAccountServiceFactory(mainQueue)) {}

void StoreEnvironment::setServiceFactory(AccountServiceFactory factory) {
  std::lock_guard lock(mutex_);
  factory_ = std::move(factory);
}

std::shared_ptr<AccountService> StoreEnvironment::makeService(Account& account) const {
  AccountServiceFactory factory;
  {
    std::lock_guard lock(mutex_);
    factory = factory_;
  }
  return factory ? factory(account) : nullptr;
}

}  // namespace lectern
