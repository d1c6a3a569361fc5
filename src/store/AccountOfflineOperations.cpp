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
#include "store/ServiceDelivery.h"
#include "store/StoreEnvironment.h"

namespace lectern {
namespace {

constexpr std::string_view kLogCategory = "Account";
// A replayed change waits at most this long for its service; unanswered, it stays queued.
constexpr std::chrono::seconds kReplayWait{120};
// How often a waiting replay looks at the cancellation check.
constexpr std::chrono::milliseconds kCancellationPoll{50};

std::vector<std::shared_ptr<OfflineOperation>> operationsOf(
    const std::vector<Account::OperationEntry>& entries) {
  std::vector<std::shared_ptr<OfflineOperation>> operations;
  operations.reserve(entries.size());
  for (const auto& entry : entries) operations.push_back(entry.operationObject);
  return operations;
}

// Starts one service call and waits for its completion: the call's outcome, or nothing when
// cancelled or unanswered in time.
std::optional<std::optional<Error>> waitForService(MainQueue& mainQueue,
                                                   const std::function<void(ServiceCompletion)>& call,
                                                   const Account::CancellationCheck& isCancelled) {
  struct Wait {
    std::mutex mutex;  // guards outcome
    std::condition_variable changed;
    std::optional<std::optional<Error>> outcome;
  };
  auto wait = std::make_shared<Wait>();
  call([wait](std::optional<Error> error) {
    std::lock_guard lock(wait->mutex);
    wait->outcome = std::move(error);
    wait->changed.notify_all();
  });
  const auto deadline = std::chrono::steady_clock::now() + kReplayWait;
  auto answered = [&] {
    std::lock_guard lock(wait->mutex);
    return wait->outcome.has_value();
  };
  while (!answered()) {
    if ((isCancelled && isCancelled()) || std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    if (mainQueue.isMainThread()) {
      mainQueue.runUntil(answered, kCancellationPoll);
    } else {
      std::unique_lock lock(wait->mutex);
      wait->changed.wait_for(lock, kCancellationPoll, [&] { return wait->outcome.has_value(); });
    }
  }
  std::lock_guard lock(wait->mutex);
  return wait->outcome;
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

Result<void> Account::removeSupersededOfflineOperationsForBookmark(std::string_view bookmarkId,
                                                                   const std::optional<std::string>& feedId,
                                                                   OfflineOperationType type) {
  for (const auto code : {type, oppositeOfflineOperationType(type)}) {
    if (code == OfflineOperationType::kNone) continue;
    auto queued = offlineOperationsWithBookmarkId(bookmarkId, feedId, code);
    if (!queued) return fail(queued.error());
    for (auto& operation : *queued) managedObjectContext().deleteObject(*operation);
  }
  return {};
}

Result<std::vector<Account::OperationEntry>> Account::arrayWithOperationsDictionariesForOperationType(
    OfflineOperationType type) {
  auto operations = offlineOperationsWithType(type);
  if (!operations) return fail(operations.error());
  std::vector<std::string> ids;
  for (const auto& operation : *operations) ids.push_back(operation->bookmark_id().value_or(""));
  auto bookmarks = findBookmarksWithIds(ids);
  if (!bookmarks) return fail(bookmarks.error());
  std::multimap<std::string, std::shared_ptr<Bookmark>> byId;
  for (auto& bookmark : *bookmarks) byId.emplace(bookmark->bookmark_id().value_or(""), bookmark);

  std::vector<OperationEntry> entries;
  for (auto& operation : *operations) {
    // Some services name items uniquely only within a feed: the item of the change's feed wins.
    auto [first, last] = byId.equal_range(operation->bookmark_id().value_or(""));
    std::shared_ptr<Bookmark> bookmark = first == last ? nullptr : first->second;
    for (auto it = first; it != last && operation->feed_id(); ++it) {
      if (it->second->offlineFeedId() == operation->feed_id()) {
        bookmark = it->second;
        break;
      }
    }
    // A delete carries what its service needs; every other change needs its item.
    if (!bookmark && type != OfflineOperationType::kDelete) {
      managedObjectContext().deleteObject(*operation);  // its item is gone: nothing to replay
      continue;
    }
    entries.push_back(OperationEntry{std::move(bookmark), operation});
  }
  return entries;
}

void Account::clearOfflineOperations(const std::vector<std::shared_ptr<OfflineOperation>>& operations) {
  for (const auto& operation : operations) managedObjectContext().deleteObject(*operation);
}

Result<void> Account::processOfflineOperations(const CancellationCheck& isCancelled) {
  using enum OfflineOperationType;
  for (const auto type : {kMarkRead, kMarkUnread, kStar, kUnstar, kDelete}) {
    auto entries = arrayWithOperationsDictionariesForOperationType(type);
    if (!entries) return fail(entries.error());
    if (entries->empty()) continue;
    Result<bool> goOn = true;
    switch (type) {
      case kMarkRead:
        goOn = processOfflineReadOperations(*entries, isCancelled);
        break;
      case kMarkUnread:
        goOn = processOfflineUnreadOperations(*entries, isCancelled);
        break;
      case kStar:
        goOn = processOfflineStarOperations(*entries, isCancelled);
        break;
      case kUnstar:
        goOn = processOfflineUnstarOperations(*entries, isCancelled);
        break;
      default:
        goOn = processOfflineDeleteOperations(*entries, isCancelled);
        break;
    }
    // What was settled stays settled even if the program stops before the next kind.
    if (auto saved = managedObjectContext().save(); !saved) return saved;
    if (!goOn) return fail(goOn.error());
    if (!*goOn) break;
  }
  return managedObjectContext().save();
}

bool Account::settleReplayed(const std::vector<std::shared_ptr<OfflineOperation>>& operations,
                             const std::optional<std::optional<Error>>& outcome) {
  if (!outcome) {
    logInfo(kLogCategory, "A queued change of {} got no answer; it stays queued", uniqueIdentifier());
    return false;
  }
  switch (deliveryOf(*outcome)) {
    case Delivery::kDelivered:
      clearOfflineOperations(operations);
      return true;
    case Delivery::kRefused:
      logError(kLogCategory, "The server refused a queued change of {}; it is dropped: {}",
               uniqueIdentifier(), (*outcome)->message());
      clearOfflineOperations(operations);
      return true;
    case Delivery::kNotDelivered:
      logInfo(kLogCategory, "A queued change of {} could not be sent; it stays queued: {}",
              uniqueIdentifier(), (*outcome)->message());
      return false;
  }
  return false;
}

Result<bool> Account::processOfflineMarkOperations(const std::vector<OperationEntry>& entries, bool archived,
                                                   const CancellationCheck& isCancelled) {
  auto service = serviceObject();
  if (!service) return false;
  std::vector<std::shared_ptr<Bookmark>> bookmarks;
  for (const auto& entry : entries) bookmarks.push_back(entry.bookmarkObject);
  auto outcome = waitForService(
      managedObjectContext().environment().mainQueue(),
      [&](ServiceCompletion done) { service->markBookmarks(bookmarks, *this, archived, std::move(done)); },
      isCancelled);
  return settleReplayed(operationsOf(entries), outcome);
}

Result<bool> Account::processOfflineFavoriteOperations(const std::vector<OperationEntry>& entries,
                                                       bool favorited, const CancellationCheck& isCancelled) {
  auto service = serviceObject();
  if (!service) return false;
  for (const auto& entry : entries) {
    auto outcome = waitForService(
        managedObjectContext().environment().mainQueue(),
        [&](ServiceCompletion done) {
          service->markBookmarkFavorited(*entry.bookmarkObject, favorited, std::move(done));
        },
        isCancelled);
    if (!settleReplayed({entry.operationObject}, outcome)) return false;
  }
  return true;
}

Result<bool> Account::processOfflineReadOperations(const std::vector<OperationEntry>& entries,
                                                   const CancellationCheck& isCancelled) {
  return processOfflineMarkOperations(entries, /*archived=*/true, isCancelled);
}

Result<bool> Account::processOfflineUnreadOperations(const std::vector<OperationEntry>& entries,
                                                     const CancellationCheck& isCancelled) {
  return processOfflineMarkOperations(entries, /*archived=*/false, isCancelled);
}

Result<bool> Account::processOfflineStarOperations(const std::vector<OperationEntry>& entries,
                                                   const CancellationCheck& isCancelled) {
  return processOfflineFavoriteOperations(entries, /*favorited=*/true, isCancelled);
}

Result<bool> Account::processOfflineUnstarOperations(const std::vector<OperationEntry>& entries,
                                                     const CancellationCheck& isCancelled) {
  return processOfflineFavoriteOperations(entries, /*favorited=*/false, isCancelled);
}

Result<bool> Account::processOfflineDeleteOperations(const std::vector<OperationEntry>& entries,
                                                     const CancellationCheck& isCancelled) {
  auto service = serviceObject();
  if (!service) return false;
  for (const auto& entry : entries) {
    // An item still here was queued for deletion by an older version, which kept it until replay.
    if (entry.bookmarkObject) managedObjectContext().deleteObject(*entry.bookmarkObject);
    const auto& operation = *entry.operationObject;
    const std::string bookmarkId = operation.bookmark_id().value_or("");
    const std::optional<std::string> feedId = operation.feed_id();
    auto outcome = waitForService(
        managedObjectContext().environment().mainQueue(),
        [&](ServiceCompletion done) { service->deleteBookmark(*this, bookmarkId, feedId, std::move(done)); },
        isCancelled);
    if (!settleReplayed({entry.operationObject}, outcome)) return false;
  }
  return true;
}

}  // namespace lectern
