// The Bookmark class operations: every user change to an item goes through one of these.
#include <fmt/format.h>

#include "core/Log.h"
#include "core/MainQueue.h"
#include "core/Reachability.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedStory.h"
#include "store/Folder.h"
#include "store/ObjectContext.h"
#include "store/ServiceDelivery.h"
#include "store/SqliteStatement.h"
#include "store/StoreEnvironment.h"

namespace lectern {
namespace {

constexpr std::string_view kLogCategory = "Bookmark";
constexpr int kNotConnectedToInternet = -1009;

void complete(StoreEnvironment& environment, const ServiceCompletion& onCompleted,
              std::optional<Error> error) {
  if (!onCompleted) return;
  environment.mainQueue().post([onCompleted, error = std::move(error)] { onCompleted(error); });
}

Error offlineError() {
  return Error::make(kLecternErrorDomain, kNotConnectedToInternet,
                     "The Internet connection appears to be offline.", "Try again when the network is back.");
}

Error noServiceError(const Account& account) {
  return Error::make(
      kLecternErrorDomain, 0,
      fmt::format("No service can send this change for the account ({}).", account.uniqueIdentifier()));
}

std::optional<Error> saveOf(ObjectContext& context) {
  auto saved = context.save();
  return saved ? std::nullopt : std::optional<Error>(saved.error());
}

// The bookmark's account; when there is none the completion hears why and nullptr comes back.
std::shared_ptr<Account> accountOrFail(Bookmark& bookmark, const ServiceCompletion& onCompleted) {
  auto owner = bookmark.account();
  if (owner && *owner) return *owner;
  complete(bookmark.managedObjectContext().environment(), onCompleted,
           owner ? Error::make(kStoreErrorDomain, 3, "The item has no account") : owner.error());
  return nullptr;
}

// Online: save first, then hand over.
template <class Call>
void sendToService(Account& account, const ServiceCompletion& onCompleted, Call&& call) {
  auto& context = account.managedObjectContext();
  auto& environment = context.environment();
  if (auto error = saveOf(context)) {
    complete(environment, onCompleted, std::move(error));
    return;
  }
  auto service = account.serviceObject();
  if (!service) {
    complete(environment, onCompleted, noServiceError(account));
    return;
  }
  call(*service);
}

// A change the user made to one item, as the offline queue records it.
struct QueuedChange {
  std::string bookmarkId;
  std::optional<std::string> feedId;
  OfflineOperationType type;
};

QueuedChange changeOf(const Bookmark& bookmark, OfflineOperationType type) {
  return QueuedChange{bookmark.bookmark_id().value_or(""), bookmark.offlineFeedId(), type};
}

Result<void> queueChanges(Account& account, const std::vector<QueuedChange>& changes) {
  for (const auto& change : changes) {
    if (auto queued = account.addOfflineOperationForBookmark(change.bookmarkId, change.feedId, change.type); !queued)
      return queued;
  }
  return {};
}

// A change sent now supersedes whatever an earlier offline change queued for the same items.
Result<void> dropSuperseded(Account& account, const std::vector<QueuedChange>& changes) {
  for (const auto& change : changes) {
    if (auto dropped =
            account.removeSupersededOfflineOperationsForBookmark(change.bookmarkId, change.feedId, change.type);
        !dropped) {
      return dropped;
    }
  }
  return {};
}

// Wraps the completion of a change sent online: when it never reached the service (no network,
// a server in trouble, no client yet) it is queued for the next sync instead of being forgotten.
// A refusal by the server reaches the caller as it is, and the local change stays.
ServiceCompletion queueUnlessDelivered(Account& account, std::vector<QueuedChange> changes,
                                       ServiceCompletion onCompleted) {
  std::weak_ptr<ManagedObject> weakAccount = account.shared_from_this();
  return [weakAccount, changes = std::move(changes), onCompleted](std::optional<Error> error) {
    if (deliveryOf(error) == Delivery::kNotDelivered) {
      // Completions run on the main queue: only the main context's objects may be touched here.
      auto account = std::static_pointer_cast<Account>(weakAccount.lock());
      if (account && account->hasContext() && !account->isDeleted() &&
          account->managedObjectContext().isMainContext()) {
        auto queued = queueChanges(*account, changes);
        if (queued) queued = account->managedObjectContext().save();
        if (queued) {
          logInfo(kLogCategory, "A change could not reach {}; it is queued for the next sync: {}",
                  account->uniqueIdentifier(), error->message());
          error.reset();
        } else {
          logError(kLogCategory, "Failed to queue a change for the next sync: {}", queued.error().message());
        }
      }
    }
    if (onCompleted) onCompleted(std::move(error));
  };
}

// The path of every change that has an offline code: a local account has nothing to send; offline,
// the change is queued; online, it is sent (superseding what was queued) and queued if it can't be.
template <class Send>
void sendOrQueue(Account& account, std::vector<QueuedChange> changes, ServiceCompletion onCompleted, Send&& send) {
  auto& context = account.managedObjectContext();
  auto& environment = context.environment();
  if (!hasRemoteService(account.serviceType())) {
    complete(environment, onCompleted, saveOf(context));
    return;
  }
  if (!environment.reachability().isReachable()) {
    if (auto queued = queueChanges(account, changes); !queued) {
      context.rollback();
      complete(environment, onCompleted, queued.error());
      return;
    }
    complete(environment, onCompleted, saveOf(context));
    return;
  }
  if (auto dropped = dropSuperseded(account, changes); !dropped) {
    context.rollback();
    complete(environment, onCompleted, dropped.error());
    return;
  }
  // Saved before the call: the change is in the library whatever the service answers.
  if (auto error = saveOf(context)) {
    complete(environment, onCompleted, std::move(error));
    return;
  }
  auto done = queueUnlessDelivered(account, std::move(changes), std::move(onCompleted));
  auto service = account.serviceObject();
  if (!service) {
    complete(environment, done, noServiceError(account));
    return;
  }
  send(*service, std::move(done));
}

}  // namespace

void Bookmark::markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account& account,
                             bool archived, ServiceCompletion onCompleted) {
  const auto type = archived ? OfflineOperationType::kMarkRead : OfflineOperationType::kMarkUnread;
  std::vector<QueuedChange> changes;
  for (const auto& bookmark : bookmarks) {
    bookmark->setIs_archived(archived);
    changes.push_back(changeOf(*bookmark, type));
  }
  sendOrQueue(account, std::move(changes), std::move(onCompleted), [&](AccountService& service, ServiceCompletion done) {
    service.markBookmarks(bookmarks, account, archived, std::move(done));
  });
}

