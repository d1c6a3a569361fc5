#include "services/localrss/FeedSyncOperation.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "core/Log.h"
#include "core/MainQueue.h"
#include "core/OperationQueue.h"
#include "core/UserDefaults.h"
#include "store/Account.h"
#include "store/Feed.h"
#include "store/FeedStory.h"
#include "store/ObjectContext.h"
#include "store/QKDataManager.h"
#include "sync/SyncWindowControllerDelegate.h"

namespace lectern {
namespace {

constexpr std::string_view kCategory = FeedSyncOperation::kClassName;

// A JSON array of ids, for "IN (SELECT value FROM json_each(?))": one statement whatever the count.
std::string jsonArrayOf(const std::vector<std::string>& ids) { return nlohmann::json(ids).dump(); }

// The entries from `position` on that a refresh could have made stories of: valid, not known,
// each link once.
std::int64_t countNewEntries(const std::vector<std::pair<Date, const RSSEntry*>>& order, size_t position,
                             const std::set<std::string>& known) {
  std::set<std::string> seen;
  for (; position < order.size(); ++position) {
    const RSSEntry* entry = order[position].second;
    const std::string id = entry->url.value_or("");
    if (known.contains(id) || !FeedStory::isValidForRSSEntryMapping(entry)) continue;
    seen.insert(id);
  }
  return static_cast<std::int64_t>(seen.size());
}

}  // namespace

FeedSyncOperation::FeedSyncOperation(std::shared_ptr<Account> account, const SyncEnvironment& environment)
    : SyncOperation(account, environment),
      cacheImages_(account->preferences().boolForKey("cacheImages")),
      fetches_(environment.session) {
  if (cacheImages_) {
    images_ = std::make_unique<StoryImageDownloader>(
        environment.session, account->imageCacheFolder());
  }
}

FeedSyncOperation::~FeedSyncOperation() = default;

std::vector<FeedRefreshFailure> FeedSyncOperation::feedErrors() const {
  std::lock_guard lock(errorsMutex_);
  return errors_;
}

std::vector<FeedEntriesNotKept> FeedSyncOperation::feedsWithOlderEntriesNotKept() const {
  std::lock_guard lock(errorsMutex_);
  return notKept_;
}

std::vector<std::pair<Date, const RSSEntry*>> FeedSyncOperation::entriesNewestFirst(const RSSFeed& feed,
                                                                                    Date now) {
  std::vector<std::pair<Date, const RSSEntry*>> order;
  order.reserve(feed.articles.size());
  std::optional<Date> before;
  size_t undatedRun = 0;  // undated entries at the top, waiting for the first dated one
  for (const auto& entry : feed.articles) {
    const bool dated = entry.date && !entry.undated;
    if (dated) {
      before = *entry.date;
      for (size_t i = order.size() - undatedRun; i < order.size(); ++i) order[i].first = *before;
      undatedRun = 0;
    } else if (!before) {
      ++undatedRun;
    }
    order.emplace_back(dated ? *entry.date : before.value_or(now), &entry);
  }
  std::stable_sort(order.begin(), order.end(),
                   [](const auto& a, const auto& b) { return a.first > b.first; });
  return order;
}

void FeedSyncOperation::cancelRequests() {
  fetches_.cancelAll();
  if (images_) images_->cancel();
}

void FeedSyncOperation::main() {
  nameCurrentThread(kClassName);
  if (!setupManagedObjectContext()) {
    completeOperation();
    return;
  }
  // The reader's changes are made in the library itself and never queued; a queue left by an
  // older version has nowhere to go.
  dropQueuedChanges();

  keepDate_ = Feed::calculateKeepDate(environment().defaults, environment().clock);
  {
    auto feeds = account().feedsInSyncOrder();
    if (!feeds) {
      setError(feeds.error());
      finishOperation();
      return;
    }
    // A lengthened keep period needs the whole document, older entries included: nothing is asked
    // conditionally then.
    const bool conditional = !account().isKeepIndexChangedToLonger();
    for (const auto& feed : *feeds) {
      FeedValidators validators;
      if (conditional) validators = {feed->http_etag(), feed->http_last_modified(), feed->body_hash()};
      jobs_.push_back(FeedJob{feed->objectID(), feed->title().value_or(""), feed->URL().value_or(""),
                              std::move(validators), !feed->last_refresh().has_value()});
    }
  }

  if (!refreshFeeds() || !removeObsoleteStories()) {
    finishOperation();
    return;
  }
  saveContext();
  account().setLast_sync(environment().clock.now());
  account().setLast_sync_keep_index(Feed::daysKeepUnreadItems(environment().defaults));
  saveContext();
  finishOperation();
}

void FeedSyncOperation::dropQueuedChanges() {
  size_t dropped = 0;
  for (auto type : {OfflineOperationType::kMarkRead, OfflineOperationType::kMarkUnread, OfflineOperationType::kStar,
                    OfflineOperationType::kUnstar, OfflineOperationType::kDelete}) {
    auto queued = account().offlineOperationsWithType(type);
    if (!queued) {
      logError(kCategory, "Built-in RSS: failed to read the queued changes: {}", queued.error().message());
      return;
    }
    account().clearOfflineOperations(*queued);
    dropped += queued->size();
  }
  if (dropped == 0) return;
  logDebugMessage(kCategory, "Built-in RSS: dropped {} queued changes, already made in the library", dropped);
  saveContext();
}

void FeedSyncOperation::finishOperation() {
  if (images_) {
    if (isCancelled()) images_->cancel();
    images_->waitUntilFinished();
  }
  completeOperation();
}

FeedSyncOperation::ParentView FeedSyncOperation::parentView(ObjectId feed, bool withSelection) {
  ParentView view;
  environment().mainQueue.runSync([&] {
    // Once the main loop has shut down nobody can delete a feed any more.
    if (!environment().mainQueue.isMainThread()) return;
    auto main = environment().dataManager.managedObjectContext();
    if (!main) return;
    auto found = (*main)->existingObject<Feed>(feed);
    view.deleted = found && (!*found || (*found)->isDeleted());
    if (withSelection && !view.deleted && mainWindowControllerDelegate() != nullptr) {
      view.selected = mainWindowControllerDelegate()->selectedBookmarks();
    }
  });
  return view;
}

bool FeedSyncOperation::refreshFeeds() {
  // Three downloads at a time, each on a thread of its own that takes the next feed when it is
  // done; every change to the library happens here, on the operation's thread, which owns the
  // context. Downloads go on while a feed is merged, so neither waits for the other, but at most
  // kDocumentsAwaitingMerge downloaded feeds wait for the merge: what a refresh holds stays bounded.
  std::mutex mutex;  // guards next, stop, done, finishedWorkers
  std::condition_variable changed;
  size_t next = 0;
  bool stop = false;
  std::deque<Download> done;
  int finishedWorkers = 0;
  auto worker = [&] {
    for (;;) {
      size_t job;
      {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return stop || done.size() < kDocumentsAwaitingMerge; });
        if (stop || next >= jobs_.size()) break;
        job = next++;
      }
      Download download = downloadAllStoriesOfFeed(job);
      std::lock_guard lock(mutex);
      done.push_back(std::move(download));
      changed.notify_all();
    }
    std::lock_guard lock(mutex);
    ++finishedWorkers;
    changed.notify_all();
  };
  OperationQueue downloads("com.quillhq.Lectern.FeedDownloads", kConcurrentFeedFetches);
  for (int i = 0; i < kConcurrentFeedFetches; ++i) downloads.addOperation(worker);

  bool cancelled = false;
  for (;;) {
    Download download;
    {
      std::unique_lock lock(mutex);
      changed.wait(lock, [&] { return !done.empty() || finishedWorkers == kConcurrentFeedFetches; });
      if (done.empty()) break;
      download = std::move(done.front());
      done.pop_front();
      changed.notify_all();  // room for one more downloaded feed
    }
    finishDownload(download);
    if (!cancelled && checkIsCancelled()) {
      cancelled = true;
      std::lock_guard lock(mutex);
      stop = true;
      changed.notify_all();
    }
  }
  saveContext();
  return !cancelled;
}

