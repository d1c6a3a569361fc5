// The steps the operation base gives every service: reconciling a server's id lists with the
// library, removing duplicates. Run by a probe operation on its own thread and context.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
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

TEST_F(SyncOperationTest, ServerListsMarkKnownItemsAndAnswerTheIdsToDownload) {
  auto account = localAccount();
  auto feed = addFeed(*account, "news");
  for (const auto& [id, read] : {std::pair{"s1", true}, {"s2", false}, {"42", true}}) {
    auto story = addStory(*account, *feed, id, std::chrono::hours(1), read);
    story->setBookmark_id(std::string(id));
  }
  ASSERT_TRUE(context().save());
  std::vector<std::string> unreadMissing;
  std::vector<std::string> starredMissing;

  runProbe(account, [&](ProbeOperation& probe) {
    // The unread list as plain ids, a repeat included; the starred list as objects, a number among them.
    unreadMissing =
        *probe.findExistingBookmarksForIds(nlohmann::json{"s1", "s2", "n1", "n1"}, /*isUnread=*/true,
                                           /*isFavorited=*/false, "id");
    starredMissing = *probe.findExistingBookmarksForIds(
        nlohmann::json::parse(R"([{"id": 42}, {"id": "s2"}, {"id": "n2"}, {"other": 1}])"),
        /*isUnread=*/false,
        /*isFavorited=*/true, "id");
  });

  EXPECT_THAT(unreadMissing, ElementsAre("n1"));
  EXPECT_THAT(starredMissing, ElementsAre("n2"));
  EXPECT_FALSE(stored(*account, "s1")->is_archived());
  EXPECT_FALSE(stored(*account, "s1")->is_favorited());
  EXPECT_TRUE(stored(*account, "42")->is_favorited());
  EXPECT_TRUE(stored(*account, "42")->is_archived());  // starring says nothing about reading
  EXPECT_TRUE(stored(*account, "s2")->is_favorited());
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
