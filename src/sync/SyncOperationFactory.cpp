#include "sync/SyncOperationFactory.h"

#include <fmt/format.h>

#include "services/feedbin/FeedbinSyncOperation.h"
#include "services/feedly/FeedlySyncOperation.h"
#include "services/feedwrangler/FeedWranglerSyncOperation.h"
#include "services/fever/FeverSyncOperation.h"
#include "services/instapaper/InstapaperSyncOperation.h"
#include "services/localrss/FeedSyncOperation.h"
#include "services/newsblur/NewsBlurSyncOperation.h"
#include "services/pinboard/PinboardSyncOperation.h"
#include "services/pocket/PocketSyncOperation.h"
#include "store/Account.h"

namespace lectern {

std::shared_ptr<SyncOperation> SyncOperationFactory::createSyncOperationForAccount(
    std::shared_ptr<Account> account, const SyncEnvironment& environment) {
  if (!account) return nullptr;
  switch (account->serviceType()) {
    case ServiceType::kLocalRSS:
      return std::make_shared<FeedSyncOperation>(std::move(account), environment);
    case ServiceType::kFeedbin:
      return std::make_shared<FeedbinSyncOperation>(std::move(account), environment);
    case ServiceType::kFeedWrangler:
      return std::make_shared<FeedWranglerSyncOperation>(std::move(account), environment);
    case ServiceType::kFever:
      return std::make_shared<FeverSyncOperation>(std::move(account), environment);
    case ServiceType::kFeedly:
      return std::make_shared<FeedlySyncOperation>(std::move(account), environment);
    case ServiceType::kNewsBlur:
      return std::make_shared<NewsBlurSyncOperation>(std::move(account), environment);
    case ServiceType::kInstapaper:
      return std::make_shared<InstapaperSyncOperation>(std::move(account), environment);
    case ServiceType::kPinboard:
      return std::make_shared<PinboardSyncOperation>(std::move(account), environment);
    case ServiceType::kPocket:
      return std::make_shared<PocketSyncOperation>(std::move(account), environment);
    default:
      return nullptr;
  }
}

SyncOperationFactory::Support SyncOperationFactory::syncSupport(ServiceType type) {
  switch (type) {
    case ServiceType::kLocalRSS:
    case ServiceType::kFeedbin:
    case ServiceType::kFever:
    case ServiceType::kFeedWrangler:
    case ServiceType::kFeedly:
    case ServiceType::kNewsBlur:
    case ServiceType::kPocket:
    case ServiceType::kInstapaper:
    case ServiceType::kPinboard:
      return Support::kSupported;
    default:
      return Support::kNever;
  }
}


}  // namespace lectern
