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

namespace {

constexpr std::string_view kLogCategory = "LocalRSSService";

LocalRSSService& localService(Account& account) {
  auto service = serviceObjectOf<LocalRSSService>(account);
  if (!service) throw InternalInconsistency("The service factory is not registered");
  return *service;  // owned by the account, which the caller holds
}

// A folder made for a subscription that failed goes again, unless something else joined it.
void removeIfEmpty(Account& account, ObjectId folderId) {
  if (!account.hasContext() || account.isDeleted()) return;
  auto& context = account.managedObjectContext();
  auto folder = context.existingObject<FeedFolder>(folderId);
  if (!folder || !*folder) return;
  auto feeds = (*folder)->feeds();
  if (!feeds || !feeds->empty()) return;
  context.deleteObject(**folder);
  if (auto saved = context.save(); !saved) {
    logError(kLogCategory, "Failed to remove the folder {}: {}", (*folder)->title().value_or(""),
             saved.error().message());
  }
}

}  // namespace

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
  MainQueue& mainQueue = mainContext.environment().mainQueue();
  auto failLater = [&](Error error) {
    if (onCompleted) mainQueue.post([onCompleted, error = std::move(error)] { onCompleted(fail(error)); });
  };
  auto account = ensureLocalRSSAccount(mainContext);
  if (!account) return failLater(LocalRSSService::addSubscriptionError(account.error().message()));
  LocalRSSService& service = localService(**account);

  std::shared_ptr<FeedFolder> folder;
  std::optional<ObjectId> createdFolder;
  if (folderTitle && !trim(*folderTitle).empty()) {
    auto found = service.createOrRenameLocalFolder(nullptr, trim(*folderTitle));
    if (!found) return failLater(LocalRSSService::addSubscriptionError(found.error().message()));
    folder = *found;
    if (folder->isInserted()) {
      createdFolder = folder->objectID();
      if (auto saved = mainContext.save(); !saved) {
        return failLater(LocalRSSService::addSubscriptionError(saved.error().message()));
      }
    }
  }
  // The completion runs on the main queue and holds the account object (and so its service) until then.
  service.addFeedWithUrl(std::move(url), folder.get(),
                         [owner = *account, createdFolder, onCompleted](Result<std::shared_ptr<Feed>> added) {
                           if (!added && createdFolder) removeIfEmpty(*owner, *createdFolder);
                           if (onCompleted) onCompleted(std::move(added));
                         });
}

void unsubscribeFromFeed(ObjectContext& mainContext, std::int64_t feedId, ServiceCompletion onCompleted) {
  MainQueue& mainQueue = mainContext.environment().mainQueue();
  auto failLater = [&](Error error) {
    if (onCompleted) mainQueue.post([onCompleted, error = std::move(error)] { onCompleted(error); });
  };
  auto account = Account::localRSSAccount(mainContext);
  if (!account) {
    return failLater(Error::make(kAccountErrorDomain, kStoreFailed, "Failed to delete subscription",
                                 account.error().message()));
  }
  std::shared_ptr<Feed> feed;
  if (*account) {
    auto found = mainContext.existingObject<Feed>(ObjectId{Entity::kFeed, feedId});
    if (!found) {
      return failLater(Error::make(kAccountErrorDomain, kStoreFailed, "Failed to delete subscription",
                                   found.error().message()));
    }
    if (*found && (*found)->accountID() == (*account)->objectID()) feed = *found;
  }
  if (!feed) {
    return failLater(Error::make(kAccountErrorDomain, kNoSuchFeed, "Failed to delete subscription",
                                 fmt::format("The built-in reader has no feed {}.", feedId)));
  }
  localService(**account).deleteFeed(*feed, std::move(onCompleted));
}

}  // namespace lectern
