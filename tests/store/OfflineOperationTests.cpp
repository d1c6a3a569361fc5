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
  EXPECT_FALSE(plain->isDeleted());  // replaying the delete needs it
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

TEST_F(OfflineQueueTest, ReplayRunsReadThenUnreadThenStarsThenDeletesAndClearsTheQueue) {
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

  // Replay blocks its thread on read and unread changes: run it as a sync operation would.
  Result<void> replayed;
  std::atomic<bool> finished{false};
  std::thread sync([&] {
    auto background = manager_->newBackgroundContext().value();
    auto own = background->existingObject<Account>(account_->objectID()).value();
    replayed = own->processOfflineOperations();
    finished = true;
  });
  EXPECT_TRUE(pumpUntil([&] { return finished.load(); }));
  sync.join();
  pump();
  ASSERT_TRUE(replayed) << replayed.error().message();
  EXPECT_EQ(service_->calls(),
            (std::vector<std::string>{"mark b1 read", "mark b2 unread", "star b2", "delete b1 -"}));
  EXPECT_TRUE(queryStore(paths_.storeFile(), "SELECT id FROM OfflineOperation").empty());
  EXPECT_EQ(queryStore(paths_.storeFile(), "SELECT bookmark_id FROM Bookmark"),
            std::vector<std::string>{"b2"});
}

}  // namespace
}  // namespace lectern::test