void Bookmark::markBookmark(Bookmark& bookmark, Favorited favorited, ServiceCompletion onCompleted) {
  auto owner = accountOrFail(bookmark, onCompleted);
  if (owner == nullptr) return;
  Account& account = *owner;
  bookmark.setIs_favorited(favorited.value);
  const auto type = favorited.value ? OfflineOperationType::kStar : OfflineOperationType::kUnstar;
  sendOrQueue(account, {changeOf(bookmark, type)}, std::move(onCompleted),
              [&](AccountService& service, ServiceCompletion done) {
                service.markBookmarkFavorited(bookmark, favorited.value, std::move(done));
              });
}

void Bookmark::markBookmark(Bookmark& bookmark, Shared shared, ServiceCompletion onCompleted) {
  auto& environment = bookmark.managedObjectContext().environment();
  auto owner = accountOrFail(bookmark, onCompleted);
  if (owner == nullptr) return;
  if (!environment.reachability().isReachable()) {
    complete(environment, onCompleted, offlineError());
    return;
  }
  bookmark.setIs_shared(shared.value);
  sendToService(*owner, onCompleted, [&](AccountService& service) {
    service.markBookmarkShared(bookmark, shared.value, onCompleted);
  });
}

void Bookmark::deleteBookmarkWithId(std::string_view bookmarkId, Account& account,
                                    ServiceCompletion handler) {
  auto& context = account.managedObjectContext();
  auto found = account.findBookmarkWithId(bookmarkId);
  if (!found) {
    complete(context.environment(), handler, found.error());
    return;
  }
  const std::optional<std::string> feedId = *found ? (*found)->offlineFeedId() : std::nullopt;
  // The built-in reader's refresh would bring a deleted story back while its feed lists it.
  if (*found && account.serviceType() == ServiceType::kLocalRSS) {
    if (auto* story = dynamic_cast<FeedStory*>(found->get())) {
      auto feed = story->feed();
      if (feed && *feed && story->bookmark_id()) (*feed)->recordDeletedEntry(*story->bookmark_id());
    }
  }
  // The item goes at once, online or not: a queued delete carries what its service needs.
  if (*found) context.deleteObject(**found);
  const std::string id(bookmarkId);
  sendOrQueue(account, {QueuedChange{id, feedId, OfflineOperationType::kDelete}}, std::move(handler),
              [&](AccountService& service, ServiceCompletion done) {
                service.deleteBookmark(account, id, feedId, std::move(done));
              });
}

void Bookmark::moveBookmark(Bookmark& bookmark, Folder& folder, ServiceCompletion onCompleted) {
  auto& environment = bookmark.managedObjectContext().environment();
  auto owner = accountOrFail(bookmark, onCompleted);
  if (owner == nullptr) return;
  if (!environment.reachability().isReachable()) {
    complete(environment, onCompleted, offlineError());
    return;
  }
  // A move leaves every folder but "starred", which follows the favourite flag instead.
  auto starred = owner->favoriteFolder();
  if (starred && *starred) {
    bookmark.removeFromAllFolderExcept(**starred);
  } else {
    bookmark.removeFromAllFolder();
  }
  bookmark.addToFolder(folder);
  sendToService(*owner, onCompleted,
                [&](AccountService& service) { service.moveBookmark(bookmark, folder, onCompleted); });
}

void Bookmark::updateTagsOfBookmark(Bookmark& bookmark, ServiceCompletion handler) {
  auto& environment = bookmark.managedObjectContext().environment();
  auto owner = accountOrFail(bookmark, handler);
  if (owner == nullptr) return;
  if (!environment.reachability().isReachable()) {
    // The tags are the caller's already: keep them here, and say the service has not heard.
    auto error = saveOf(bookmark.managedObjectContext());
    complete(environment, handler, error ? std::move(error) : std::optional<Error>(offlineError()));
    return;
  }
  sendToService(*owner, handler, [&](AccountService& service) { service.updateTags(bookmark, handler); });
}

void Bookmark::updateBookmark(Bookmark& bookmark, double readProgress, ServiceCompletion onComplete) {
  auto& environment = bookmark.managedObjectContext().environment();
  auto owner = accountOrFail(bookmark, onComplete);
  if (owner == nullptr) return;
  if (!environment.reachability().isReachable()) {
    complete(environment, onComplete, offlineError());
    return;
  }
  bookmark.setProgress(readProgress);
  sendToService(*owner, onComplete, [&](AccountService& service) {
    service.updateReadProgress(bookmark, readProgress, onComplete);
  });
}

}  // namespace lectern
