#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "core/Clock.h"
#include "core/Error.h"
#include "feeds/QKFeedParserClient.h"
#include "feeds/RSSFeed.h"
#include "store/BookmarkImage.h"
#include "sync/FeedFetchGroup.h"
#include "sync/StoryImageDownloader.h"
#include "sync/SyncOperation.h"

namespace lectern {

class Feed;
class FeedStory;

// The built-in reader's refresh: every subscribed feed fetched (three at a time), new entries
// merged as stories, old read stories removed. Made by the sync manager; runs on the sync queue.
class FeedSyncOperation final : public SyncOperation {
 public:
  static constexpr std::string_view kClassName = "FeedSyncOperation";
  static constexpr int kConcurrentFeedFetches = 3;
  // Downloaded feeds that may wait for the merge while the next ones download (more made a cold
  // refresh a little faster and its peak memory larger).
  static constexpr size_t kDocumentsAwaitingMerge = 1;
  // Obsolete stories removed per feed and sync: a long-neglected feed is cleaned over several syncs.
  static constexpr std::int64_t kObsoleteStoriesPerSync = 500;
  // On an account's first sync, entries older than this arrive read.
  static constexpr std::chrono::seconds kInitialReadAge{604'800};

  FeedSyncOperation(std::shared_ptr<Account> account, const SyncEnvironment& environment);
  ~FeedSyncOperation() override;

  std::string_view className() const override { return kClassName; }
  // `errors`: the feeds that could not be fetched or parsed, in the order they failed.
  std::vector<FeedRefreshFailure> feedErrors() const override;
  std::vector<FeedEntriesNotKept> feedsWithOlderEntriesNotKept() const override;

  // The order the refresh walks a document's entries: newest first. An entry without a date of
  // its own takes the date of the nearest dated entry before it in the document (after it, when
  // none is before), so that the stable sort keeps it beside its neighbours. Any thread.
  static std::vector<std::pair<Date, const RSSEntry*>> entriesNewestFirst(const RSSFeed& feed, Date now);

 protected:
  void main() override;
  void cancelRequests() override;

 private:
  // What the operation needs of a feed off its own thread.
  struct FeedJob {
    ObjectId feed;
    std::string title;
    std::string url;
    FeedValidators validators;  // none when the document must be read in full
    bool neverRefreshed = false;  // every entry is likely new: previews are made while downloading
  };
  // One feed's download as a download thread hands it back.
  struct Download {
    size_t job = 0;
    std::optional<Result<ConditionalFeed>> feed;  // nothing: not fetched (cancelled, or deleted before)
    bool deletedBefore = false;
    bool deletedAfter = false;
    // The preview text of each entry (by its place in the document), made on the download thread
    // for a feed never refreshed, whose entries are all new, so that the merge does not make them
    // one after another.
    std::vector<std::optional<std::string>> previews;
  };
  // What the main context says about a feed: deleted there, and the stories on screen.
  struct ParentView {
    bool deleted = false;
    std::vector<ObjectId> selected;
  };

  ParentView parentView(ObjectId feed, bool withSelection);
  bool isFeedDeletedInParentContext(ObjectId feed) { return parentView(feed, false).deleted; }

  // Steps 5 and 6: every feed downloaded and merged; false when cancelled.
  bool refreshFeeds();
  // On a download thread.
  Download downloadAllStoriesOfFeed(size_t job);
  // On the operation's thread: merge, health, deletion, save.
  void finishDownload(Download& download);
  // False when the feed's stored stories could not be read: the merge is incomplete.
  bool parseEntriesFromRSSFeed(Feed& feed, const RSSFeed& parsed,
                               std::vector<std::optional<std::string>>* previews = nullptr);
  void downloadImages(FeedStory& story);
  // Step 7; false when cancelled.
  bool removeObsoleteStories();
  // The feeds of the account that have a story removeObsoleteStories could remove; nothing when
  // the query failed.
  std::optional<std::set<std::int64_t>> feedsWithObsoleteStories();
  void deleteObsoleteStoriesForFeed(Feed& feed, const std::vector<ObjectId>& selected);
  void dropQueuedChanges();
  void finishOperation();

  const bool cacheImages_;
  Date keepDate_{};
  std::vector<FeedJob> jobs_;
  std::vector<BookmarkImage> pendingImages_;  // of stories not saved yet
  FeedFetchGroup fetches_;
  std::unique_ptr<StoryImageDownloader> images_;  // only when the account caches images
  mutable std::mutex errorsMutex_;                // guards errors_ and notKept_
  std::vector<FeedRefreshFailure> errors_;
  std::vector<FeedEntriesNotKept> notKept_;
};

}  // namespace lectern
