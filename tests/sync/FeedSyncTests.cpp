// The built-in reader's refresh, end to end: the sync manager, the operation, a local feed server
// whose documents change between syncs, and a library in a temporary folder.
#include <gmock/gmock.h>

#include <filesystem>

#include "SyncTestSupport.h"
#include "core/Log.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedStory.h"
#include "store/ObjectContext.h"
#include "sync/SyncWindowControllerDelegate.h"

namespace lectern::test {
namespace {

using std::chrono::hours;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr hours kDay{24};

TestEntry entry(const std::string& title, hours age) { return {title, "http://example.com/" + title, age}; }

class FeedSyncTest : public SyncTest {
 protected:
  void serve(const std::string& name, const std::vector<TestEntry>& entries) {
    server_.setFeed(name, entries, clock_.now());
  }
  void keepDays(int index) { ASSERT_TRUE(defaults_.setInteger(kDaysKeepFeedReadItemsIndex, index)); }
};

// Stories selected in the article list, as the window would report them.
class Selection final : public SyncWindowControllerDelegate {
 public:
  std::vector<ObjectId> selectedBookmarks() override { return selected; }
  std::vector<ObjectId> selected;
};

TEST_F(FeedSyncTest, FirstSyncStoresEntriesInsideTheKeepPeriodAndMarksWeekOldOnesRead) {
  keepDays(5);  // 14 days
  auto account = localAccount();
  auto feed = addFeed(*account, "news");
  serve("news", {entry("today", hours(1)),
                 {"no link", "", hours(2)},
                 entry("three days", 3 * kDay),
                 entry("ten days", 10 * kDay),
                 entry("twenty days", 20 * kDay),
                 entry("after the cut", hours(3))});
  ScopedLogCapture log;

  ASSERT_TRUE(syncAndWait(account));

  // The walk stops at the first entry older than the keep date, even before newer ones.
  EXPECT_THAT(storiesOf(*feed), ElementsAre("today", "three days", "ten days*"));
  EXPECT_TRUE(log.contains("Built-in RSS: validation failed for story: no link"));
  EXPECT_TRUE(log.contains("Built-in RSS: Downloading all stories of feed: news"));
  EXPECT_TRUE(log.contains("Syncing account: Local"));
  EXPECT_TRUE(log.contains("Did finished sync: Local"));
  EXPECT_TRUE(log.contains("Sync operation completed: FeedSyncOperation"));
  EXPECT_EQ(account->last_sync(), clock_.now());
  EXPECT_EQ(account->last_sync_keep_index(), 5);
  EXPECT_EQ(feed->last_refresh(), clock_.now());
  EXPECT_EQ(feed->date_updated(), clock_.now());
  EXPECT_FALSE(account->isSyncing());
  EXPECT_FALSE(account->hasError());
  EXPECT_FALSE(manager_->isSyncing());
  EXPECT_THAT(observer_.started, ElementsAre("Local"));
  EXPECT_EQ(observer_.passes, 1);
}

TEST_F(FeedSyncTest, LaterSyncsStopAtTheFirstKnownEntryUnlessTheKeepPeriodGrew) {
  keepDays(4);  // 7 days
  auto account = localAccount();
  auto feed = addFeed(*account, "news");
  serve("news", {entry("a", hours(5)), entry("b", 10 * kDay)});
  ASSERT_TRUE(syncAndWait(account));
  ASSERT_THAT(storiesOf(*feed), ElementsAre("a"));

  // A new entry on top is added; one hidden below a known entry is not looked at.
  clock_.advance(hours(1));
  serve("news",
        {entry("new", hours(1)), entry("a", hours(6)), entry("hidden", hours(7)), entry("b", 10 * kDay)});
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_THAT(storiesOf(*feed), ElementsAre("new", "a"));

  // Fourteen days instead of seven: the walk goes past known entries to the older ones, and new
  // stories of a later sync arrive unread.
  keepDays(5);
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_THAT(storiesOf(*feed), ElementsAre("new", "a", "hidden", "b"));
  EXPECT_EQ(account->last_sync_keep_index(), 5);

  // The period is now the stored one again: the walk stops at "new".
  clock_.advance(hours(1));
  serve("news", {entry("newest", hours(1)), entry("new", hours(2)), entry("gap", hours(3))});
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_THAT(storiesOf(*feed), ElementsAre("newest", "new", "a", "hidden", "b"));
  EXPECT_EQ(server_.requests("news"), 4);
}

TEST_F(FeedSyncTest, ObsoleteStoriesGoButStarredUnreadRecentAndSelectedOnesStay) {
  auto account = localAccount();
  auto feed = addFeed(*account, "news");
  serve("news", {});
  addStory(*account, *feed, "old read", 30 * kDay, /*read=*/true);
  addStory(*account, *feed, "old starred", 31 * kDay, /*read=*/true, /*starred=*/true);
  addStory(*account, *feed, "old unread", 32 * kDay, /*read=*/false);
  auto selected = addStory(*account, *feed, "old selected", 33 * kDay, /*read=*/true);
  addStory(*account, *feed, "recent read", 2 * kDay, /*read=*/true);
  Selection window;
  window.selected = {selected->objectID()};
  manager_->setMainWindowControllerDelegate(&window);
  ScopedLogCapture log;

  ASSERT_TRUE(syncAndWait(account));
  EXPECT_THAT(storiesOf(*feed), ElementsAre("recent read*", "old starred*", "old unread", "old selected*"));
  EXPECT_TRUE(log.contains("Built-in RSS: Removing obsolete feed entries from feed: news"));

  window.selected.clear();
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_THAT(storiesOf(*feed), ElementsAre("recent read*", "old starred*", "old unread"));
}

TEST_F(FeedSyncTest, AtMostFiveHundredObsoleteStoriesOfAFeedGoPerSync) {
  auto account = localAccount();
  auto feed = addFeed(*account, "news");
  serve("news", {});
  for (int i = 0; i < 600; ++i) {
    auto story = context().insertNewObject<FeedStory>();
    story->setAccount(*account);
    story->setFeed(*feed);
    story->setBookmark_id(std::to_string(i));
    story->setDate_added(clock_.now() - 30 * kDay);
    story->setIs_archived(true);
  }
  ASSERT_TRUE(context().save());

  ASSERT_TRUE(syncAndWait(account));
  EXPECT_EQ(storiesOf(*feed).size(), 100u);
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_THAT(storiesOf(*feed), IsEmpty());
}

TEST_F(FeedSyncTest, FeedsDeletedByTheUserDuringASyncStayDeleted) {
  auto account = localAccount();
  std::map<std::string, std::shared_ptr<Feed>> feeds;
  for (const std::string name : {"a", "b", "c", "d", "e"}) {
    feeds[name] = addFeed(*account, name);
    serve(name, {entry(name + "1", hours(1)), entry(name + "2", hours(2))});
  }
  const ObjectId b = feeds["b"]->objectID();
  const ObjectId e = feeds["e"]->objectID();
  auto deleteOnMain = [this](ObjectId id) {
    mainQueue_.runSync([&] {
      auto feed = context().existingObject<Feed>(id);
      ASSERT_TRUE(feed && *feed);
      context().deleteObject(**feed);
      ASSERT_TRUE(context().save());
    });
  };
  // "e" goes before its turn comes; "b" goes while its own document is on the way.
  server_.setHook("a", [&] { deleteOnMain(e); });
  server_.setHook("b", [&] { deleteOnMain(b); });
  ScopedLogCapture log;

  ASSERT_TRUE(syncAndWait(account));
  EXPECT_FALSE(log.contains("Failed to save")) << "a save of the sync brought a deleted feed back";
  EXPECT_EQ(server_.requests("e"), 0);
  EXPECT_EQ(context().count(Entity::kFeedStory, "feed IN (?, ?)", {b.row, e.row}), 0);
  EXPECT_EQ(context().count(Entity::kFeed, "id IN (?, ?)", {b.row, e.row}), 0);
  for (const std::string name : {"a", "c", "d"}) EXPECT_EQ(storiesOf(*feeds[name]).size(), 2u) << name;
  EXPECT_FALSE(account->hasError());
}

TEST_F(FeedSyncTest, NoMoreThanThreeFeedsAreDownloadedAtOnce) {
  auto account = localAccount();
  std::vector<std::shared_ptr<Feed>> feeds;
  for (int i = 0; i < 10; ++i) {
    const auto name = "f" + std::to_string(i);
    feeds.push_back(addFeed(*account, name));
    serve(name, {entry(name, hours(1))});
  }
  server_.rendezvous(3, 10);

  ASSERT_TRUE(syncAndWait(account));
  EXPECT_EQ(server_.maxConcurrent(), 3);
  for (const auto& feed : feeds) EXPECT_EQ(storiesOf(*feed).size(), 1u);
}

TEST_F(FeedSyncTest, AFailingFeedIsRecordedAndTheOthersGoOn) {
  auto account = localAccount();
  auto good = addFeed(*account, "good");
  auto missing = addFeed(*account, "missing");
  auto broken = addFeed(*account, "broken");
  serve("good", {entry("g", hours(1))});
  server_.setBody("missing", "gone", 404);
  server_.setBody("broken", "<feed><entry>");

  ASSERT_TRUE(syncAndWait(account));
  EXPECT_THAT(storiesOf(*good), ElementsAre("g"));
  EXPECT_FALSE(account->hasError());
  ASSERT_EQ(observer_.reports.size(), 1u);
  const auto& failed = observer_.reports[0].failedFeeds;
  ASSERT_EQ(failed.size(), 2u);
  std::map<std::string, std::string> reasons;
  for (const auto& feed : failed) reasons[feed.title] = feed.error.description;
  EXPECT_EQ(reasons["missing"], "Failed to fetch feed: " + server_.url("missing"));
  EXPECT_FALSE(reasons["broken"].empty());
  EXPECT_EQ(missing->failing_since(), clock_.now());
  EXPECT_TRUE(missing->last_error().has_value());

  // Failing again keeps the first failure's date; a recovered feed is healthy again.
  const Date firstFailure = clock_.now();
  clock_.advance(hours(1));
  serve("broken", {entry("fixed", hours(1))});
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_EQ(missing->failing_since(), firstFailure);
  EXPECT_FALSE(broken->last_error().has_value());
  EXPECT_THAT(storiesOf(*broken), ElementsAre("fixed"));
}

TEST_F(FeedSyncTest, OfflineChangesApplyAtOnceAndTheRefreshSendsNothing) {
  // The reader's items live in the library alone: an offline change is complete when it is made,
  // and its refresh replays nothing (a queue an older version left is dropped).
  auto service = std::make_shared<RecordingService>(mainQueue_);
  dataManager_->setServiceFactory([service](Account&) { return service; });
  auto account = localAccount();
  auto feed = addFeed(*account, "news");
  serve("news", {entry("s1", hours(1)), entry("s2", hours(2))});
  ASSERT_TRUE(syncAndWait(account));
  auto story = [&](const std::string& title) {
    return *account->findBookmarkWithId("http://example.com/" + title);
  };

  reachability_.set(ReachabilityStatus::kNotReachable);
  auto done = [](std::optional<Error> error) { EXPECT_FALSE(error); };
  Bookmark::markBookmarks({story("s1")}, *account, /*archived=*/true, done);
  Bookmark::markBookmark(*story("s2"), Bookmark::Favorited{true}, done);
  mainQueue_.drain();
  EXPECT_TRUE(story("s1")->is_archived());
  EXPECT_TRUE(story("s2")->is_favorited());
  EXPECT_EQ(context().count(Entity::kOfflineOperation, "1"), 0);

  ASSERT_TRUE(account->addOfflineOperationForBookmark("http://example.com/s2", feed->folder_id(),
                                                      OfflineOperationType::kMarkRead));
  ASSERT_TRUE(context().save());
  reachability_.set(ReachabilityStatus::kReachableViaWiFi);
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_TRUE(service->calls().empty());
  EXPECT_EQ(context().count(Entity::kOfflineOperation, "1"), 0);
  EXPECT_FALSE(story("s2")->is_archived());
}

TEST_F(FeedSyncTest, CancellingARunningSyncClearsTheAccountsSyncingState) {
  auto account = localAccount();
  addFeed(*account, "slow");
  serve("slow", {entry("late", hours(1))});
  server_.hold("slow");
  ScopedLogCapture log;

  ASSERT_EQ(manager_->syncAccounts({account}), 1u);
  ASSERT_TRUE(account->isSyncing());
  ASSERT_TRUE(mainQueue_.runUntil([&] { return server_.requests("slow") == 1; }, std::chrono::seconds(20)));
  manager_->cancelAllSyncOperations();

  ASSERT_TRUE(manager_->waitUntilSyncFinished(std::chrono::seconds(20)));
  EXPECT_FALSE(account->isSyncing());
  EXPECT_FALSE(account->last_sync().has_value());
  ASSERT_EQ(observer_.reports.size(), 1u);
  EXPECT_TRUE(observer_.reports[0].cancelled);
  EXPECT_THAT(observer_.reports[0].failedFeeds, IsEmpty());
  EXPECT_TRUE(log.contains("Sync operation cancelled: FeedSyncOperation"));
}

TEST_F(FeedSyncTest, PicturesOfNewStoriesAreCachedWhenTheAccountAsksForIt) {
  keepDays(5);
  auto account = localAccount();
  auto feed = addFeed(*account, "pictures");
  auto withPicture = [&](const std::string& title, hours age) {
    TestEntry picture = entry(title, age);
    picture.html = R"(<p><img src=")" + server_.imageUrl(title + ".png") + R"("></p>)";
    return picture;
  };
  // The old story arrives read on the first sync and gets no pictures.
  serve("pictures", {withPicture("new", hours(1)), withPicture("old", 10 * kDay)});
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_EQ(server_.imageRequests(), 0);  // "cacheImages" is off by default

  ASSERT_TRUE(account->preferences().setValue("cacheImages", true));
  serve("pictures", {withPicture("newer", hours(1)), withPicture("new", hours(2))});
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_EQ(server_.imageRequests(), 1);
  EXPECT_TRUE(std::filesystem::exists(
      BookmarkImage(server_.imageUrl("newer.png")).cachedImagePath(account->imageCacheFolder())));
}

}  // namespace
}  // namespace lectern::test