FeedSyncOperation::Download FeedSyncOperation::downloadAllStoriesOfFeed(size_t job) {
  Download download;
  download.job = job;
  const FeedJob& feed = jobs_[job];
  if (isCancelled()) return download;
  if (isFeedDeletedInParentContext(feed.feed)) {
    download.deletedBefore = true;
    return download;
  }
  logDebugMessage(kCategory, "Built-in RSS: Downloading all stories of feed: {}", feed.title);
  download.feed = fetches_.synchronouslyFetchFeed(feed.url, feed.validators);
  if (feed.neverRefreshed && *download.feed && (**download.feed).feed) {
    const auto& articles = (**download.feed).feed->articles;
    download.previews.reserve(articles.size());
    for (const auto& entry : articles) {
      const auto& html = FeedStory::htmlOfRSSEntry(entry);
      download.previews.push_back(html ? std::optional(Bookmark::previewTextFromHtml(*html)) : std::nullopt);
    }
  }
  // The user may have deleted the feed while it was downloading.
  download.deletedAfter = isFeedDeletedInParentContext(feed.feed);
  return download;
}

void FeedSyncOperation::finishDownload(Download& download) {
  const FeedJob& job = jobs_[download.job];
  if (download.deletedBefore || !download.feed) return;
  auto found = moc().existingObject<Feed>(job.feed);
  if (!found || !*found) return;
  Feed& feed = **found;

  if (download.deletedAfter) {
    // Removed here too, so that no save of ours brings the feed or its stories back.
    if (auto stories = feed.stories(); stories) {
      for (const auto& story : *stories) {
        story->removeFromAllFolder();
        moc().deleteObject(*story);
      }
    }
    moc().deleteObject(feed);
    saveContext();
    return;
  }

  const Result<ConditionalFeed>& fetched = *download.feed;
  const Date now = environment().clock.now();
  if (fetched) {
    // Not modified (a 304, or the same document as the one merged last): nothing to read or
    // merge; the refresh still succeeded. A document is remembered once it is merged.
    if (fetched->feed) {
      const bool merged = parseEntriesFromRSSFeed(feed, *fetched->feed, &download.previews);
      const auto hash = merged ? fetched->validators.bodyHash : std::nullopt;
      if (feed.body_hash() != hash) feed.setBody_hash(hash);
    }
    if (feed.http_etag() != fetched->validators.etag) feed.setHttp_etag(fetched->validators.etag);
    if (feed.http_last_modified() != fetched->validators.lastModified) {
      feed.setHttp_last_modified(fetched->validators.lastModified);
    }
    feed.recordRefreshSucceeded(now);
  } else if (isCancelled()) {
    return;  // stopped by the cancellation, not the feed's fault
  } else {
    logError(kCategory, "Built-in RSS: Failed to refresh feed {}: {}", job.title, fetched.error().message());
    feed.recordRefreshFailed(now, fetched.error().message());
    std::lock_guard lock(errorsMutex_);
    errors_.push_back(FeedRefreshFailure{job.feed, job.title, job.url, fetched.error()});
  }
  feed.setDate_updated(now);
  saveContext();
  if (images_ && !pendingImages_.empty()) images_->downloadImages(pendingImages_);
  pendingImages_.clear();
}

