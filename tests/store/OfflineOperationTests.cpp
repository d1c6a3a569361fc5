#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "StoreTestSupport.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedStory.h"
#include "store/Folder.h"
#include "store/OfflineOperation.h"

namespace lectern::test {
namespace {

class OfflineQueueTest : public StoreTest {
 protected:
  void SetUp() override { account_ = makeAccount("feedbin", "ann"); }

  std::shared_ptr<Bookmark> story(std::string id, Feed* feed = nullptr) {
    std::shared_ptr<Bookmark> bookmark;
    if (feed != nullptr) {
      auto made = context().insertNewObject<FeedStory>();
      made->setFeed(*feed);
      bookmark = made;
    } else {
      bookmark = context().insertNewObject<Bookmark>();
    }
    bookmark->setAccount(*account_);
    bookmark->setBookmark_id(std::move(id));
    return bookmark;
  }
  void queue(std::string_view id, std::optional<std::string> feed, OfflineOperationType type) {
    ASSERT_TRUE(account_->addOfflineOperationForBookmark(id, feed, type));
  }
  // The queue as "type bookmark feed" lines, oldest first.
  std::vector<std::string> pending() {
    EXPECT_TRUE(context().save());
    return queryStore(
        paths_.storeFile(),
        "SELECT type || ' ' || bookmark_id || ' ' || coalesce(feed_id, '-') FROM OfflineOperation "
        "ORDER BY created_at, id");
  }
  // Runs a Bookmark class operation and waits for its completion.
  std::optional<Error> run(const std::function<void(ServiceCompletion)>& operation) {
    bool done = false;
    std::optional<Error> result;
    operation([&](std::optional<Error> error) {
      result = std::move(error);
      done = true;
    });
    EXPECT_TRUE(pumpUntil([&] { return done; }));
    return result;
  }

  std::shared_ptr<Account> account_;
};

TEST_F(OfflineQueueTest, OppositesCancelAndRepeatsCollapse) {
  using enum OfflineOperationType;
  queue("b1", std::nullopt, kStar);
  queue("b1", std::nullopt, kUnstar);
  queue("b2", std::nullopt, kStar);
  queue("b2", std::nullopt, kStar);
  queue("b3", std::nullopt, kMarkRead);
  queue("b3", std::nullopt, kMarkUnread);
  queue("b3", std::nullopt, kMarkUnread);  // the read is gone, so this one is queued
  queue("b4", std::nullopt, kNone);        // code 0 is no operation
  EXPECT_EQ(pending(), (std::vector<std::string>{"1 b2 -", "4 b3 -"}));
}

TEST_F(OfflineQueueTest, ADeleteIsQueuedWhateverIsAlreadyQueued) {
  using enum OfflineOperationType;
  queue("b1", std::nullopt, kMarkRead);
  queue("b1", std::nullopt, kStar);
  queue("b1", std::nullopt, kDelete);
  queue("b1", std::nullopt, kDelete);
  EXPECT_EQ(pending(), (std::vector<std::string>{"3 b1 -", "1 b1 -", "99 b1 -"}));
}

TEST_F(OfflineQueueTest, ANilFeedIdMatchesOnlyOperationsWithoutOne) {
  using enum OfflineOperationType;
  queue("b1", "feed-1", kStar);
  queue("b1", std::nullopt, kUnstar);  // not the opposite of feed-1's star
  EXPECT_EQ(account_->offlineOperationsWithBookmarkId("b1", std::nullopt, kStar).value().size(), 0u);
  EXPECT_EQ(account_->offlineOperationsWithBookmarkId("b1", "feed-1", kStar).value().size(), 1u);
  EXPECT_EQ(account_->offlineOperationsWithBookmarkId("b1", std::nullopt, kUnstar).value().size(), 1u);
  EXPECT_TRUE(account_->removeOppositeOfflineOperationsForBookmark("b1", "feed-1", kUnstar).value());
  EXPECT_FALSE(account_->removeOppositeOfflineOperationsForBookmark("b1", "feed-2", kUnstar).value());
  EXPECT_EQ(pending(), (std::vector<std::string>{"2 b1 -"}));
}

TEST_F(OfflineQueueTest, ReplayListsDropOperationsWhoseItemIsGone) {
  using enum OfflineOperationType;
  story("kept");
  ASSERT_TRUE(context().save());
  queue("gone", std::nullopt, kMarkRead);
  clock_.advance(std::chrono::seconds(1));
  queue("kept", std::nullopt, kMarkRead);
  const auto entries = account_->arrayWithOperationsDictionariesForOperationType(kMarkRead).value();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].bookmarkObject->bookmark_id(), "kept");
  EXPECT_EQ(entries[0].operationObject->bookmark_id(), "kept");
  EXPECT_EQ(pending(), (std::vector<std::string>{"3 kept -"}));
}

