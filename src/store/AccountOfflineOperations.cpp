// The offline-operation queue of an account and its replay.
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>

#include "core/Log.h"
#include "core/MainQueue.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/ObjectContext.h"
#include "store/StoreEnvironment.h"

namespace lectern {
namespace {

constexpr std::string_view kLogCategory = "Account";
// A replayed read or unread change waits this long for its service before the sync moves on.
constexpr std::chrono::seconds kReplayWait{120};

std::vector<std::shared_ptr<OfflineOperation>> operationsOf(
    const std::vector<Account::OperationEntry>& entries) {
  std::vector<std::shared_ptr<OfflineOperation>> operations;
  operations.reserve(entries.size());
  for (const auto& entry : entries) operations.push_back(entry.operationObject);
  return operations;
}

}  // namespace

Result<void> Account::addOfflineOperationForBookmark(std::string_view bookmarkId,
                                                     const std::optional<std::string>& feedId,
                                                     OfflineOperationType type) {
  if (type == OfflineOperationType::kNone) return {};
  auto cancelled = removeOppositeOfflineOperationsForBookmark(bookmarkId, feedId, type);
  if (!cancelled) return fail(cancelled.error());
  if (*cancelled) return {};  // the two changes undo each other
  auto same = offlineOperationsWithBookmarkId(bookmarkId, feedId, type);
  if (!same) return fail(same.error());
  if (!same->empty()) return {};
  auto operation = managedObjectContext().insertNewObject<OfflineOperation>();
  operation->setAccount(*this);
  operation->setCreated_at(managedObjectContext().environment().clock().now());
  operation->setType(type);
  operation->setBookmark_id(std::string(bookmarkId));
  if (feedId) operation->setFeed_id(*feedId);
  return {};
}

Result<std::vector<std::shared_ptr<OfflineOperation>>> Account::offlineOperationsWithType(
    OfflineOperationType type) {
  ObjectContext::FetchRequest request;
  request.where = "account = ? AND type = ?";
  request.arguments = {objectID().row, static_cast<std::int64_t>(type)};
  request.orderBy = "created_at, id";
  return managedObjectContext().fetch<OfflineOperation>(std::move(request));
}

Result<std::vector<std::shared_ptr<OfflineOperation>>> Account::offlineOperationsWithBookmarkId(
    std::string_view bookmarkId, const std::optional<std::string>& feedId, OfflineOperationType type) {
  ObjectContext::FetchRequest request;
  // "IS" compares NULL with NULL as equal: a nil feed id matches only operations without one.
  request.where = "account = ? AND bookmark_id = ? AND feed_id IS ? AND type = ?";
  request.arguments = {objectID().row, std::string(bookmarkId), sqlText(feedId),
                       static_cast<std::int64_t>(type)};
  request.orderBy = "created_at, id";
  return managedObjectContext().fetch<OfflineOperation>(std::move(request));
}

Result<bool> Account::removeOppositeOfflineOperationsForBookmark(std::string_view bookmarkId,
                                                                 const std::optional<std::string>& feedId,
                                                                 OfflineOperationType type) {
  const OfflineOperationType opposite = oppositeOfflineOperationType(type);
  if (opposite == OfflineOperationType::kNone) return false;
  auto opposites = offlineOperationsWithBookmarkId(bookmarkId, feedId, opposite);
  if (!opposites) return fail(opposites.error());
  for (auto& operation : *opposites) managedObjectContext().deleteObject(*operation);
  return !opposites->empty();
}

Result<std::vector<Account::OperationEntry>> Account::arrayWithOperationsDictionariesForOperationType(
    OfflineOperationType type) {
  auto operations = offlineOperationsWithType(type);
  if (!operations) return fail(operations.error());
  std::vector<std::string> ids;
  for (const auto& operation : *operations) ids.push_back(operation->bookmark_id().value_or(""));
  auto bookmarks = findBookmarksWithIds(ids);
  if (!bookmarks) return fail(bookmarks.error());
  std::map<std::string, std::shared_ptr<Bookmark>> byId;
  for (auto& bookmark : *bookmarks) byId.emplace(bookmark->bookmark_id().value_or(""), bookmark);

  std::vector<OperationEntry> entries;
  for (auto& operation : *operations) {
    auto found = byId.find(operation->bookmark_id().value_or(""));
    if (found == byId.end()) {
      managedObjectContext().deleteObject(*operation);  // its item is gone: nothing to replay
      continue;
    }
    entries.push_back(OperationEntry{found->second, operation});
  }
  return entries;
}

void Account::clearOfflineOperations(const std::vector<std::shared_ptr<OfflineOperation>>& operations) {
  for (const auto& operation : operations) managedObjectContext().deleteObject(*operation);
}

Result<void> Account::processOfflineOperations() {
  using enum OfflineOperationType;
  for (const auto type : {kMarkRead, kMarkUnread, kStar, kUnstar, kDelete}) {
    auto entries = arrayWithOperationsDictionariesForOperationType(type);
    if (!entries) return fail(entries.error());
    if (entries->empty()) continue;
    Result<void> replayed;
    switch (type) {
      case kMarkRead:
        replayed = processOfflineReadOperations(*entries);
        break;
      case kMarkUnread:
        replayed = processOfflineUnreadOperations(*entries);
        break;
      case kStar:
        replayed = processOfflineStarOperations(*entries);
        break;
      case kUnstar:
        replayed = processOfflineUnstarOperations(*entries);
        break;
      default:
        replayed = processOfflineDeleteOperations(*entries);
        break;
    }
    if (!replayed) return replayed;
  }
  return managedObjectContext().save();
}

Result<void> Account::processOfflineMarkOperations(const std::vector<OperationEntry>& entries,
                                                   bool archived) {
  std::vector<std::shared_ptr<Bookmark>> bookmarks;
  for (const auto& entry : entries) bookmarks.push_back(entry.bookmarkObject);

  struct Wait {
    std::mutex mutex;  // guards done
    std::condition_variable changed;
    bool done = false;
  };
  auto wait = std::make_shared<Wait>();
  auto& mainQueue = managedObjectContext().environment().mainQueue();
  Bookmark::markBookmarks(bookmarks, *this, archived, [wait](std::optional<Error> error) {
    if (error) logError(kLogCategory, "Failed to replay a queued change: {}", error->message());
    std::lock_guard lock(wait->mutex);
    wait->done = true;
    wait->changed.notify_all();
  });
  bool done = false;
  if (mainQueue.isMainThread()) {
    done = mainQueue.runUntil(
        [&] {
          std::lock_guard lock(wait->mutex);
          return wait->done;
        },
        kReplayWait);
  } else {
    std::unique_lock lock(wait->mutex);
    done = wait->changed.wait_for(lock, kReplayWait, [&] { return wait->done; });
  }
  if (!done) logError(kLogCategory, "A queued change got no answer from its service; it is not sent again");
  // Cleared whatever the outcome: a failed replay is not retried.
  clearOfflineOperations(operationsOf(entries));
  return {};
}

Result<void> Account::processOfflineReadOperations(const std::vector<OperationEntry>& entries) {
  return processOfflineMarkOperations(entries, /*archived=*/true);
}

Result<void> Account::processOfflineUnreadOperations(const std::vector<OperationEntry>& entries) {
  return processOfflineMarkOperations(entries, /*archived=*/false);
}

Result<void> Account::processOfflineStarOperations(const std::vector<OperationEntry>& entries) {
  for (const auto& entry : entries)
    Bookmark::markBookmark(*entry.bookmarkObject, Bookmark::Favorited{true}, {});
  clearOfflineOperations(operationsOf(entries));
  return {};
}

Result<void> Account::processOfflineUnstarOperations(const std::vector<OperationEntry>& entries) {
  for (const auto& entry : entries)
    Bookmark::markBookmark(*entry.bookmarkObject, Bookmark::Favorited{false}, {});
  clearOfflineOperations(operationsOf(entries));
  return {};
}

Result<void> Account::processOfflineDeleteOperations(const std::vector<OperationEntry>& entries) {
  for (const auto& entry : entries) {
    Bookmark::deleteBookmarkWithId(entry.operationObject->bookmark_id().value_or(""), *this, {});
  }
  clearOfflineOperations(operationsOf(entries));
  return {};
}

}  // namespace lectern
