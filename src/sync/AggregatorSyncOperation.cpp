#include "sync/AggregatorSyncOperation.h"

#include <algorithm>
#include <set>
#include <unordered_set>

#include "accounts/ServiceBase.h"
#include "core/MainQueue.h"
#include "core/Strings.h"
#include "core/UserDefaults.h"
#include "net/AFHTTPClient.h"
#include "store/Account.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/FeedStory.h"
#include "store/ObjectContext.h"
#include "store/QKDataManager.h"
#include "store/StoreQueries.h"
#include "sync/StoryImageDownloader.h"
#include "sync/SyncWindowControllerDelegate.h"

namespace lectern {
namespace {

using nlohmann::json;

// How many ids a lookup of stored items takes at once: a bound on the objects held at a time.
constexpr size_t kLookupBatch = 500;

std::vector<std::string> slice(const std::vector<std::string>& ids, size_t first, size_t count) {
  const size_t last = std::min(ids.size(), first + count);
  return {ids.begin() + static_cast<std::ptrdiff_t>(first), ids.begin() + static_cast<std::ptrdiff_t>(last)};
}

}  // namespace

AggregatorSyncOperation::AggregatorSyncOperation(std::shared_ptr<Account> account,
                                                 const SyncEnvironment& environment, std::string serviceName)
    : SyncOperation(account, environment), serviceName_(std::move(serviceName)) {
  if (account->preferences().boolForKey("cacheImages")) {
    images_ = std::make_unique<StoryImageDownloader>(environment.session, account->imageCacheFolder());
  }
}

AggregatorSyncOperation::~AggregatorSyncOperation() = default;

void AggregatorSyncOperation::main() {
  nameCurrentThread(className());
  if (!setupManagedObjectContext()) {
    completeOperation();
    return;
  }
  auto service = std::dynamic_pointer_cast<ServiceBase>(this->service());
  apiClient_ = service ? service->apiClient() : nullptr;
  if (!apiClient_) {
    setError(service ? service->clientUnavailableError("sync")
                     : Error::make(kLecternErrorDomain, 0, fmt::format("{}: Failed to sync", serviceName_)));
    completeOperation();
    return;
  }
  // Nothing is read or changed when the service's host cannot be reached.
  if (auto reachable = apiClient_->isNetworkEndpointReachable(); !reachable) {
    setError(reachable.error());
    completeOperation();
    return;
  }
  if (!openSession()) {
    completeOperation();
    return;
  }
  // What the user did here reaches the server before its state is read back.
  processOfflineOperations();
  keepDate_ = Feed::calculateKeepDate(environment().defaults, environment().clock);

  const bool clean = runSteps();
  if (clean) {
    deleteObsoleteStories();
    if (!checkIsCancelled()) {
      account().setLast_sync(environment().clock.now());
      account().setLast_sync_keep_index(Feed::daysKeepUnreadItems(environment().defaults));
      saveContext();
    }
  }
  if (images_) {
    if (isCancelled()) images_->cancel();
    images_->waitUntilFinished();
  }
  completeOperation();
}

bool AggregatorSyncOperation::runSteps() {
  auto goOn = [this] { return !error() && !checkIsCancelled(); };
  return goOn() && prepareRun() && goOn() && syncFoldersAndFeeds() && goOn() && syncUnreadStories() &&
         goOn() && syncStarredStories() && goOn() && syncReadStories() && goOn();
}

bool AggregatorSyncOperation::failStep(const Error& error, const std::string& message) {
  if (isCancelled()) return false;  // the cancel stopped the request: no failure of the service's
  logError(className(), "{}: {}", serviceName_, message);
  setError(error);
  return false;
}

bool AggregatorSyncOperation::saveAndGoOn() {
  saveContext();
  return !error() && !checkIsCancelled();
}

void AggregatorSyncOperation::updateExistingStory(Bookmark& story, const json&, const MergeFlags& flags) {
  if (flags.unread && story.is_archived() != flags.unread) {
    story.setIs_archived(false);
    log("update archive flag: {}", story.title().value_or(""));
  }
  if (flags.favorited && story.is_favorited() != flags.favorited) {
    story.setIs_favorited(true);
    log("update favorite flag: {}", story.title().value_or(""));
  }
}

void AggregatorSyncOperation::setNewStoryFlags(FeedStory& story, const json&, const MergeFlags& flags) {
  story.setIs_archived(!flags.unread);
  story.setIs_favorited(flags.favorited);
}

AggregatorSyncOperation::MergeResult AggregatorSyncOperation::mergeItems(json items,
                                                                         const MergeFlags& flags) {
  MergeResult result;
  if (!items.is_array()) return result;
  // Both sides in the same order, ids compared as text, as the store sorts them.
  std::vector<std::pair<std::string, const json*>> walk;
  for (const auto& item : items) {
    if (auto id = itemId(item)) walk.emplace_back(std::move(*id), &item);
  }
  std::stable_sort(walk.begin(), walk.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<std::string> ids;
  for (const auto& [id, item] : walk) ids.push_back(id);

  const std::string key(itemIdKey());
  ObjectContext::FetchRequest request;
  request.where = fmt::format("account = ? AND {} IN (SELECT value FROM json_each(?))", key);
  request.arguments = {account().objectID().row, jsonList(ids)};
  request.orderBy = fmt::format("{}, id", key);
  auto fetched = moc().fetch<Bookmark>(std::move(request));
  if (!fetched) {
    logError(className(), "{}: failed to read stored stories: {}", serviceName_, fetched.error().message());
    return result;
  }
  const UniqueId keyOf = key == "bookmark_hash"
                             ? UniqueId([](const Bookmark& b) { return b.bookmark_hash(); })
                             : UniqueId(&SyncOperation::bookmarkIdOf);
  const auto stored = findAndDeleteDuplicatesInContainer(*fetched, keyOf);

  std::vector<std::shared_ptr<Bookmark>> merged;
  size_t next = 0;
  for (const auto& [id, itemPointer] : walk) {
    const json& item = *itemPointer;
    // Stored stories missing from the walk (a duplicate id in the items) are passed over.
    while (next < stored.size() && keyOf(*stored[next]).value_or("") < id) ++next;
    if (next < stored.size() && keyOf(*stored[next]) == id) {
      updateExistingStory(*stored[next], item, flags);
      merged.push_back(stored[next]);
      ++next;
      continue;
    }
    const auto feedId = itemFeedId(item);
    auto feed = feedId ? feedWithRemoteId(*feedId) : nullptr;
    const auto date = itemDate(item);
    if (flags.tillDate && date && *date <= *flags.tillDate) result.reachedTillDate = true;
    if (!feed || (flags.tillDate && (!date || *date <= *flags.tillDate))) continue;
    if (!isValidItem(item)) {
      log("validation failed for story: {}", id);
      continue;
    }
    auto story = moc().insertNewObject<FeedStory>();
    story->setAccount(account());
    story->setFeed(*feed);
    mapItem(*story, item, date.value_or(environment().clock.now()));
    setNewStoryFlags(*story, item, flags);
    log("insert story: {}", story->title().value_or(id));
    merged.push_back(story);
  }
  for (const auto& story : merged) result.stories.push_back(story->objectID().row);
  downloadImages(merged);
  return result;
}

bool AggregatorSyncOperation::syncListedItems(std::vector<std::string> ids, const ListedItems& pass) {
  const bool unread = pass.flag == ListedFlag::kUnread;
  const bool starred = pass.flag == ListedFlag::kStarred;
  // Stored items first, a bounded number at a time: they are collected and need no request.
  std::vector<std::int64_t> collected;
  std::vector<std::string> missing;
  for (size_t first = 0; first < ids.size(); first += kLookupBatch) {
    auto found =
        findExistingBookmarksForIds(json(slice(ids, first, kLookupBatch)), unread, starred, itemIdKey());
    if (!found)
      return failStep(found.error(),
                      fmt::format("failed reading stored stories: {}", found.error().message()));
    for (const auto& story : found->existing) collected.push_back(story->objectID().row);
    for (auto& id : found->missing) missing.push_back(std::move(id));
  }
  if (!saveAndGoOn()) return false;

  const MergeFlags flags{unread, starred, std::nullopt};
  json buffer = json::array();
  for (size_t first = 0; first < missing.size(); first += pass.idsPerRequest) {
    if (!pass.batchLog.empty()) log("{}", fmt::format(fmt::runtime(pass.batchLog), missing.size() - first));
    const auto batch = slice(missing, first, pass.idsPerRequest);
    auto items = pass.fetchItems(batch);
    if (!items) {
      return failStep(items.error(), fmt::format(fmt::runtime(pass.failedBatchLog), join(batch, ", "),
                                                 items.error().message()));
    }
    const bool last = first + pass.idsPerRequest >= missing.size();
    if (auto merged = bufferItems(buffer, *items, last, flags)) {
      collected.insert(collected.end(), merged->stories.begin(), merged->stories.end());
      if (error() || checkIsCancelled()) return false;
    }
    if (checkIsCancelled()) return false;
  }
  // Only a complete list may say which stories are no longer unread (starred).
  unsetFlagOfStoriesNotIn(collected, pass.flag);
  return saveAndGoOn();
}

std::optional<AggregatorSyncOperation::MergeResult> AggregatorSyncOperation::bufferItems(
    json& buffer, const json& page, bool last, const MergeFlags& flags) {
  if (page.is_array()) {
    for (const auto& item : page) buffer.push_back(item);
  }
  if (buffer.empty() || (buffer.size() < kMergeBatch && !last)) return std::nullopt;
  auto merged = mergeItems(std::exchange(buffer, json::array()), flags);
  saveContext();
  return merged;
}

void AggregatorSyncOperation::unsetFlagOfStoriesNotIn(const std::vector<std::int64_t>& kept,
                                                      ListedFlag flag) {
  const bool unread = flag == ListedFlag::kUnread;
  log("{}", unread ? "mark read stories..." : "mark unstarred stories...");
  ObjectContext::FetchRequest request;
  request.where = fmt::format("account = ? AND {} AND id NOT IN (SELECT value FROM json_each(?))",
                              unread ? "is_archived = 0" : "is_favorited = 1");
  request.arguments = {account().objectID().row, jsonList(kept)};
  auto stories = moc().fetch<Bookmark>(std::move(request));
  if (!stories) {
    logError(className(), "{}: failed to {}: {}", serviceName_,
             unread ? "mark read stories" : "unstar stories", stories.error().message());
    return;
  }
  for (const auto& story : *stories) {
    if (unread) {
      story->setIs_archived(true);
    } else {
      story->setIs_favorited(false);
    }
  }
}

Date AggregatorSyncOperation::readItemsSinceDate(std::optional<Date> since) {
  const Date window = environment().clock.now() - kReadItemsWindow;
  Date bound = std::max(keepDate_, window);
  if (since && !account().isKeepIndexChangedToLonger()) bound = std::max(bound, *since);
  return bound;
}

std::shared_ptr<Feed> AggregatorSyncOperation::feedWithRemoteId(const std::string& remoteId) {
  if (!feedsByRemoteId_) {
    feedsByRemoteId_.emplace();
    auto feeds = account().feeds();
    if (!feeds) {
      logError(className(), "{}: failed to read the feeds: {}", serviceName_, feeds.error().message());
    } else {
      for (const auto& feed : *feeds) {
        if (auto id = feed->folder_id()) feedsByRemoteId_->try_emplace(*id, feed->objectID());
      }
    }
  }
  auto found = feedsByRemoteId_->find(remoteId);
  if (found == feedsByRemoteId_->end()) return nullptr;
  auto feed = moc().existingObject<Feed>(found->second);
  return feed && *feed && !(*feed)->isDeleted() ? *feed : nullptr;
}

void AggregatorSyncOperation::deleteFeed(Feed& feed) {
  if (auto folders = feed.feedFolders()) {
    for (const auto& folder : *folders) folder->removeFeed(feed);
  }
  moc().deleteObject(feed);
  feedsByRemoteId_.reset();
}

void AggregatorSyncOperation::setFeedFolders(Feed& feed,
                                             const std::vector<std::shared_ptr<FeedFolder>>& folders) {
  auto current = feed.feedFolders();
  if (!current) return;
  std::unordered_set<ObjectId> now, wanted;
  for (const auto& folder : *current) now.insert(folder->objectID());
  for (const auto& folder : folders) wanted.insert(folder->objectID());
  if (now == wanted) return;
  for (const auto& folder : *current) {
    if (!wanted.contains(folder->objectID())) folder->removeFeed(feed);
  }
  for (const auto& folder : folders) {
    if (!now.contains(folder->objectID())) {
      folder->addFeed(feed);
      now.insert(folder->objectID());
    }
  }
}

std::vector<std::int64_t> AggregatorSyncOperation::selectedStoryRows() {
  std::vector<std::int64_t> rows;
  environment().mainQueue.runSync([&] {
    if (!environment().mainQueue.isMainThread() || mainWindowControllerDelegate() == nullptr) return;
    for (const auto& id : mainWindowControllerDelegate()->selectedBookmarks()) {
      if (id.table() == tableOf(Entity::kBookmark)) rows.push_back(id.row);
    }
  });
  return rows;
}

void AggregatorSyncOperation::deleteObsoleteStories() {
  log("deleting obsolete stories...");
  // The article on screen is never deleted under the reader.
  const auto spared = selectedStoryRows();
  std::set<std::int64_t> tried;
  for (;;) {
    if (checkIsCancelled()) return;
    ObjectContext::FetchRequest request;
    request.where =
        "date_added < ? AND is_archived = 1 AND is_favorited = 0 AND account = ?"
        " AND id NOT IN (SELECT value FROM json_each(?))";
    request.arguments = {sqlDate(keepDate_), account().objectID().row, jsonList(spared)};
    request.limit = kObsoleteStoriesPerBatch;
    auto obsolete = moc().fetch<FeedStory>(std::move(request));
    if (!obsolete) {
      logError(className(), "{}: failed to find obsolete stories: {}", serviceName_,
               obsolete.error().message());
      return;
    }
    // A batch seen before means its save failed: stop rather than try it forever.
    if (obsolete->empty() || !tried.insert(obsolete->front()->objectID().row).second) return;
    for (const auto& story : *obsolete) {
      story->removeFromAllFolder();
      moc().deleteObject(*story);
    }
    saveContext();
  }
}

void AggregatorSyncOperation::downloadImages(const std::vector<std::shared_ptr<Bookmark>>& stories) {
  if (!images_) return;
  std::vector<BookmarkImage> images;
  for (const auto& story : stories) {
    for (auto& image : story->parseImages()) images.push_back(std::move(image));
  }
  if (!images.empty()) images_->downloadImages(images);
}

}  // namespace lectern
