#include "accounts/Subscriptions.h"

#include <charconv>

#include <fmt/format.h>

#include "accounts/AccountErrors.h"
#include "accounts/ServiceFactory.h"
#include "core/Log.h"
#include "core/MainQueue.h"
#include "core/Strings.h"
#include "feeds/FeedDiscovery.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/FeedStory.h"
#include "store/ObjectContext.h"
#include "store/StoreEnvironment.h"

namespace lectern {
namespace {

constexpr std::string_view kLogCategory = "Subscriptions";

Error subscriptionError(std::string_view reason) {
  return Error::make(kAccountErrorDomain, kAddSubscriptionFailed, "Failed to add subscription", reason);
}

// A folder made for a change that failed goes again, unless something else joined it.
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

// The account's FeedFolder titled `title` (none for no title), made and saved when missing; the
// second member is set when it was made here.
Result<std::pair<std::shared_ptr<FeedFolder>, std::optional<ObjectId>>> folderTitled(
    ObjectContext& context, FeedService& service, const std::optional<std::string>& title) {
  if (!title || trim(*title).empty())
    return std::pair<std::shared_ptr<FeedFolder>, std::optional<ObjectId>>{};
  auto found = service.createOrRenameLocalFolder(nullptr, trim(*title));
  if (!found) return fail(found.error());
  std::optional<ObjectId> made;
  if ((*found)->isInserted()) {
    made = (*found)->objectID();
    if (auto saved = context.save(); !saved) return fail(saved.error());
  }
  return std::pair{*found, made};
}

// The feed service's feed whose row is `feedId`, with its account.
struct FoundFeed {
  std::shared_ptr<Account> account;
  std::shared_ptr<FeedService> service;
  std::shared_ptr<Feed> feed;
};
Result<FoundFeed> findFeed(ObjectContext& context, std::int64_t feedId, std::string_view action) {
  auto found = context.existingObject<Feed>(ObjectId{Entity::kFeed, feedId});
  if (!found) return fail(kAccountErrorDomain, kStoreFailed, action, found.error().message());
  if (*found && !(*found)->isDeleted()) {
    auto account = (*found)->account();
    if (account && *account) {
      if (auto service = serviceObjectOf<FeedService>(**account)) return FoundFeed{*account, service, *found};
    }
  }
  return fail(kAccountErrorDomain, kNoSuchFeed, action,
              fmt::format("There is no feed {}; `lectern feeds` lists them.", feedId));
}

// The error of a change the account's service does not offer, or nothing when it does.
std::optional<Error> notOffered(const FeedService& service, FeedService::SubscriptionChange change,
                                std::string_view action) {
  if (service.offers(change)) return std::nullopt;
  return Error::make(kAccountErrorDomain, kChangeNotOffered,
                     fmt::format("{}: Failed to {}", service.descriptionName(), action),
                     service.changeNotOfferedReason(change));
}

}  // namespace

Result<std::shared_ptr<FeedFolder>> findFolderOfFeeds(ObjectContext& mainContext, std::string_view idOrTitle) {
  const std::string name = trim(idOrTitle);
  auto noSuchFolder = [&] {
    return fail(kAccountErrorDomain, kNoSuchFolder, "No such folder",
                fmt::format("There is no folder of feeds \"{}\"; `lectern folders` lists them.", name));
  };
  std::int64_t row = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), row);
  if (error == std::errc() && end == name.data() + name.size() && row > 0) {
    auto found = mainContext.existingObject<FeedFolder>(ObjectId{Entity::kFeedFolder, row});
    if (!found) return fail(kAccountErrorDomain, kStoreFailed, "No such folder", found.error().message());
    if (*found && !(*found)->isDeleted() && (*found)->entity() == Entity::kFeedFolder) return *found;
    // A folder may be called "2024": look for the title too.
  }
  auto reader = Account::localRSSAccount(mainContext);
  if (!reader) return fail(kAccountErrorDomain, kStoreFailed, "No such folder", reader.error().message());
  if (!*reader) return noSuchFolder();
  ObjectContext::FetchRequest request;
  request.where = "account = ? AND entity = 'FeedFolder' AND title = ?";
  request.arguments = {(*reader)->objectID().row, name};
  request.orderBy = "pos, id";
  auto found = mainContext.fetchFirst<FeedFolder>(std::move(request));
  if (!found) return fail(kAccountErrorDomain, kStoreFailed, "No such folder", found.error().message());
  if (!*found) return noSuchFolder();
  return *found;
}

