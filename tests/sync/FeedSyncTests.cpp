// The built-in reader's refresh, end to end: the sync manager, the operation, a local feed server
// whose documents change between syncs, and a library in a temporary folder.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <filesystem>

#include "SyncTestSupport.h"
#include "core/Dates.h"
#include "core/Log.h"
#include "feeds/FeedDocumentParser.h"
#include "services/localrss/FeedSyncOperation.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedEnclosure.h"
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
                 entry("after the old one", hours(3))});
  ScopedLogCapture log;

  ASSERT_TRUE(syncAndWait(account));

  // The walk goes by date, so a recent entry listed after an old one is not missed.
  EXPECT_THAT(storiesOf(*feed), ElementsAre("today", "after the old one", "three days", "ten days*"));
  EXPECT_EQ(feed->older_not_kept(), 0);
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

namespace lectern::test {
namespace {

// An Atom document whose entries may lack a date ("" leaves <updated> out).
std::string atomWithDates(const std::vector<std::pair<std::string, std::string>>& entries) {
  std::string body = R"(<?xml version="1.0"?><feed xmlns="http://www.w3.org/2005/Atom"><title>f</title>)";
  for (const auto& [title, updated] : entries) {
    body += "<entry><title>" + title + "</title><link href=\"http://example.com/" + title + "\"/>";
    if (!updated.empty()) body += "<updated>" + updated + "</updated>";
    body += "</entry>";
  }
  return body + "</feed>";
}

TEST(FeedSyncOrder, NewestFirstWithUndatedEntriesBesideTheirNeighbours) {
  const Date now = dateFromRFC3339String("2026-11-20T12:00:00Z").value();
  auto titles = [&](const RSSFeed& feed) {
    std::vector<std::string> out;
    for (const auto& [date, entry] : FeedSyncOperation::entriesNewestFirst(feed, now))
      out.push_back(*entry->title);
    return out;
  };
  auto feedOf = [&](const std::vector<std::pair<std::string, std::string>>& entries) {
    return FeedDocumentParser::parseFeedData(atomWithDates(entries), now).value();
  };
  // Oldest first, with an undated entry after "b": it stays right after "b" in the walk.
  EXPECT_THAT(titles(feedOf({{"a", "2026-11-01T00:00:00Z"},
                             {"b", "2026-11-02T00:00:00Z"},
                             {"b-undated", ""},
                             {"c", "2026-11-03T00:00:00Z"}})),
              ElementsAre("c", "b", "b-undated", "a"));
  // Undated entries at the top go with the first dated one; equal dates keep document order.
  EXPECT_THAT(titles(feedOf({{"top", ""},
                             {"x", "2026-11-01T00:00:00Z"},
                             {"y", "2026-11-05T00:00:00Z"},
                             {"z", "2026-11-05T00:00:00Z"}})),
              ElementsAre("y", "z", "top", "x"));
  // No dates at all: document order, as before.
  EXPECT_THAT(titles(feedOf({{"p", ""}, {"q", ""}, {"r", ""}})), ElementsAre("p", "q", "r"));
}

TEST_F(FeedSyncTest, AStickyOldPostOrAnOldestFirstFeedHidesNoFreshPosts) {
  keepDays(4);  // 7 days
  auto account = localAccount();
  auto sticky = addFeed(*account, "sticky");
  auto ascending = addFeed(*account, "ascending");
  serve("sticky",
        {entry("pinned", 30 * kDay), entry("f1", hours(1)), entry("f2", hours(2)), entry("f3", hours(3))});
  serve("ascending", {entry("a1", 3 * kDay), entry("a2", 2 * kDay), entry("a3", kDay)});
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_THAT(storiesOf(*sticky), ElementsAre("f1", "f2", "f3"));
  EXPECT_THAT(storiesOf(*ascending), ElementsAre("a3", "a2", "a1"));

  // Later posts arrive at the bottom of the oldest-first feed and below the pinned one.
  clock_.advance(hours(2));
  serve("sticky",
        {entry("pinned", 30 * kDay), entry("f0", hours(1)), entry("f1", hours(3)), entry("f2", hours(4))});
  serve("ascending", {entry("a2", 2 * kDay), entry("a3", kDay), entry("a4", hours(1))});
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_THAT(storiesOf(*sticky), ElementsAre("f0", "f1", "f2", "f3"));
  EXPECT_THAT(storiesOf(*ascending), ElementsAre("a4", "a3", "a2", "a1"));
}

TEST_F(FeedSyncTest, DeletedStoriesStayDeletedWhileTheFeedListsThem) {
  keepDays(4);
  auto account = localAccount();
  auto feed = addFeed(*account, "news");
  serve("news", {entry("s1", hours(1)), entry("s2", hours(2)), entry("s3", hours(3))});
  ASSERT_TRUE(syncAndWait(account));
  auto remove = [&](const std::string& title) {
    Bookmark::deleteBookmarkWithId("http://example.com/" + title, *account,
                                   [](std::optional<Error> error) { EXPECT_FALSE(error); });
    mainQueue_.drain();
  };
  remove("s1");  // online
  reachability_.set(ReachabilityStatus::kNotReachable);
  remove("s3");  // offline
  reachability_.set(ReachabilityStatus::kReachableViaWiFi);
  EXPECT_EQ(feed->deletedEntryIds().value(),
            (std::set<std::string>{"http://example.com/s1", "http://example.com/s3"}));

  // The newest entry was deleted: the walk stops there as at a kept story, and nothing comes back.
  clock_.advance(hours(1));
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_THAT(storiesOf(*feed), ElementsAre("s2"));
  // A new entry above it arrives; a longer keep period walks past known entries and still skips them.
  serve("news", {entry("s0", hours(1)), entry("s1", hours(2)), entry("s2", hours(3)), entry("s3", hours(4))});
  keepDays(5);
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_THAT(storiesOf(*feed), ElementsAre("s0", "s2"));

  // Once the feed no longer lists an entry, its record goes.
  serve("news", {entry("s0", hours(1)), entry("s1", hours(2)), entry("s2", hours(3))});
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_EQ(feed->deletedEntryIds().value(), std::set<std::string>{"http://example.com/s1"});
  EXPECT_THAT(storiesOf(*feed), ElementsAre("s0", "s2"));
}

TEST_F(FeedSyncTest, TheFirstRefreshOfAFeedOlderThanTheKeepPeriodSaysWhatItLeftOut) {
  keepDays(4);  // 7 days
  auto account = localAccount();
  auto old = addFeed(*account, "old");
  auto fresh = addFeed(*account, "fresh");
  serve("old",
        {entry("o1", 10 * kDay), entry("o2", 12 * kDay), {"no link", "", 11 * kDay}, entry("o3", 40 * kDay)});
  serve("fresh", {entry("n1", hours(1)), entry("n2", 9 * kDay)});
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_THAT(storiesOf(*old), IsEmpty());
  EXPECT_EQ(old->older_not_kept(), 3);
  EXPECT_EQ(fresh->older_not_kept(), 0);  // it kept something
  ASSERT_EQ(observer_.reports.size(), 1u);
  ASSERT_EQ(observer_.reports[0].olderNotKept.size(), 1u);
  EXPECT_EQ(observer_.reports[0].olderNotKept[0].title, "old");
  EXPECT_EQ(observer_.reports[0].olderNotKept[0].count, 3);
  EXPECT_EQ(olderEntriesNotKeptNote(3, Feed::keepPeriodDays(defaults_)),
            "3 older articles not kept (keep period 7 days; `lectern config set DaysKeepFeedReadItemsIndex "
            "\u2026`)");

  // Only the first refresh reports; the count stays on the feed until a story arrives.
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_TRUE(observer_.reports.back().olderNotKept.empty());
  EXPECT_EQ(old->older_not_kept(), 3);
  serve("old", {entry("o0", hours(1)), entry("o1", 10 * kDay)});
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_EQ(old->older_not_kept(), 0);
}

TEST_F(FeedSyncTest, AnUnchangedFeedAnswers304AndCostsNoMerge) {
  server_.answerConditionally();
  keepDays(4);
  auto account = localAccount();
  auto feed = addFeed(*account, "news");
  serve("news", {entry("s1", hours(1))});
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_EQ(feed->http_etag(), "\"news-v1\"");
  EXPECT_TRUE(feed->http_last_modified());

  // A failure recorded meanwhile: the 304 is a successful refresh and clears it.
  feed->recordRefreshFailed(clock_.now(), "Failed to fetch feed: timed out");
  ASSERT_TRUE(context().save());
  clock_.advance(hours(1));
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_EQ(server_.notModified("news"), 1);
  EXPECT_FALSE(feed->last_error());
  EXPECT_FALSE(feed->failing_since());
  EXPECT_EQ(feed->last_refresh(), clock_.now());
  EXPECT_TRUE(observer_.reports.back().failedFeeds.empty());

  // A changed document is read in full, and its new validators kept.
  serve("news", {entry("s2", hours(1)), entry("s1", hours(2))});
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_EQ(server_.notModified("news"), 1);
  EXPECT_THAT(storiesOf(*feed), ElementsAre("s2", "s1"));
  EXPECT_EQ(feed->http_etag(), "\"news-v2\"");

  // A lengthened keep period needs the whole document: no validators are sent.
  keepDays(5);
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_EQ(server_.notModified("news"), 1);
  EXPECT_EQ(server_.requests("news"), 4);
}

TEST_F(FeedSyncTest, TheSameDocumentAnsweredInFullIsNotMergedAgain) {
  keepDays(4);
  auto account = localAccount();
  auto feed = addFeed(*account, "news");
  serve("news", {entry("s1", hours(1))});
  ASSERT_TRUE(syncAndWait(account));
  ASSERT_THAT(storiesOf(*feed), ElementsAre("s1"));
  const auto firstHash = feed->body_hash();
  ASSERT_TRUE(firstHash);
  EXPECT_EQ(firstHash->size(), 64u);

  // The story gone without a record of its deletion: only a merge would bring it back.
  const auto dropStory = [&] {
    auto stories = feed->stories();
    ASSERT_TRUE(stories);
    for (const auto& story : *stories) context().deleteObject(*story);
    ASSERT_TRUE(context().save());
  };
  dropStory();
  feed->recordRefreshFailed(clock_.now(), "Failed to fetch feed: timed out");
  ASSERT_TRUE(context().save());
  clock_.advance(hours(1));
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_EQ(server_.requests("news"), 2);
  EXPECT_THAT(storiesOf(*feed), IsEmpty());  // the same document: not read, not merged
  EXPECT_FALSE(feed->last_error());          // but a successful refresh
  EXPECT_EQ(feed->last_refresh(), clock_.now());

  // A changed document is merged, and its hash kept.
  serve("news", {entry("s2", hours(1)), entry("s1", hours(2))});
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_THAT(storiesOf(*feed), ElementsAre("s2", "s1"));
  EXPECT_NE(feed->body_hash(), firstHash);

  // A lengthened keep period reads the whole document again, the same one included.
  dropStory();
  keepDays(5);
  ASSERT_TRUE(syncAndWait(account));
  EXPECT_THAT(storiesOf(*feed), ElementsAre("s2", "s1"));
}

TEST_F(FeedSyncTest, APodcastEpisodeIsKeptWithItsStory) {
  auto account = localAccount();
  auto feed = addFeed(*account, "cast");
  const std::string date = rfc3339String(clock_.now() - hours(2));
  server_.setBody("cast", fmt::format(R"(<?xml version="1.0"?>
<rss version="2.0" xmlns:dc="http://purl.org/dc/elements/1.1/"><channel><title>Cast</title>
<item><title>Episode 1</title><link>https://cast.example/1</link><dc:date>{0}</dc:date>
<enclosure url="https://cast.example/1.mp3" type="audio/mpeg" length="12345"/></item>
<item><title>Notes only</title><link>https://cast.example/2</link><dc:date>{0}</dc:date></item>
</channel></rss>)", date));
  ASSERT_TRUE(syncAndWait(account));
  auto stories = feed->stories();
  ASSERT_TRUE(stories);
  ASSERT_EQ(stories->size(), 2u);
  for (const auto& story : *stories) {
    auto enclosures = story->enclosures();
    ASSERT_TRUE(enclosures);
    if (story->title() == "Notes only") {
      EXPECT_THAT(*enclosures, IsEmpty());
      continue;
    }
    ASSERT_EQ(enclosures->size(), 1u);
    EXPECT_EQ((*enclosures)[0]->url(), "https://cast.example/1.mp3");
    EXPECT_EQ((*enclosures)[0]->type(), "audio/mpeg");
    EXPECT_EQ((*enclosures)[0]->length(), 12345);
  }
}

}  // namespace
}  // namespace lectern::test
