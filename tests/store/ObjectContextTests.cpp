#include <fmt/format.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "StoreTestSupport.h"
#include "core/Log.h"
#include "store/Bookmark.h"
#include "store/Content.h"
#include "store/Feed.h"
#include "store/FeedStory.h"
#include "store/Folder.h"
#include "store/ObjectContext.h"
#include "store/SqliteDatabase.h"

namespace lectern::test {
namespace {

TEST(SqliteDatabase, TheSameQueryCanRunInsideItself) {
  TempDir folder;
  auto db = SqliteDatabase::open(folder / "x.db", SqliteDatabase::OpenMode::kReadWriteCreate,
                                 std::chrono::seconds(1))
                .value();
  const std::string sql = "SELECT value FROM json_each(?) ORDER BY value";
  auto outer = db->prepare(sql).value();
  outer->bind(1, std::string("[1,2]"));
  std::vector<std::string> seen;
  while (outer->step().value()) {
    // A second user of the cached statement gets its own copy; the outer one keeps its place.
    auto inner = db->selectAll(sql, std::vector<SqlValue>{std::string("[7]")}).value();
    seen.push_back(fmt::format("{}:{}", outer->columnInteger(0), integerOf(inner.at(0)[0]).value_or(0)));
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"1:7", "2:7"}));
  auto reused = db->selectAll(sql, std::vector<SqlValue>{std::string("[3]")}).value();
  EXPECT_EQ(integerOf(reused.at(0)[0]), 3);
  // A busy or locked database never shows SQLite's "database is locked" to the user.
  EXPECT_EQ(sqliteError(nullptr, 5, "Failed to save").description,
            "Failed to save: the library is busy with another task; try again");
}

class ObjectContextTest : public StoreTest {
 protected:
  std::shared_ptr<Bookmark> addBookmark(Account& account, std::string id) {
    auto bookmark = context().insertNewObject<Bookmark>();
    bookmark->setAccount(account);
    bookmark->setBookmark_id(std::move(id));
    bookmark->setDate_added(clock_.now());
    return bookmark;
  }
  std::int64_t rows(const std::string& sql) { return std::stoll(queryStore(paths_.storeFile(), sql).at(0)); }
};

TEST_F(ObjectContextTest, OneRowIsOneObjectWhicheverPathReachesIt) {
  auto account = makeAccount("instapaper");
  auto unread = account->unreadFolder().value();
  {
    auto bookmark = addBookmark(*account, "b1");
    unread->addBookmark(*bookmark);
    ASSERT_TRUE(context().save());
  }
  auto byId = account->findBookmarkWithId("b1").value();
  auto byFolder = unread->bookmarks().value();
  ASSERT_EQ(byFolder.size(), 1u);
  EXPECT_EQ(byId.get(), byFolder[0].get());
  byId->setTitle("changed");
  EXPECT_EQ(byFolder[0]->title(), "changed");
  // A fetch does not overwrite a change the context has not saved.
  EXPECT_EQ(account->findBookmarkWithId("b1").value()->title(), "changed");
}

TEST_F(ObjectContextTest, SaveTellsObserversWhatChanged) {
  auto account = makeAccount("localrss");
  std::vector<ContextDidSave> heard;
  context().addObserver([&](const ContextDidSave& changes) { heard.push_back(changes); });
  auto bookmark = addBookmark(*account, "b1");
  ASSERT_TRUE(context().save());
  bookmark->setTitle("t");
  ASSERT_TRUE(context().save());
  ASSERT_TRUE(context().save());  // nothing changed: nobody is told
  context().deleteObject(*bookmark);
  ASSERT_TRUE(context().save());
  ASSERT_EQ(heard.size(), 3u);
  EXPECT_EQ(heard[0].inserted, std::vector<ObjectId>{bookmark->objectID()});
  EXPECT_EQ(heard[1].updated, std::vector<ObjectId>{bookmark->objectID()});
  EXPECT_EQ(heard[2].deleted, std::vector<ObjectId>{bookmark->objectID()});
  EXPECT_TRUE(bookmark->isDeleted());
}

TEST_F(ObjectContextTest, RollbackForgetsInsertsAndRestoresValues) {
  auto account = makeAccount("localrss");
  auto kept = addBookmark(*account, "kept");
  kept->setTitle("saved title");
  ASSERT_TRUE(context().save());
  kept->setTitle("unsaved title");
  auto dropped = addBookmark(*account, "dropped");
  context().rollback();
  EXPECT_EQ(kept->title(), "saved title");
  EXPECT_TRUE(dropped->isDeleted());
  EXPECT_FALSE(context().hasChanges());
  EXPECT_EQ(account->findBookmarkWithId("dropped").value(), nullptr);
}

