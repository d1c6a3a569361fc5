#pragma once

#include <memory>

#include "accounts/ServiceBase.h"
#include "accounts/ServiceDependencies.h"
#include "store/Account.h"
#include "store/ServiceIdentifiers.h"

namespace lectern {

class QKDataManager;

// Builds an account's service object from its service type. Stateless.
class ServiceFactory {
 public:
  // A new service of the account's class. Throws InternalInconsistency "Invalid service type" for
  // a type without class (retired 3, 5 and 999, unknown -1).
  static std::shared_ptr<ServiceBase> serviceForAccount(Account& account,
                                                        const ServiceDependencies& dependencies);
  // The same for a given type (an account's type is never 3 or 5: those read back as 999).
  static std::shared_ptr<ServiceBase> serviceWithType(ServiceType type, Account& account,
                                                      const ServiceDependencies& dependencies);
  // The type has a service class.
  static bool hasServiceClass(ServiceType type);
};

// The account's service object as a ServiceBase (or one of its subclasses: FeedService,
// LocalRSSService ...); nullptr when it has none or is of another class. The account object owns
// it: keep the account while using the service.
template <class T = ServiceBase>
std::shared_ptr<T> serviceObjectOf(Account& account) {
  return std::dynamic_pointer_cast<T>(account.serviceObject());
}

// Makes the data manager build every account's service object with ServiceFactory. Called once by
// the program on the main thread, before the first account is used. Accounts of retired or unknown
// services get no service object (the store's contract), so that start-up can still delete them.
void registerServiceFactory(QKDataManager& dataManager, const ServiceDependencies& dependencies);

}  // namespace lectern
