// The steps the operation base gives every service: reconciling a server's id lists with the
// library, removing duplicates. Run by a probe operation on its own thread and context.
#include <gmock/gmock.h>

#include <atomic>
#include <condition_variable>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "SyncTestSupport.h"
#include "core/Log.h"
#include "store/Bookmark.h"
#include "store/ObjectContext.h"
#include "sync/SyncOperation.h"

namespace lectern::test {
namespace {

using ::testing::ElementsAre;

class ProbeOperation final : public SyncOperation {
 public:
  using SyncOperation::findAndDeleteDuplicatesInContainer;
  using SyncOperation::findExistingBookmarksForIds;
  using SyncOperation::moc;
  using SyncOperation::SyncOperation;
  std::string_view className() const override { return "ProbeOperation"; }
  std::function<void(ProbeOperation&)> body;

 protected:
  void main() override {
    if (setupManagedObjectContext()) {
      body(*this);
      saveContext();
    }
    completeOperation();
  }
};

class SyncOperationTest : public SyncTest {
 protected:
  // Runs `body` inside a probe operation of `account`, as a sync queue would.
  void runProbe(const std::shared_ptr<Account>& account, std::function<void(ProbeOperation&)> body) {
    auto probe = std::make_shared<ProbeOperation>(account, environment_);
    probe->body = std::move(body);
    std::thread worker([probe] { probe->start(); });
    EXPECT_TRUE(mainQueue_.runUntil([&] { return probe->isFinished(); }, std::chrono::seconds(20)));
    worker.join();
    mainQueue_.drain();
  }
  std::shared_ptr<Bookmark> stored(Account& account, const std::string& id) {
    return *account.findBookmarkWithId(id);
  }
};

TEST_F(SyncOperationTest, ServerListsMarkKnownItemsAndAnswerTheStoredOnesAndTheIdsToDownload) {
  auto account = localAccount();
  auto feed = addFeed(*account, "news");
  for (const auto& [id, read] : {std::pair{"s1", true}, {"s2", false}, {"42", true}}) {
    auto story = addStory(*account, *feed, id, std::chrono::hours(1), read);
    story->setBookmark_id(std::string(id));
    story->setBookmark_hash(std::string("hash-") + id);
  }
  ASSERT_TRUE(context().save());
  auto titles = [](const std::vector<std::shared_ptr<Bookmark>>& bookmarks) {
    std::set<std::string> found;
    for (const auto& bookmark : bookmarks) found.insert(bookmark->title().value_or(""));
    return found;
  };
  SyncOperation::ExistingBookmarks unread, starred, byHash;

  runProbe(account, [&](ProbeOperation& probe) {
    // The unread list as plain ids, a repeat included; the starred list as objects, a number among them.
    unread = *probe.findExistingBookmarksForIds(nlohmann::json{"s1", "s2", "n1", "n1"}, /*isUnread=*/true,
                                                /*isFavorited=*/false, "bookmark_id");
    starred = *probe.findExistingBookmarksForIds(
        nlohmann::json::parse(R"([{"bookmark_id": 42}, {"bookmark_id": "s2"}, {"bookmark_id": "n2"}, {"other": 1}])"),
        /*isUnread=*/false, /*isFavorited=*/true, "bookmark_id");
    // A service that names items by hash matches on the hash, not on the id.
    byHash = *probe.findExistingBookmarksForIds(nlohmann::json{"hash-s1", "s2", "hash-new"}, /*isUnread=*/false,
                                                /*isFavorited=*/false, "bookmark_hash");
  });

  // The stored ones come back (the aggregators collect them and mark every other unread story read).
  EXPECT_EQ(titles(unread.existing), (std::set<std::string>{"s1", "s2"}));
  EXPECT_THAT(unread.missing, ElementsAre("n1"));
  EXPECT_EQ(titles(starred.existing), (std::set<std::string>{"42", "s2"}));
  EXPECT_THAT(starred.missing, ElementsAre("n2"));
  EXPECT_EQ(titles(byHash.existing), (std::set<std::string>{"s1"}));
  EXPECT_THAT(byHash.missing, ElementsAre("s2", "hash-new"));
  EXPECT_FALSE(stored(*account, "s1")->is_archived());
  EXPECT_FALSE(stored(*account, "s1")->is_favorited());
  EXPECT_TRUE(stored(*account, "42")->is_favorited());
  EXPECT_TRUE(stored(*account, "42")->is_archived());  // starring says nothing about reading
  EXPECT_TRUE(stored(*account, "s2")->is_favorited());
}

// A service whose one request blocks until its requests are cancelled.
class BlockingService final : public AccountService {
 public:
  void markBookmarks(const std::vector<std::shared_ptr<Bookmark>>&, Account&, bool, ServiceCompletion) override {}
  void markBookmarkFavorited(Bookmark&, bool, ServiceCompletion) override {}
  void markBookmarkShared(Bookmark&, bool, ServiceCompletion) override {}
  void deleteBookmark(Account&, const std::string&, const std::optional<std::string>&, ServiceCompletion) override {}
  void moveBookmark(Bookmark&, Folder&, ServiceCompletion) override {}
  void updateTags(Bookmark&, ServiceCompletion) override {}
  void updateReadProgress(Bookmark&, double, ServiceCompletion) override {}
  void cancelAllRequests() override {
    std::lock_guard lock(mutex);
    cancelled = true;
    changed.notify_all();
  }
  // What a blocking request does: waits for its answer, which never comes, or for a cancel.
  bool request() {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(30), [&] { return cancelled; });
  }
  std::mutex mutex;  // guards cancelled
  std::condition_variable changed;
  bool cancelled = false;
};

TEST_F(SyncOperationTest, CancellingAnOperationStopsItsOwnServicesRequests) {
  // Regression (hardening issue): cancel left the operation's own client alone, so a request
  // blocked on a silent server held the sync (and account deletion) until it timed out.
  auto service = std::make_shared<BlockingService>();
  dataManager_->setServiceFactory([service](Account&) { return service; });
  auto account = localAccount();
  auto probe = std::make_shared<ProbeOperation>(account, environment_);
  std::atomic<bool> blocked{false};
  bool stoppedByCancel = false;
  probe->body = [&](ProbeOperation&) {
    blocked = true;
    stoppedByCancel = service->request();
  };
  std::thread worker([probe] { probe->start(); });
  ASSERT_TRUE(mainQueue_.runUntil([&] { return blocked.load(); }, std::chrono::seconds(20)));
  const auto cancelledAt = std::chrono::steady_clock::now();
  probe->cancel();
  EXPECT_TRUE(mainQueue_.runUntil([&] { return probe->isFinished(); }, std::chrono::seconds(20)));
  EXPECT_LT(std::chrono::steady_clock::now() - cancelledAt, std::chrono::seconds(10));
  worker.join();
  mainQueue_.drain();
  EXPECT_TRUE(stoppedByCancel);
}

// An operation whose main forgets to complete.
class ForgetfulOperation final : public SyncOperation {
 public:
  using SyncOperation::SyncOperation;
  std::string_view className() const override { return "ForgetfulOperation"; }