bool FeedSyncOperation::parseEntriesFromRSSFeed(Feed& feed, const RSSFeed& parsed,
                                                std::vector<std::optional<std::string>>* previews) {
  const Date now = environment().clock.now();
  const Date initialReadDate = now - kInitialReadAge;

  std::vector<std::string> ids;
  ids.reserve(parsed.articles.size());
  for (const auto& entry : parsed.articles) {
    if (entry.url) ids.push_back(*entry.url);
  }
  ObjectContext::FetchRequest request;
  // The account condition lets the (account, bookmark_id) index answer the IN list; the "+" keeps
  // the planner from walking the (account, date_added) index instead, every story of the account.
  request.where = "account = ? AND feed = ? AND bookmark_id IN (SELECT value FROM json_each(?))";
  request.arguments = {account().objectID().row, feed.objectID().row, jsonArrayOf(ids)};
  request.orderBy = "+date_added, +id";
  auto stored = moc().fetch<FeedStory>(std::move(request));
  if (!stored) {
    logError(kCategory, "Built-in RSS: Failed to read the stories of feed {}: {}", feed.title().value_or(""),
             stored.error().message());
    return false;
  }
  const std::vector<std::shared_ptr<Bookmark>> container(stored->begin(), stored->end());
  std::set<std::string> known;
  for (const auto& story : findAndDeleteDuplicatesInContainer(container, &SyncOperation::bookmarkIdOf)) {
    known.insert(story->bookmark_id().value_or(""));
  }
  // An entry the person deleted counts as known, as the story would if it had been kept: it never
  // comes back, and the walk stops there as it would at the story. Records of entries the feed
  // no longer lists are dropped.
  if (auto deleted = feed.deletedEntryIds(); deleted) {
    const std::set<std::string> listed(ids.begin(), ids.end());
    std::vector<std::string> gone;
    for (const auto& id : *deleted) {
      if (listed.contains(id)) {
        known.insert(id);
      } else {
        gone.push_back(id);
      }
    }
    feed.forgetDeletedEntries(gone);
  } else {
    logError(kCategory, "Built-in RSS: Failed to read the deleted entries of feed {}: {}",
             feed.title().value_or(""), deleted.error().message());
    return false;
  }
  const bool firstRefresh =
      !feed.last_refresh() || (feed.failing_since() && container.empty() && known.empty());

  // Newest first by date, whatever order the document uses: the first entry already stored means
  // the rest is known too, unless the keep period grew and older entries fall inside it now.
  const auto order = entriesNewestFirst(parsed, now);
  const bool walkPastKnown = account().isKeepIndexChangedToLonger();
  std::set<std::string> added;
  std::int64_t olderNotKept = 0;
  for (size_t position = 0; position < order.size(); ++position) {
    const auto& [date, entry] = order[position];
    if (date <= keepDate_) {
      if (firstRefresh && added.empty()) olderNotKept = countNewEntries(order, position, known);
      break;
    }
    const std::string id = entry->url.value_or("");
    if (known.contains(id)) {
      if (!walkPastKnown) break;
      continue;
    }
    if (!FeedStory::isValidForRSSEntryMapping(entry)) {
      logDebugMessage(kCategory, "Built-in RSS: validation failed for story: {}", entry->title.value_or(""));
      continue;
    }
    // The same link twice in one document is one story.
    if (!added.insert(id).second) continue;
    auto story = moc().insertNewObject<FeedStory>();
    story->setAccount(account());
    story->setFeed(feed);
    std::optional<std::string> preview;
    const auto place = static_cast<size_t>(entry - parsed.articles.data());
    if (previews != nullptr && place < previews->size()) preview = std::move((*previews)[place]);
    story->mapFromRSSEntry(*entry, environment().clock, std::move(preview));
    if (isInitialSync() && story->date_added().value_or(now) <= initialReadDate) {
      story->setIs_archived(true);
    } else {
      downloadImages(*story);
    }
  }
  if (olderNotKept > 0) {
    feed.setOlder_not_kept(olderNotKept);
    std::lock_guard lock(errorsMutex_);
    notKept_.push_back(FeedEntriesNotKept{feed.objectID(), feed.title().value_or(""), olderNotKept});
  } else if (!added.empty() && feed.older_not_kept() != 0) {
    feed.setOlder_not_kept(0);  // the feed has stories now: the note has done its work
  }
  return true;
}

