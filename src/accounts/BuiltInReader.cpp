#include "accounts/BuiltInReader.h"

#include <fmt/format.h>

#include "accounts/AccountCommands.h"
#include "accounts/AccountErrors.h"
#include "accounts/ServiceFactory.h"
#include "core/Log.h"
#include "core/MainQueue.h"
#include "core/Strings.h"
#include "services/localrss/LocalRSSService.h"
#include "store/Account.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/ObjectContext.h"
#include "store/StoreEnvironment.h"

namespace lectern {

Result<std::shared_ptr<Account>> ensureLocalRSSAccount(ObjectContext& mainContext) {
  auto found = Account::localRSSAccount(mainContext);
  if (!found)
    return fail(kAccountErrorDomain, kStoreFailed, "Failed to find the built-in reader",
                found.error().message());
  if (*found) return *found;
  NewAccount request;
  request.service = std::string(kLocalRSSServiceName);
  request.title = std::string(kBuiltInReaderTitle);
  return createAccount(mainContext, request);
}

void subscribeToFeed(ObjectContext& mainContext, std::string url, std::optional<std::string> folderTitle,
                     FeedService::FeedCompletion onCompleted) {
  auto account = ensureLocalRSSAccount(mainContext);
  if (!account) {
    auto error = LocalRSSService::addSubscriptionError(account.error().message());
    if (onCompleted) mainContext.environment().mainQueue().post([onCompleted, error] { onCompleted(fail(error)); });
    return;
  }
  subscribeAccountToFeed(mainContext, **account, std::move(url), std::move(folderTitle), std::move(onCompleted));
}

}  // namespace lectern