Result<std::vector<std::shared_ptr<Feed>>> deleteFolderOfFeeds(FeedFolder& folder) {
  constexpr std::string_view kAction = "Failed to delete folder";
  auto account = folder.account();
  if (!account) return fail(kAccountErrorDomain, kStoreFailed, kAction, account.error().message());
  if (!*account || (*account)->serviceType() != ServiceType::kLocalRSS) {
    const std::string service = *account ? (*account)->title().value_or("The service") : "The service";
    return fail(kAccountErrorDomain, kChangeNotOffered, fmt::format("{}: {}", service, kAction),
                fmt::format("{} folders cannot be deleted from here yet: delete it at the service, then `lectern sync`.",
                            service));
  }
  auto feeds = folder.feeds();
  if (!feeds) return fail(kAccountErrorDomain, kStoreFailed, kAction, feeds.error().message());
  if (auto deleted = FeedFolder::deleteFolder(folder); !deleted) {
    return fail(kAccountErrorDomain, kStoreFailed, kAction, deleted.error().message());
  }
  std::vector<std::shared_ptr<Feed>> loose;
  for (const auto& feed : *feeds) {
    auto folders = feed->feedFolders();
    if (!folders) return fail(kAccountErrorDomain, kStoreFailed, kAction, folders.error().message());
    if (folders->empty()) loose.push_back(feed);
  }
  return loose;
}

Result<std::shared_ptr<Feed>> subscribedFeedWithURL(Account& account, std::string_view url) {
  const std::string wanted = comparableFeedAddress(url);
  if (wanted.empty()) return std::shared_ptr<Feed>();
  auto feeds = account.feeds();
  if (!feeds) return fail(feeds.error());
  for (const auto& feed : *feeds) {
    if (feed->isDeleted()) continue;
    for (const auto& address : {feed->feed_link(), feed->folder_id()}) {
      if (address && comparableFeedAddress(*address) == wanted) return feed;
    }
  }
  return std::shared_ptr<Feed>();
}

void subscribeAccountToFeed(ObjectContext& mainContext, Account& account, std::string url,
                            std::optional<std::string> folderTitle, FeedService::FeedCompletion onCompleted) {
  MainQueue& mainQueue = mainContext.environment().mainQueue();
  auto failLater = [&](Error error) {
    if (onCompleted) mainQueue.post([onCompleted, error = std::move(error)] { onCompleted(fail(error)); });
  };
  auto service = serviceObjectOf<FeedService>(account);
  if (!service) return failLater(subscriptionError("This account does not subscribe to feeds."));
  if (auto refused = notOffered(*service, FeedService::SubscriptionChange::kSubscribe, "add subscription")) {
    return failLater(*refused);
  }
  auto folder = folderTitled(mainContext, *service, folderTitle);
  if (!folder) return failLater(subscriptionError(folder.error().message()));
  // The completion runs on the main queue and holds the account object (and so its service) until then.
  service->addFeedWithUrl(std::move(url), folder->first.get(),
                          [owner = std::static_pointer_cast<Account>(account.shared_from_this()),
                           made = folder->second, onCompleted](Result<std::shared_ptr<Feed>> added) {
                            if (!added && made) removeIfEmpty(*owner, *made);
                            if (onCompleted) onCompleted(std::move(added));
                          });
}

void unsubscribeFromFeed(ObjectContext& mainContext, std::int64_t feedId, ServiceCompletion onCompleted) {
  auto found = findFeed(mainContext, feedId, "Failed to delete subscription");
  std::optional<Error> refused =
      found
          ? notOffered(*found->service, FeedService::SubscriptionChange::kUnsubscribe, "delete subscription")
          : std::optional<Error>(found.error());
  if (refused) {
    if (onCompleted) {
      mainContext.environment().mainQueue().post([onCompleted, error = *refused] { onCompleted(error); });
    }
    return;
  }
  found->service->deleteFeed(*found->feed, [owner = found->account, onCompleted](std::optional<Error> error) {
    if (onCompleted) onCompleted(std::move(error));
  });
}

void unsubscribeFromFeed(ObjectContext& mainContext, std::int64_t feedId, StarredArticles starred,
                         UnsubscribeCompletion onCompleted) {
  MainQueue& mainQueue = mainContext.environment().mainQueue();
  auto failLater = [&](Error error) {
    if (onCompleted) mainQueue.post([onCompleted, error = std::move(error)] { onCompleted(fail(error)); });
  };
  constexpr std::string_view kAction = "Failed to delete subscription";
  auto found = findFeed(mainContext, feedId, kAction);
  if (!found) return failLater(found.error());
  if (auto refused =
          notOffered(*found->service, FeedService::SubscriptionChange::kUnsubscribe, "delete subscription")) {
    return failLater(*refused);
  }
  auto stories = found->feed->stories();
  if (!stories) return failLater(Error::make(kAccountErrorDomain, kStoreFailed, kAction, stories.error().message()));
  std::vector<std::shared_ptr<Bookmark>> articles(stories->begin(), stories->end());
  auto kept = keepStarredArticles(mainContext, articles, starred);
  if (!kept) return failLater(Error::make(kAccountErrorDomain, kStoreFailed, kAction, kept.error().message()));
  // The service saves the deletion, and the kept copies with it.
  found->service->deleteFeed(
      *found->feed, [owner = found->account, &mainContext, kept = *kept, onCompleted](std::optional<Error> error) {
        if (error) discardKeptArticles(mainContext, kept);
        if (onCompleted) onCompleted(error ? Result<KeptArticles>(fail(*error)) : Result<KeptArticles>(kept));
      });
}