void FeedSyncOperation::downloadImages(FeedStory& story) {
  if (!images_) return;
  for (auto& image : story.parseImages()) pendingImages_.push_back(std::move(image));
}

std::optional<std::set<std::int64_t>> FeedSyncOperation::feedsWithObsoleteStories() {
  // One range of the (account, is_archived, date_added) index instead of a probe of every feed's
  // read stories: in a large library most feeds have nothing to remove.
  const SqlValue arguments[] = {account().objectID().row, sqlDate(keepDate_)};
  auto rows = moc().select(
      "SELECT DISTINCT feed FROM Bookmark WHERE account = ? AND is_archived = 1 AND date_added < ?"
      " AND is_favorited = 0 AND feed IS NOT NULL",
      arguments);
  if (!rows) {
    logError(kCategory, "Built-in RSS: Failed to find the feeds with obsolete stories: {}", rows.error().message());
    return std::nullopt;
  }
  std::set<std::int64_t> feeds;
  for (const auto& row : *rows) feeds.insert(integerOf(row[0]).value_or(0));
  return feeds;
}

bool FeedSyncOperation::removeObsoleteStories() {
  // Without the list every feed is looked at, as each would be.
  const auto candidates = feedsWithObsoleteStories();
  for (const FeedJob& job : jobs_) {
    if (checkIsCancelled()) return false;
    if (candidates && !candidates->contains(job.feed.row)) continue;
    const ParentView view = parentView(job.feed, /*withSelection=*/true);
    if (view.deleted) continue;
    auto feed = moc().existingObject<Feed>(job.feed);
    if (!feed || !*feed) continue;
    deleteObsoleteStoriesForFeed(**feed, view.selected);
    saveContext();
  }
  return true;
}

void FeedSyncOperation::deleteObsoleteStoriesForFeed(Feed& feed, const std::vector<ObjectId>& selected) {
  logDebugMessage(kCategory, "Built-in RSS: Removing obsolete feed entries from feed: {}",
                  feed.title().value_or(""));
  nlohmann::json spared = nlohmann::json::array();
  for (const auto& id : selected) {
    if (id.table() == tableOf(Entity::kBookmark)) spared.push_back(id.row);
  }
  ObjectContext::FetchRequest request;
  request.where =
      "date_added < ? AND is_archived = 1 AND is_favorited = 0 AND feed = ?"
      " AND id NOT IN (SELECT value FROM json_each(?))";
  request.arguments = {sqlDate(keepDate_), feed.objectID().row, spared.dump()};
  request.limit = kObsoleteStoriesPerSync;
  auto obsolete = moc().fetch<FeedStory>(std::move(request));
  if (!obsolete) {
    logError(kCategory, "Built-in RSS: Failed to find obsolete stories of feed {}: {}",
             feed.title().value_or(""), obsolete.error().message());
    return;
  }
  for (const auto& story : *obsolete) {
    story->removeFromAllFolder();
    moc().deleteObject(*story);
  }
}

}  // namespace lectern
