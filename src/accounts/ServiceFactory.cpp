#include "accounts/ServiceFactory.h"

#include "core/Error.h"
#include "services/feedbin/FeedbinService.h"
#include "services/feedly/FeedlyService.h"
#include "services/feedwrangler/FeedWranglerService.h"
#include "services/fever/FeverService.h"
#include "services/instapaper/InstapaperService.h"
#include "services/localrss/LocalRSSService.h"
#include "services/newsblur/NewsBlurService.h"
#include "services/pinboard/PinboardService.h"
#include "services/pocket/PocketService.h"
#include "services/smartfolders/SmartFolderService.h"
#include "store/Account.h"
#include "store/QKDataManager.h"

namespace lectern {

std::shared_ptr<ServiceBase> ServiceFactory::serviceForAccount(Account& account,
                                                               const ServiceDependencies& dependencies) {
  return serviceWithType(account.serviceType(), account, dependencies);
}

std::shared_ptr<ServiceBase> ServiceFactory::serviceWithType(ServiceType type, Account& account,
                                                             const ServiceDependencies& dependencies) {
  switch (type) {
    case ServiceType::kSmartFolders:
      return std::make_shared<SmartFolderService>(account, dependencies);
    case ServiceType::kInstapaper:
      return std::make_shared<InstapaperService>(account, dependencies);
    case ServiceType::kPocket:
      return std::make_shared<PocketService>(account, dependencies);
    case ServiceType::kPinboard:
      return std::make_shared<PinboardService>(account, dependencies);
    case ServiceType::kNewsBlur:
      return std::make_shared<NewsBlurService>(account, dependencies);
    case ServiceType::kLocalRSS:
      return std::make_shared<LocalRSSService>(account, dependencies);
    case ServiceType::kFever:
      return std::make_shared<FeverService>(account, dependencies);
    case ServiceType::kFeedWrangler:
      return std::make_shared<FeedWranglerService>(account, dependencies);
    case ServiceType::kFeedbin:
      return std::make_shared<FeedbinService>(account, dependencies);
    case ServiceType::kFeedly:
      return std::make_shared<FeedlyService>(account, dependencies);
    case ServiceType::kUnknown:
    case ServiceType::kRetired3:
    case ServiceType::kRetired5:
    case ServiceType::kObsolete:
      break;
  }
  throw InternalInconsistency(std::string(kInvalidServiceType));
}

bool ServiceFactory::hasServiceClass(ServiceType type) { return isKnownService(type); }

void registerServiceFactory(QKDataManager& dataManager, const ServiceDependencies& dependencies) {
  dataManager.setServiceFactory([dependencies](Account& account) -> std::shared_ptr<AccountService> {
    if (!ServiceFactory::hasServiceClass(account.serviceType())) return nullptr;
    return ServiceFactory::serviceForAccount(account, dependencies);
  });
}

}  // namespace lectern
