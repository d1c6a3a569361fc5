#pragma once

#include <memory>
#include <mutex>

#include "core/Paths.h"
#include "store/AccountService.h"

namespace lectern {

class Clock;
class MainQueue;
class Reachability;
class SecretStore;
class UserDefaults;

// What entity behaviour needs from the program (folders, preferences, main queue, clock, reachability,
// keychain, service factory). Owned by the data manager, shared by its contexts; thread-safe.
class StoreEnvironment {
 public:
  StoreEnvironment(Paths paths, UserDefaults& defaults, MainQueue& mainQueue, const Clock& clock,
                   Reachability& reachability, SecretStore* secretStore);

  const Paths& paths() const { return paths_; }
  UserDefaults& defaults() const { return defaults_; }
  MainQueue& mainQueue() const { return mainQueue_; }
  const Clock& clock() const { return clock_; }
  Reachability& reachability() const { return reachability_; }
  SecretStore* secretStore() const { return secretStore_; }

  void setServiceFactory(AccountServiceFactory factory);
  std::shared_ptr<AccountService> makeService(Account& account) const;

 private:
  const Paths paths_;
  UserDefaults& defaults_;
  MainQueue& mainQueue_;
  const Clock& clock_;
  Reachability& reachability_;
  SecretStore* const secretStore_;
  mutable std::mutex mutex_;  // guards factory_
  AccountServiceFactory factory_;
};

}  // namespace lectern