void renameFeed(ObjectContext& mainContext, std::int64_t feedId, std::string title, ServiceCompletion onCompleted) {
  MainQueue& mainQueue = mainContext.environment().mainQueue();
  auto finishLater = [&](std::optional<Error> error) {
    if (onCompleted) mainQueue.post([onCompleted, error = std::move(error)] { onCompleted(error); });
  };
  constexpr std::string_view kAction = "Failed to rename subscription";
  auto found = findFeed(mainContext, feedId, kAction);
  if (!found) return finishLater(found.error());
  if (found->account->serviceType() != ServiceType::kLocalRSS) {
    return finishLater(Error::make(
        kAccountErrorDomain, kChangeNotOffered, fmt::format("{}: {}", found->service->descriptionName(), kAction),
        fmt::format("{} feeds cannot be renamed from here yet: rename it at the service, then `lectern sync`.",
                    found->service->descriptionName())));
  }
  if (trim(title).empty()) {
    return finishLater(Error::make(kAccountErrorDomain, kInvalidFolderName, kAction, "A feed needs a title."));
  }
  found->feed->setTitle(trim(title));
  auto saved = mainContext.save();
  finishLater(saved ? std::nullopt
                    : std::optional<Error>(Error::make(kAccountErrorDomain, kStoreFailed, kAction,
                                                       saved.error().message())));
}

void moveFeedToFolder(ObjectContext& mainContext, std::int64_t feedId, std::optional<std::string> folderTitle,
                      ServiceCompletion onCompleted) {
  MainQueue& mainQueue = mainContext.environment().mainQueue();
  auto failLater = [&](Error error) {
    if (onCompleted) mainQueue.post([onCompleted, error = std::move(error)] { onCompleted(error); });
  };
  auto found = findFeed(mainContext, feedId, "Failed to move subscription");
  if (!found) return failLater(found.error());
  if (auto refused =
          notOffered(*found->service, FeedService::SubscriptionChange::kMoveFeed, "move subscription")) {
    return failLater(*refused);
  }
  auto folder = folderTitled(mainContext, *found->service, folderTitle);
  if (!folder) {
    return failLater(Error::make(kAccountErrorDomain, kStoreFailed, "Failed to move subscription",
                                 folder.error().message()));
  }
  found->service->moveFeed(
      *found->feed, folder->first.get(),
      [owner = found->account, made = folder->second, onCompleted](std::optional<Error> error) {
        if (error && made) removeIfEmpty(*owner, *made);
        if (onCompleted) onCompleted(std::move(error));
      });
}

void renameFolder(ObjectContext& mainContext, std::int64_t folderId, std::string title,
                  ServiceCompletion onCompleted) {
  MainQueue& mainQueue = mainContext.environment().mainQueue();
  auto failLater = [&](Error error) {
    if (onCompleted) mainQueue.post([onCompleted, error = std::move(error)] { onCompleted(error); });
  };
  constexpr std::string_view kAction = "Failed to rename folder";
  auto found = mainContext.existingObject<FeedFolder>(ObjectId{Entity::kFeedFolder, folderId});
  if (!found)
    return failLater(Error::make(kAccountErrorDomain, kStoreFailed, kAction, found.error().message()));
  std::shared_ptr<FeedFolder> folder = *found;
  std::shared_ptr<Account> account;
  std::shared_ptr<FeedService> service;
  if (folder && !folder->isDeleted() && folder->entity() == Entity::kFeedFolder) {
    if (auto owner = folder->account(); owner && *owner) {
      account = *owner;
      service = serviceObjectOf<FeedService>(*account);
    }
  }
  if (!service) {
    return failLater(
        Error::make(kAccountErrorDomain, kNoSuchFolder, kAction,
                    fmt::format("There is no folder of feeds {}; `lectern folders` lists them.", folderId)));
  }
  if (trim(title).empty()) {
    return failLater(Error::make(kAccountErrorDomain, kInvalidFolderName, kAction, "A folder needs a name."));
  }
  if (auto refused = notOffered(*service, FeedService::SubscriptionChange::kRenameFolder, "rename folder")) {
    return failLater(*refused);
  }
  service->addOrRenameFolder(trim(title), folder.get(),
                             [account, onCompleted](Result<std::shared_ptr<FeedFolder>> renamed) {
                               if (onCompleted)
                                 onCompleted(renamed ? std::nullopt : std::optional<Error>(renamed.error()));
                             });
}

}  // namespace lectern
