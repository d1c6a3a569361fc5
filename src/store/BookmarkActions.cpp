// The Bookmark class operations: every user change to an item goes through one of these.
#include <fmt/format.h>

#include "core/MainQueue.h"
#include "core/Reachability.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Folder.h"
#include "store/ObjectContext.h"
#include "store/SqliteStatement.h"
#include "store/StoreEnvironment.h"

namespace lectern {
namespace {

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

// Online: save first (never hold the write lock across a network call), then hand over.
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

}  // namespace

void Bookmark::markBookmarks(const std::vector<std::shared_ptr<Bookmark>>& bookmarks, Account& account,
                             bool archived, ServiceCompletion onCompleted) {
  auto& context = account.managedObjectContext();
  auto& environment = context.environment();
  for (const auto& bookmark : bookmarks) bookmark->setIs_archived(archived);
  if (!environment.reachability().isReachable()) {
    const auto type = archived ? OfflineOperationType::kMarkRead : OfflineOperationType::kMarkUnread;
    for (const auto& bookmark : bookmarks) {
      auto queued = account.addOfflineOperationForBookmark(bookmark->bookmark_id().value_or(""),
                                                           bookmark->offlineFeedId(), type);
      if (!queued) {
        context.rollback();
        complete(environment, onCompleted, queued.error());
        return;
      }
    }
    complete(environment, onCompleted, saveOf(context));
    return;
  }
  sendToService(account, onCompleted, [&](AccountService& service) {
    service.markBookmarks(bookmarks, account, archived, onCompleted);
  });
}

void Bookmark::markBookmark(Bookmark& bookmark, Favorited favorited, ServiceCompletion onCompleted) {
  auto& context = bookmark.managedObjectContext();
  auto& environment = context.environment();
  auto owner = accountOrFail(bookmark, onCompleted);
  if (owner == nullptr) return;
  Account& account = *owner;
  bookmark.setIs_favorited(favorited.value);
  if (!environment.reachability().isReachable()) {
    auto queued = account.addOfflineOperationForBookmark(
        bookmark.bookmark_id().value_or(""), bookmark.offlineFeedId(),
        favorited.value ? OfflineOperationType::kStar : OfflineOperationType::kUnstar);
    complete(environment, onCompleted, queued ? saveOf(context) : std::optional<Error>(queued.error()));
    return;
  }
  sendToService(account, onCompleted, [&](AccountService& service) {
    service.markBookmarkFavorited(bookmark, favorited.value, onCompleted);
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
  auto& environment = context.environment();
  auto found = account.findBookmarkWithId(bookmarkId);
  if (!found) {
    complete(environment, handler, found.error());
    return;
  }
  const std::optional<std::string> feedId = *found ? (*found)->offlineFeedId() : std::nullopt;
  if (!environment.reachability().isReachable()) {
    // The bookmark stays: replaying the delete needs it.
    auto queued = account.addOfflineOperationForBookmark(bookmarkId, feedId, OfflineOperationType::kDelete);
    complete(environment, handler, queued ? saveOf(context) : std::optional<Error>(queued.error()));
    return;
  }
  if (*found) context.deleteObject(**found);
  const std::string id(bookmarkId);
  sendToService(account, handler,
                [&](AccountService& service) { service.deleteBookmark(account, id, feedId, handler); });
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