TEST_F(ObjectContextTest, DeleteRulesCascadeOwnedRowsAndDetachMemberships) {
  auto account = makeAccount("pocket");
  auto unread = account->unreadFolder().value();
  auto bookmark = addBookmark(*account, "b1");
  bookmark->setHtml("<p>Hello</p>");
  unread->addBookmark(*bookmark);
  ASSERT_TRUE(context().save());
  auto content = bookmark->content().value();
  ASSERT_NE(content, nullptr);

  // A folder going away leaves its bookmarks.
  context().deleteObject(*unread);
  ASSERT_TRUE(context().save());
  EXPECT_FALSE(bookmark->isDeleted());
  EXPECT_EQ(rows("SELECT count(*) FROM Folder_bookmarks"), 0);

  // A bookmark takes its content along, and the context knows.
  context().deleteObject(*bookmark);
  ASSERT_TRUE(context().save());
  EXPECT_TRUE(content->isDeleted());
  EXPECT_EQ(rows("SELECT count(*) FROM Content"), 0);

  // An account takes everything of its own along.
  addBookmark(*account, "b2");
  ASSERT_TRUE(account->addOfflineOperationForBookmark("b2", std::nullopt, OfflineOperationType::kStar));
  ASSERT_TRUE(context().save());
  context().deleteObject(*account);
  ASSERT_TRUE(context().save());
  for (auto table : {"Bookmark", "Folder", "OfflineOperation", "Token"}) {
    EXPECT_EQ(rows(std::string("SELECT count(*) FROM ") + table), 0) << table;
  }
}

TEST_F(ObjectContextTest, DeletingAFeedDeletesItsStoriesOnly) {
  auto account = makeAccount("localrss");
  auto folder = account->addFeedFolderWithTitle("News", 0, "news");
  auto doomed =
      account->addFeedWithTitle("Doomed", "http://a.example/feed", "http://a.example/feed", folder.get());
  auto other =
      account->addFeedWithTitle("Other", "http://b.example/feed", "http://b.example/feed", folder.get());
  for (auto* feed : {doomed.get(), other.get()}) {
    auto story = context().insertNewObject<FeedStory>();
    story->setAccount(*account);
    story->setFeed(*feed);
    story->setBookmark_id(feed->folder_id());
  }
  ASSERT_TRUE(context().save());
  context().deleteObject(*doomed);
  ASSERT_TRUE(context().save());
  EXPECT_EQ(rows("SELECT count(*) FROM Bookmark"), 1);
  EXPECT_EQ(other->stories().value().size(), 1u);
  EXPECT_EQ(folder->feeds().value().size(), 1u);
  EXPECT_FALSE(folder->isDeleted());
}

TEST_F(ObjectContextTest, ABackgroundSaveReachesTheMainContext) {
  auto account = makeAccount("localrss");
  auto bookmark = addBookmark(*account, "b1");
  auto gone = addBookmark(*account, "b2");
  ASSERT_TRUE(context().save());
  int told = 0;
  context().addObserver([&](const ContextDidSave&) { ++told; });

  std::thread worker([&] {
    auto background = manager_->newBackgroundContext().value();
    auto same = background->existingObject<Bookmark>(bookmark->objectID()).value();
    same->setIs_archived(true);
    background->deleteObject(*background->existingObject<Bookmark>(gone->objectID()).value());
    ASSERT_TRUE(background->save());
  });
  worker.join();
  ASSERT_TRUE(pumpUntil([&] { return told > 0; }));
  EXPECT_TRUE(bookmark->is_archived());
  EXPECT_TRUE(gone->isDeleted());
}

TEST_F(ObjectContextTest, ConcurrentChangesToDifferentColumnsBothSurvive) {
  auto account = makeAccount("localrss");
  auto bookmark = addBookmark(*account, "b1");
  ASSERT_TRUE(context().save());
  std::thread worker([&] {
    auto background = manager_->newBackgroundContext().value();
    background->existingObject<Bookmark>(bookmark->objectID()).value()->setIs_archived(true);
    ASSERT_TRUE(background->save());
  });
  worker.join();
  // The main context has not merged yet: its object still says unread. Its own change must not
  // write that stale value back.
  bookmark->setTitle("main's title");
  ASSERT_TRUE(context().save());
  EXPECT_EQ(queryStore(paths_.storeFile(), "SELECT title, is_archived FROM Bookmark"),
            std::vector<std::string>{"main's title|1"});
}