 protected:
  void main() override { setupManagedObjectContext(); }
};

TEST_F(SyncOperationTest, AnOperationThatReturnsWithoutCompletingIsCompletedByTheBase) {
  ScopedLogCapture log;
  auto account = localAccount();
  auto operation = std::make_shared<ForgetfulOperation>(account, environment_);
  std::thread worker([operation] { operation->start(); });
  EXPECT_TRUE(mainQueue_.runUntil([&] { return operation->isFinished(); }, std::chrono::seconds(20)));
  worker.join();
  mainQueue_.drain();
  ASSERT_TRUE(operation->error());
  EXPECT_EQ(operation->error()->code, kSyncOperationIncompleteErrorCode);
  EXPECT_EQ(log.count("Internal inconsistency: ForgetfulOperation returned without completing"), 1u);
}

TEST_F(SyncOperationTest, DuplicatesLoseToTheFirstItemOfTheirValue) {
  auto account = localAccount();
  auto feed = addFeed(*account, "news");
  for (const auto& [title, age] : {std::pair{"first", 3}, {"second", 2}, {"third", 1}}) {
    addStory(*account, *feed, title, std::chrono::hours(age), false)->setBookmark_id(std::string("dup"));
  }
  addStory(*account, *feed, "solo", std::chrono::hours(1), false);
  ASSERT_TRUE(context().save());
  std::vector<std::string> kept;
  ScopedLogCapture log;

  runProbe(account, [&](ProbeOperation& probe) {
    ObjectContext::FetchRequest request;
    request.orderBy = "date_added, id";
    auto all = *probe.moc().fetch<Bookmark>(request);
    for (const auto& bookmark : probe.findAndDeleteDuplicatesInContainer(all, &SyncOperation::bookmarkIdOf)) {
      kept.push_back(bookmark->title().value_or(""));
    }
  });

  EXPECT_THAT(kept, ElementsAre("first", "solo"));
  EXPECT_THAT(storiesOf(*feed), ElementsAre("solo", "first"));
  EXPECT_EQ(log.count("Remove duplicate of dup: "), 2u);
}

}  // namespace
}  // namespace lectern::test