TEST_F(OfflineQueueTest, AQueuedChangeFindsTheItemOfItsFeedWhenTwoFeedsShareAnId) {
  // Regression: items named the same in two feeds (a service whose ids are unique per feed) sent
  // the change of one for the other.
  auto first = account_->addFeedWithTitle("First", "http://example.com/a", "feed-a");
  auto second = account_->addFeedWithTitle("Second", "http://example.com/b", "feed-b");
  story("same", first.get());
  auto wanted = story("same", second.get());
  ASSERT_TRUE(context().save());
  queue("same", "feed-b", OfflineOperationType::kStar);
  ASSERT_TRUE(context().save());
  const auto entries =
      account_->arrayWithOperationsDictionariesForOperationType(OfflineOperationType::kStar).value();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].bookmarkObject->objectID(), wanted->objectID());
}

TEST_F(OfflineQueueTest, OfflineChangesAreQueuedWithTheStorysFeed) {
  auto feed = account_->addFeedWithTitle("Feed", "http://example.com/feed", "feed-7");
  auto item = story("s1", feed.get());
  auto plain = story("p1");
  ASSERT_TRUE(context().save());
  goOffline();

  EXPECT_EQ(run([&](auto done) {
              Bookmark::markBookmarks({item, plain}, *account_, true, done);
            }),
            std::nullopt);
  EXPECT_EQ(run([&](auto done) { Bookmark::markBookmark(*item, Bookmark::Favorited{true}, done); }),
            std::nullopt);
  EXPECT_EQ(run([&](auto done) { Bookmark::markBookmark(*item, Bookmark::Favorited{false}, done); }),
            std::nullopt);
  EXPECT_EQ(run([&](auto done) { Bookmark::deleteBookmarkWithId("p1", *account_, done); }), std::nullopt);
  EXPECT_EQ(pending(), (std::vector<std::string>{"3 s1 feed-7", "3 p1 -", "99 p1 -"}));
  EXPECT_TRUE(item->is_archived());
  EXPECT_FALSE(item->is_favorited());
  // An offline delete hides the item at once, as an offline mark applies at once; the queued
  // delete carries what the service needs.
  EXPECT_TRUE(plain->isDeleted());
  EXPECT_EQ(account_->findBookmarkWithId("p1").value(), nullptr);
  EXPECT_TRUE(service_->calls().empty());
  // Changes with nothing to queue fail and change nothing.
  auto error = run([&](auto done) { Bookmark::updateBookmark(*item, 0.5, done); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->description, "The Internet connection appears to be offline.");
  EXPECT_EQ(item->progress(), 0);
}

TEST_F(OfflineQueueTest, OnlineChangesGoToTheServiceAndQueueNothing) {
  auto item = story("s1");
  ASSERT_TRUE(context().save());
  EXPECT_EQ(run([&](auto done) { Bookmark::markBookmarks({item}, *account_, true, done); }), std::nullopt);
  EXPECT_EQ(run([&](auto done) { Bookmark::markBookmark(*item, Bookmark::Favorited{true}, done); }),
            std::nullopt);
  EXPECT_EQ(run([&](auto done) { Bookmark::updateBookmark(*item, 0.25, done); }), std::nullopt);
  EXPECT_EQ(run([&](auto done) { Bookmark::deleteBookmarkWithId("s1", *account_, done); }), std::nullopt);
  EXPECT_EQ(service_->calls(),
            (std::vector<std::string>{"mark s1 read", "star s1", "progress s1 0.25", "delete s1 -"}));
  EXPECT_TRUE(pending().empty());
  EXPECT_TRUE(item->isDeleted());
  EXPECT_FALSE(context().hasChanges());  // saved before the service was called
}

TEST_F(OfflineQueueTest, AChangeMadeOnlineSupersedesAnOlderQueuedOne) {
  // Regression (hardening issue): read offline, then unread online, left the queued read, and the
  // next sync marked the item read again at the service.
  auto item = story("s1");
  ASSERT_TRUE(context().save());
  goOffline();
  EXPECT_EQ(run([&](auto done) { Bookmark::markBookmarks({item}, *account_, true, done); }), std::nullopt);
  EXPECT_EQ(run([&](auto done) { Bookmark::markBookmark(*item, Bookmark::Favorited{true}, done); }),
            std::nullopt);
  ASSERT_EQ(pending(), (std::vector<std::string>{"3 s1 -", "1 s1 -"}));
  reachability_.set(ReachabilityStatus::kReachableViaWiFi);
  EXPECT_EQ(run([&](auto done) { Bookmark::markBookmarks({item}, *account_, false, done); }), std::nullopt);
  EXPECT_EQ(run([&](auto done) { Bookmark::markBookmark(*item, Bookmark::Favorited{false}, done); }),
            std::nullopt);
  EXPECT_TRUE(pending().empty());
  EXPECT_EQ(service_->calls(), (std::vector<std::string>{"mark s1 unread", "unstar s1"}));
}

TEST_F(OfflineQueueTest, AnOnlineChangeThatCannotReachItsServiceIsQueuedAndARefusalIsNot) {
  auto unreachable = story("s1");
  auto refused = story("s2");
  ASSERT_TRUE(context().save());
  service_->setOutcome([](const std::string& call) -> std::optional<Error> {
    if (call.find("s1") != std::string::npos) return networkFailure();
    if (call.find("s2") != std::string::npos) return httpFailure(403);
    return std::nullopt;
  });
  // Sent and failed for want of a network: queued, and the caller hears of no failure.
  EXPECT_EQ(run([&](auto done) { Bookmark::markBookmarks({unreachable}, *account_, true, done); }),
            std::nullopt);
  EXPECT_EQ(run([&](auto done) { Bookmark::markBookmark(*unreachable, Bookmark::Favorited{true}, done); }),
            std::nullopt);
  EXPECT_EQ(run([&](auto done) { Bookmark::deleteBookmarkWithId("s1", *account_, done); }), std::nullopt);
  // Refused by the server: the user sees the error, the local change stays, nothing is queued.
  auto error = run([&](auto done) { Bookmark::markBookmarks({refused}, *account_, true, done); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->info(kHTTPStatusCodeErrorKey), "403");
  EXPECT_TRUE(refused->is_archived());
  EXPECT_EQ(pending(), (std::vector<std::string>{"3 s1 -", "1 s1 -", "99 s1 -"}));
}

TEST_F(OfflineQueueTest, TheBuiltInReaderNeverQueuesItsChanges) {
  // Its items live in the library alone: an offline change is complete at once.
  auto reader = makeAccount("localrss", std::nullopt);
  auto item = context().insertNewObject<Bookmark>();
  item->setAccount(*reader);
  item->setBookmark_id("http://example.org/1");
  ASSERT_TRUE(context().save());
  goOffline();
  EXPECT_EQ(run([&](auto done) { Bookmark::markBookmarks({item}, *reader, true, done); }), std::nullopt);
  EXPECT_EQ(run([&](auto done) { Bookmark::markBookmark(*item, Bookmark::Favorited{true}, done); }),
            std::nullopt);
  EXPECT_TRUE(item->is_archived());
  EXPECT_TRUE(pending().empty());
  EXPECT_TRUE(service_->calls().empty());
}

// Runs the account's replay on a thread of its own, as a sync operation does.
class ReplayTest : public OfflineQueueTest {
 protected:
  Result<void> replay(std::function<bool()> isCancelled = {}) {
    Result<void> replayed;
    std::atomic<bool> finished{false};
    std::thread sync([&] {
      auto background = manager_->newBackgroundContext().value();
      auto own = background->existingObject<Account>(account_->objectID()).value();
      replayed = own->processOfflineOperations(isCancelled);
      finished = true;
    });
    EXPECT_TRUE(pumpUntil([&] { return finished.load(); }));
    sync.join();
    pump();
    return replayed;
  }
};

TEST_F(ReplayTest, AQueuedChangeIsClearedOnlyOnceItsServiceTookOrRefusedIt) {
  // Regression (hardening issue): replayed changes were cleared whatever became of them, and one
  // that failed for want of a network was merged into the one being replayed and lost with it.
  using enum OfflineOperationType;
  story("b1");
  story("b2");
  ASSERT_TRUE(context().save());
  queue("b1", std::nullopt, kMarkRead);
  clock_.advance(std::chrono::seconds(1));
  queue("b2", std::nullopt, kStar);
  queue("b3", std::nullopt, kDelete);
  ASSERT_TRUE(context().save());

  service_->setOutcome([](const std::string&) -> std::optional<Error> { return networkFailure(); });
  ASSERT_TRUE(replay());
  // The first change could not be sent: it stays, and the replay stops so the order holds.
  EXPECT_EQ(service_->calls(), std::vector<std::string>{"mark b1 read"});
  EXPECT_EQ(pending(), (std::vector<std::string>{"3 b1 -", "1 b2 -", "99 b3 -"}));

  service_->setOutcome([](const std::string& call) -> std::optional<Error> {
    if (call.starts_with("star")) return httpFailure(404);    // refused: dropped, not retried
    if (call.starts_with("delete")) return httpFailure(503);  // a server in trouble: kept
    return std::nullopt;
  });
  ASSERT_TRUE(replay());
  EXPECT_EQ(pending(), (std::vector<std::string>{"99 b3 -"}));
  service_->setOutcome({});
  ASSERT_TRUE(replay());
  EXPECT_TRUE(pending().empty());
  EXPECT_EQ(service_->calls(), (std::vector<std::string>{"mark b1 read", "mark b1 read", "star b2",
                                                         "delete b3 -", "delete b3 -"}));
}

TEST_F(ReplayTest, ACancelledReplayStopsWaitingAndKeepsTheChange) {
  story("b1");
  ASSERT_TRUE(context().save());
  queue("b1", std::nullopt, OfflineOperationType::kStar);
  ASSERT_TRUE(context().save());
  service_->holdAnswers(true);  // the server never answers
  std::atomic<bool> cancelled{false};
  std::thread canceller([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    cancelled = true;
  });
  ASSERT_TRUE(replay([&] { return cancelled.load(); }));
  canceller.join();
  EXPECT_EQ(service_->calls(), std::vector<std::string>{"star b1"});
  EXPECT_EQ(pending(), std::vector<std::string>{"1 b1 -"});
}

TEST_F(ReplayTest, ReplayRunsReadThenUnreadThenStarsThenDeletesAndClearsTheQueue) {
  using enum OfflineOperationType;
  auto first = story("b1");
  auto second = story("b2");
  ASSERT_TRUE(context().save());
  queue("b1", std::nullopt, kDelete);
  clock_.advance(std::chrono::seconds(1));
  queue("b2", std::nullopt, kStar);
  clock_.advance(std::chrono::seconds(1));
  queue("b1", std::nullopt, kMarkRead);
  queue("b2", std::nullopt, kMarkUnread);
  queue("vanished", std::nullopt, kMarkRead);
  ASSERT_TRUE(context().save());

  auto replayed = replay();
  ASSERT_TRUE(replayed) << replayed.error().message();
  EXPECT_EQ(service_->calls(),
            (std::vector<std::string>{"mark b1 read", "mark b2 unread", "star b2", "delete b1 -"}));
  EXPECT_TRUE(queryStore(paths_.storeFile(), "SELECT id FROM OfflineOperation").empty());
  EXPECT_EQ(queryStore(paths_.storeFile(), "SELECT bookmark_id FROM Bookmark"),
            std::vector<std::string>{"b2"});
}

}  // namespace
}  // namespace lectern::test