TEST_F(ObjectContextTest, UnsavedChangesNeverHoldTheWriteLock) {
  // Regression (hardening issue): an unsaved change on the main context held SQLite's write lock,
  // so a sync's save waited out the busy timeout and failed.
  auto account = makeAccount("localrss");
  ASSERT_TRUE(context().save());
  auto held = addBookmark(*account, "held in memory");  // unsaved, and read back below
  ASSERT_EQ(account->bookmarks().value().size(), 1u);  // reads see the unsaved insert

  auto backgroundSave = std::async(std::launch::async, [&]() -> Result<void> {
    auto background = manager_->newBackgroundContext();
    if (!background) return fail(background.error());
    auto own = (*background)->existingObject<Account>(account->objectID()).value();
    auto story = (*background)->insertNewObject<Bookmark>();
    story->setAccount(*own);
    story->setBookmark_id("from background");
    return (*background)->save();
  });
  // The main context keeps its change unsaved until the background save is through.
  ASSERT_EQ(backgroundSave.wait_for(std::chrono::seconds(20)), std::future_status::ready)
      << "the background save waited for the main context's unsaved change";
  auto saved = backgroundSave.get();
  ASSERT_TRUE(saved) << saved.error().message();
  EXPECT_EQ(rows("SELECT count(*) FROM Bookmark"), 1);
  ASSERT_TRUE(context().save());
  EXPECT_EQ(rows("SELECT count(*) FROM Bookmark"), 2);
  // Both contexts took ids at once and neither took the other's.
  EXPECT_EQ(rows("SELECT count(DISTINCT id) FROM Bookmark"), 2);
  EXPECT_FALSE(held->isInserted());
}

TEST_F(ObjectContextTest, ArticleTextStoredInTheBackgroundIsSeenAfterTheMerge) {
  // Regression (hardening issue): the main context had looked for the content row before and kept
  // answering "no HTML" after a background context stored one.
  auto account = makeAccount("localrss");
  auto bookmark = addBookmark(*account, "b1");
  ASSERT_TRUE(context().save());
  ASSERT_FALSE(bookmark->html().value().has_value());
  int told = 0;
  context().addObserver([&](const ContextDidSave&) { ++told; });
  std::thread worker([&] {
    auto background = manager_->newBackgroundContext().value();
    background->existingObject<Bookmark>(bookmark->objectID()).value()->setHtml("<p>the article</p>");
    ASSERT_TRUE(background->save());
  });
  worker.join();
  ASSERT_TRUE(pumpUntil([&] { return told > 0; }));
  EXPECT_EQ(bookmark->html().value(), std::optional<std::string>("<p>the article</p>"));
}

TEST_F(ObjectContextTest, BackgroundWritersAndTheMainContextNeverLockEachOtherOut) {
  ScopedLogCapture log;
  auto account = makeAccount("localrss");
  auto watched = addBookmark(*account, "watched");
  ASSERT_TRUE(context().save());
  constexpr int kWriters = 3;
  constexpr int kBatches = 15;
  constexpr int kPerBatch = 20;
  std::atomic<int> finished{0};
  std::atomic<int> failures{0};
  std::vector<std::thread> writers;
  for (int w = 0; w < kWriters; ++w) {
    writers.emplace_back([&, w] {
      auto background = manager_->newBackgroundContext();
      if (!background) {
        ++failures;
        ++finished;
        return;
      }
      auto own = (*background)->existingObject<Account>(account->objectID()).value();
      for (int b = 0; b < kBatches; ++b) {
        for (int i = 0; i < kPerBatch; ++i) {
          auto story = (*background)->insertNewObject<Bookmark>();
          story->setAccount(*own);
          story->setBookmark_id(fmt::format("{}-{}-{}", w, b, i));
        }
        if (!(*background)->save()) ++failures;
      }
      ++finished;
    });
  }
  // Meanwhile the main context keeps reading, changing and saving.
  int round = 0;
  while (finished < kWriters) {
    ASSERT_TRUE(account->bookmarks().has_value());
    watched->setProgress(++round);
    ASSERT_TRUE(context().save());
    pump();
  }
  for (auto& writer : writers) writer.join();
  pump();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(rows("SELECT count(*) FROM Bookmark"), 1 + kWriters * kBatches * kPerBatch);
  EXPECT_EQ(rows("SELECT progress FROM Bookmark WHERE bookmark_id = 'watched'"), round);
  EXPECT_EQ(log.count("locked"), 0u);
  EXPECT_EQ(log.count("busy"), 0u);
}

TEST_F(ObjectContextTest, IdsOfDeletedRowsAreNotReused) {
  auto account = makeAccount("localrss");
  auto first = addBookmark(*account, "b1");
  ASSERT_TRUE(context().save());
  const auto oldId = first->objectID();
  context().deleteObject(*first);
  ASSERT_TRUE(context().save());
  auto second = addBookmark(*account, "b2");
  ASSERT_TRUE(context().save());
  // A context that still remembers the old id must never take the new row for it.
  EXPECT_NE(second->objectID().row, oldId.row);
}

}  // namespace
}  // namespace lectern::test
