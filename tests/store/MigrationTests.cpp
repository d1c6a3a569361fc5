#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <thread>

#include "StoreTestSupport.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/MigrationPolicies.h"
#include "store/ModelVersion.h"
#include "store/PredicateText.h"
#include "store/QKDataMigrationManager.h"

namespace lectern::test {
namespace {

TEST(PredicateText, ComparisonsOnHtmlAreRebuiltLeafByLeaf) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"html CONTAINS[cd] \"linux\"", "content.preview_text CONTAINS[cd] \"linux\""},
      {"(html CONTAINS[cd] \"a\" OR title CONTAINS \"html\") AND NOT html BEGINSWITH 'b'",
       "(content.preview_text CONTAINS[cd] \"a\" OR title CONTAINS \"html\") AND NOT content.preview_text "
       "BEGINSWITH 'b'"},
      {"ANY html LIKE[c] \"*x*\" || (url == \"u\" && (html==\"y\"))",
       "ANY content.preview_text LIKE[c] \"*x*\" || (url == \"u\" && (content.preview_text==\"y\"))"},
      // Not comparisons on the key path "html": left as they are.
      {"content.html == \"x\" AND title == html AND htmlx == 1 AND $html == 2",
       "content.html == \"x\" AND title == html AND htmlx == 1 AND $html == 2"},
      {"title CONTAINS \"say \\\"html == 1\\\"\"", "title CONTAINS \"say \\\"html == 1\\\"\""},
  };
  for (auto [before, after] : cases)
    EXPECT_EQ(rewriteComparisonKeyPath(before, "html", "content.preview_text"), after);
}

TEST(PredicateText, CompoundPartsAtTheTopLevel) {
  using Parts = std::vector<std::string>;
  EXPECT_EQ(extractPredicatesFromCompoundPredicate("(a == 1 OR b == 2) AND c == 3"),
            (Parts{"a == 1 OR b == 2", "c == 3"}));
  EXPECT_EQ(extractPredicatesFromCompoundPredicate("((a == 1))"), (Parts{"a == 1"}));
  EXPECT_EQ(extractPredicatesFromCompoundPredicate("NOT (a == 1 OR b == 2)"),
            (Parts{"NOT (a == 1 OR b == 2)"}));
  EXPECT_EQ(extractPredicatesFromCompoundPredicate("t CONTAINS \"x AND y\""),
            (Parts{"t CONTAINS \"x AND y\""}));
}

TEST(MigrationPolicy, ModelVersionIsReadAsANumber) {
  auto mapping = [](std::string version) {
    return EntityMapping{"Bookmark", "Bookmark", {{"modelVersion", version}}, nullptr};
  };
  EXPECT_EQ(modelVersionOf(mapping("2.41")), 2.41);
  EXPECT_EQ(modelVersionOf(mapping("2,041.5")), 2041.5);
  EXPECT_EQ(modelVersionOf(mapping("two")), std::nullopt);
  EXPECT_EQ(modelVersionOf(EntityMapping{}), std::nullopt);
}

// A "Lectern 2.4" library: HTML and previews inside the bookmark rows, smart folders with
// predicates on "html", one of them belonging to an account of a service Lectern no longer knows.
const std::vector<std::string> kOldLibrary = {
    "INSERT INTO Account (id, service, username, title) VALUES (1, 'pocket', 'ann', 'Pocket'),"
    " (2, 'myspace', 'ann', 'Gone'), (3, 'localrss', NULL, 'Feeds'), (4, 'smart-folders', NULL, 'Smart')",
    "INSERT INTO Folder (id, entity, account, title, folder_id, predicate) VALUES"
    " (10, 'Folder', 1, 'Unread', 'unread', NULL),"
    " (11, 'SmartFolder', 4, 'Linux', 'smart-folder',"
    "  '(html CONTAINS[cd] \"linux\" OR title CONTAINS[cd] \"linux\") AND NOT html ENDSWITH \"ad\"'),"
    " (12, 'SmartFolder', 2, 'Orphan', 'smart-folder', 'html CONTAINS \"x\"'),"
    " (13, 'FeedFolder', 3, 'Tech', 'tech', NULL),"
    " (14, 'Feed', 3, 'Blog', 'http://blog.example/feed', NULL)",
    "INSERT INTO FeedFolder_feeds (feedfolder, feed) VALUES (13, 14)",
    "INSERT INTO Bookmark (id, entity, account, bookmark_id, title, html, preview_text, is_archived) VALUES"
    " (20, 'Bookmark', 1, 'p1', 'Saved', '<p>Saved &amp; kept</p>', 'stored preview', 0),"
    " (21, 'Bookmark', 1, 'p2', 'No preview', '<p>Made <b>now</b></p>', NULL, 1)",
    "INSERT INTO Bookmark (id, entity, account, bookmark_id, title, html, preview_text, feed, author) VALUES"
    " (22, 'FeedStory', 3, 'http://blog.example/1', 'Post', '<b>Fresh</b> &amp; new', 'stale preview', 14, "
    "'Bo')",
    "INSERT INTO Folder_bookmarks (folder, bookmark) VALUES (10, 20)",
    "INSERT INTO Token (id, account, title) VALUES (30, 1, 'art')",
    "INSERT INTO Token_bookmarks (token, bookmark) VALUES (30, 21)",
    "INSERT INTO FeedEnclosure (id, feedstory, url, type, length) VALUES (40, 22, "
    "'http://blog.example/a.mp3', 'audio/mpeg', 99)",
    "INSERT INTO OfflineOperation (id, account, type, bookmark_id, created_at) VALUES (50, 1, 3, 'p2', 1000)",
};

class RecordingDelegate : public QKDataMigrationDelegate {
 public:
  void migrationManagerProgress(QKDataMigrationManager&, double progress) override {
    progress_.push_back(progress);
  }
  void migrationManagerWillMigrate(QKDataMigrationManager&, const ModelVersion& source,
                                   const ModelVersion& destination,
                                   const std::filesystem::path& store) override {
    steps_.push_back(fmt::format("{} > {} @ {}", source.name, destination.name, store.filename().string()));
  }
  std::optional<std::vector<MappingModel>> migrationManagerMappingModelsForSourceModel(
      QKDataMigrationManager&, const ModelVersion&) override {
    return mappings_;
  }
  std::vector<double> progress_;
  std::vector<std::string> steps_;
  std::optional<std::vector<MappingModel>> mappings_;
};

class MigrationTest : public StoreTest {
 protected:
  std::vector<std::string> rows(const std::string& sql) { return queryStore(paths_.storeFile(), sql); }
  std::set<std::string> libraryFolder() {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(paths_.applicationFolder))
      names.insert(entry.path().filename().string());
    return names;
  }
  static constexpr std::string_view kBackup = "Lectern.Lectern 2.4 backup.storedata";
  static constexpr std::string_view kLock = "Lectern.storedata.lock";
};

TEST_F(MigrationTest, ALibraryThreeVersionsBehindIsMigratedStepByStep) {
  writeStoreOfVersion(paths_.storeFile(), modelVersions()[0], kOldLibrary);
  ASSERT_TRUE(manager_->isMigrationNeeded());
  RecordingDelegate delegate;
  ASSERT_TRUE(manager_->migrate(&delegate));
  EXPECT_EQ(delegate.steps_,
            (std::vector<std::string>{"Lectern 2.4 > Lectern 2.41 @ Lectern.Lectern 2.41.storedata",
                                      "Lectern 2.41 > Lectern 2.5 @ Lectern.Lectern 2.5.storedata",
                                      "Lectern 2.5 > Lectern 2.6 @ Lectern.Lectern 2.6.storedata",
                                      "Lectern 2.6 > Lectern 2.7 @ Lectern.Lectern 2.7.storedata",
                                      "Lectern 2.7 > Lectern 2.8 @ Lectern.Lectern 2.8.storedata",
                                      "Lectern 2.8 > Lectern 2.9 @ Lectern.Lectern 2.9.storedata"}));
  ASSERT_FALSE(delegate.progress_.empty());
  EXPECT_EQ(delegate.progress_.back(), 1.0);
  // The library as it was stays beside it (not in a temporary folder); no step file is left.
  EXPECT_EQ(libraryFolder(), (std::set<std::string>{"Lectern.storedata", std::string(kBackup), std::string(kLock)}));
  EXPECT_EQ(queryStore(paths_.applicationFolder / kBackup, "SELECT count(*) FROM Bookmark"),
            std::vector<std::string>{"3"});
  EXPECT_EQ(QKDataMigrationManager::readMetadata(paths_.applicationFolder / kBackup).value().versionNumber, 1);
  EXPECT_FALSE(manager_->isMigrationNeeded());

  // The HTML moved into Content; previews kept (bookmark) or computed (missing, or any story's).
  EXPECT_EQ(
      rows("SELECT b.bookmark_id, c.html, c.preview_text FROM Content c JOIN Bookmark b ON b.id = c.bookmark"
           " ORDER BY b.id"),
      (std::vector<std::string>{"p1|<p>Saved &amp; kept</p>|stored preview",
                                "p2|<p>Made <b>now</b></p>|Made now",
                                "http://blog.example/1|<b>Fresh</b> &amp; new|Fresh & new"}));
  // Smart folders: the orphan stayed behind, the predicate compares the preview, badge 1.
  EXPECT_EQ(rows("SELECT id, predicate, badgeIndex FROM Folder WHERE entity = 'SmartFolder'"),
            std::vector<std::string>{
                "11|(content.preview_text CONTAINS[cd] \"linux\" OR title CONTAINS[cd] \"linux\") AND NOT "
                "content.preview_text ENDSWITH \"ad\"|1"});
  // Everything else carried over with its relationships.
  EXPECT_EQ(rows("SELECT folder || '-' || bookmark FROM Folder_bookmarks"),
            std::vector<std::string>{"10-20"});
  EXPECT_EQ(rows("SELECT feedfolder || '-' || feed FROM FeedFolder_feeds"),
            std::vector<std::string>{"13-14"});
  EXPECT_EQ(rows("SELECT token || '-' || bookmark FROM Token_bookmarks"), std::vector<std::string>{"30-21"});
  EXPECT_EQ(rows("SELECT feedstory, length FROM FeedEnclosure"), std::vector<std::string>{"22|99"});
  EXPECT_EQ(rows("SELECT type, bookmark_id FROM OfflineOperation"), std::vector<std::string>{"3|p2"});
  EXPECT_EQ(rows("SELECT author, feed FROM Bookmark WHERE entity = 'FeedStory'"),
            std::vector<std::string>{"Bo|14"});
  EXPECT_EQ(rows("SELECT score FROM Bookmark WHERE entity = 'FeedStory'"), std::vector<std::string>{"NULL"});
  EXPECT_EQ(rows("SELECT last_refresh, last_error FROM Folder WHERE entity = 'Feed'"),
            std::vector<std::string>{"NULL|NULL"});
  EXPECT_EQ(rows("SELECT http_etag, http_last_modified, older_not_kept FROM Folder WHERE entity = 'Feed'"),
            std::vector<std::string>{"NULL|NULL|NULL"});
  EXPECT_EQ(rows("SELECT count(*) FROM DeletedEntry"), std::vector<std::string>{"0"});

  // And the migrated library opens.
  auto pocket = Account::findService(context(), "pocket", "ann").value();
  ASSERT_NE(pocket, nullptr);
  EXPECT_EQ(pocket->findBookmarkWithId("p1").value()->html().value(), "<p>Saved &amp; kept</p>");
}

TEST_F(MigrationTest, PoliciesOfOtherModelVersionsCopyAsTheDefaultMappingDoes) {
  auto migrateWith = [&](std::optional<std::string> version) {
    TempDir folder;
    const auto store = folder / "Lectern.storedata";
    writeStoreOfVersion(store, modelVersions()[0], kOldLibrary);
    MappingModel mapping = makeMappingModel("Lectern 2.4", "Lectern 2.41", version.value_or("2.41"));
    if (!version) {
      for (auto& entity : mapping.entityMappings) entity.policy = nullptr;  // the default mapping
    }
    RecordingDelegate delegate;
    delegate.mappings_ = std::vector<MappingModel>{mapping};
    QKDataMigrationManager migrator;
    migrator.setDelegate(&delegate);
    EXPECT_TRUE(migrator.progressivelyMigrateURL(store, currentModelVersion()));
    std::vector<std::string> dump;
    for (auto table : {"Account", "Folder", "Bookmark", "Content", "Folder_bookmarks", "Token_bookmarks"}) {
      for (auto& row : queryStore(store, std::string("SELECT * FROM ") + table))
        dump.push_back(table + (": " + row));
    }
    return dump;
  };
  const auto asDefault = migrateWith(std::nullopt);
  EXPECT_TRUE(
      std::none_of(asDefault.begin(), asDefault.end(), [](auto& row) { return row.starts_with("Content"); }));
  EXPECT_EQ(migrateWith("2.4"), asDefault);
  EXPECT_EQ(migrateWith("2.42"), asDefault);
  EXPECT_NE(migrateWith("2.41"), asDefault);
}

TEST_F(MigrationTest, ALibraryOfTheVersionsBeforeGainsFeedValidatorsTheDeletedEntryRecordAndTheBodyHash) {
  // A 2.7 library with a feed, a story, its search index entry: two steps, everything kept, and
  // the new columns and record work in the library that opens.
  const ModelVersion* before = modelVersionNamed("Lectern 2.7");
  ASSERT_NE(before, nullptr);
  writeStoreOfVersion(paths_.storeFile(), *before,
                      {"INSERT INTO Account (id, service, title) VALUES (3, 'localrss', 'Feeds')",
                       "INSERT INTO Folder (id, entity, account, title, folder_id, last_error) VALUES"
                       " (14, 'Feed', 3, 'Blog', 'http://blog.example/feed', 'timed out')",
                       "INSERT INTO Bookmark (id, entity, account, bookmark_id, title, feed) VALUES"
                       " (22, 'FeedStory', 3, 'http://blog.example/1', 'Post', 14)"});
  RecordingDelegate delegate;
  ASSERT_TRUE(manager_->migrate(&delegate));
  EXPECT_EQ(delegate.steps_,
            (std::vector<std::string>{"Lectern 2.7 > Lectern 2.8 @ Lectern.Lectern 2.8.storedata",
                                      "Lectern 2.8 > Lectern 2.9 @ Lectern.Lectern 2.9.storedata"}));
  EXPECT_EQ(rows("SELECT title, last_error, http_etag, body_hash FROM Folder"),
            std::vector<std::string>{"Blog|timed out|NULL|NULL"});
  EXPECT_EQ(rows("SELECT rowid FROM StorySearch"), std::vector<std::string>{"22"});

  auto feed = context().existingObject<Feed>(ObjectId{Entity::kFeed, 14}).value();
  ASSERT_NE(feed, nullptr);
  feed->setHttp_etag("\"v1\"");
  feed->setOlder_not_kept(4);
  feed->setBody_hash("9f86d081");
  feed->recordDeletedEntry("http://blog.example/0");
  feed->recordDeletedEntry("http://blog.example/0");  // once is enough
  ASSERT_TRUE(context().save());
  EXPECT_EQ(rows("SELECT http_etag, older_not_kept, body_hash FROM Folder WHERE id = 14"),
            std::vector<std::string>{"\"v1\"|4|9f86d081"});
  EXPECT_EQ(feed->deletedEntryIds().value(), std::set<std::string>{"http://blog.example/0"});
  // The record goes with its feed.
  context().deleteObject(*feed);
  ASSERT_TRUE(context().save());
  EXPECT_EQ(rows("SELECT count(*) FROM DeletedEntry"), std::vector<std::string>{"0"});
}

class FailingPolicy : public EntityMigrationPolicy {
 public:
  Result<void> createDestinationInstancesForSourceInstance(const SourceInstance& source,
                                                           const EntityMapping& mapping,
                                                           MigrationManager& manager) override {
    if (source.row == 21) return fail("test", 1, "row 21 cannot be carried over");
    return EntityMigrationPolicy::createDestinationInstancesForSourceInstance(source, mapping, manager);
  }
};

TEST_F(MigrationTest, AStepThatFailsHalfWayLeavesTheLibraryAsItWas) {
  writeStoreOfVersion(paths_.storeFile(), modelVersions()[0], kOldLibrary);
  const std::string before = readFile(paths_.storeFile());
  RecordingDelegate delegate;
  MappingModel mapping = makeMappingModel("Lectern 2.4", "Lectern 2.41", "2.41");
  for (auto& entity : mapping.entityMappings) {
    if (entity.sourceEntity == "Bookmark") entity.policy = std::make_shared<FailingPolicy>();
  }
  delegate.mappings_ = std::vector<MappingModel>{mapping};
  auto migrated = manager_->migrate(&delegate);
  ASSERT_FALSE(migrated);
  EXPECT_EQ(migrated.error().description, "Failed to migrate the library to Lectern 2.41");
  EXPECT_EQ(migrated.error().recoverySuggestion, "row 21 cannot be carried over");
  EXPECT_EQ(readFile(paths_.storeFile()), before);
  EXPECT_EQ(libraryFolder(), (std::set<std::string>{"Lectern.storedata", std::string(kLock)}));
  // Opening tries again, without the faulty mapping, and succeeds.
  EXPECT_TRUE(manager_->managedObjectContext());
}

TEST_F(MigrationTest, TwoProcessesOpeningAnOldLibraryAtOnceUpgradeItOnce) {
  // Regression (hardening issue): the daemon and a command opening an old library together deleted
  // each other's step files and left a current library with no bookmarks.
  writeStoreOfVersion(paths_.storeFile(), modelVersions()[0], kOldLibrary);
  constexpr int kOpeners = 4;
  std::vector<std::thread> openers;
  std::atomic<int> failures{0};
  for (int i = 0; i < kOpeners; ++i) {
    openers.emplace_back([&] {
      // A migrator of its own: a file lock is not shared between two opens of the lock file,
      // whatever process makes them.
      QKDataMigrationManager migrator;
      if (!migrator.progressivelyMigrateURL(paths_.storeFile(), currentModelVersion())) ++failures;
    });
  }
  for (auto& opener : openers) opener.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(rows("SELECT count(*) FROM Bookmark"), std::vector<std::string>{"3"});
  EXPECT_EQ(rows("SELECT count(*) FROM Content"), std::vector<std::string>{"3"});
  EXPECT_EQ(QKDataMigrationManager::readMetadata(paths_.storeFile()).value().versionNumber,
            currentModelVersion().number);
}

TEST_F(MigrationTest, ACrashBetweenStepsLeavesTheOriginalAndTheNextStartUpgradesIt) {
  writeStoreOfVersion(paths_.storeFile(), modelVersions()[0], kOldLibrary);
  const std::string before = readFile(paths_.storeFile());
  // The child dies as the second step begins: the first step's file is written, the library not.
  class DyingDelegate : public QKDataMigrationDelegate {
    void migrationManagerWillMigrate(QKDataMigrationManager&, const ModelVersion& source, const ModelVersion&,
                                     const std::filesystem::path&) override {
      if (source.name == "Lectern 2.41") ::_exit(9);
    }
  };
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    DyingDelegate dying;
    QKDataMigrationManager migrator;
    migrator.setDelegate(&dying);
    (void)migrator.progressivelyMigrateURL(paths_.storeFile(), currentModelVersion());
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  ASSERT_EQ(WEXITSTATUS(status), 9) << "the child should have died between the steps";
  EXPECT_EQ(readFile(paths_.storeFile()), before);
  EXPECT_TRUE(std::filesystem::exists(paths_.applicationFolder / "Lectern.Lectern 2.41.storedata"));

  ASSERT_TRUE(manager_->managedObjectContext());
  EXPECT_EQ(rows("SELECT count(*) FROM Bookmark"), std::vector<std::string>{"3"});
  EXPECT_EQ(libraryFolder().count("Lectern.Lectern 2.41.storedata"), 0u);
}

// Found by killing upgrades at random: a step killed while committing left its super-journal.
TEST_F(MigrationTest, TheSuperJournalOfAKilledStepIsRemovedByTheNextUpgrade) {
  writeStoreOfVersion(paths_.storeFile(), modelVersions()[0], kOldLibrary);
  writeFile(paths_.applicationFolder / "Lectern.Lectern 2.8.storedata-mj5B90B79BB", "left by a killed commit");
  RecordingDelegate delegate;
  ASSERT_TRUE(manager_->migrate(&delegate));
  EXPECT_EQ(libraryFolder(), (std::set<std::string>{"Lectern.storedata", std::string(kBackup), std::string(kLock)}));
}

TEST_F(MigrationTest, StepFileNamesAndTheMappingChain) {
  EXPECT_EQ(
      QKDataMigrationManager::destinationStoreURLWithSourceStoreURL("/a/b/Lectern.storedata", "Lectern 2.41"),
      std::filesystem::path("/a/b/Lectern.Lectern 2.41.storedata"));
  QKDataMigrationManager chain;
  EXPECT_EQ(chain.getDestinationModel(modelVersions()[0]).value().modelName, "Lectern 2.41");
  EXPECT_EQ(chain.getDestinationModel(modelVersions()[1]).value().modelName, "Lectern 2.5");
  EXPECT_EQ(chain.getDestinationModel(modelVersions()[2]).value().modelName, "Lectern 2.6");
  EXPECT_EQ(chain.getDestinationModel(modelVersions()[3]).value().modelName, "Lectern 2.7");
  EXPECT_EQ(chain.getDestinationModel(modelVersions()[4]).value().modelName, "Lectern 2.8");
  EXPECT_EQ(chain.getDestinationModel(modelVersions()[5]).value().modelName, "Lectern 2.9");
  auto none = chain.getDestinationModel(currentModelVersion());
  ASSERT_FALSE(none);
  EXPECT_EQ(none.error().description, "No mapping model found in bundle");
  StoreMetadata renamed{2, "Lectern 9", kLecternApplicationId, true};
  EXPECT_EQ(QKDataMigrationManager::sourceModelForSourceMetadata(renamed), nullptr);
}

}  // namespace
}  // namespace lectern::test
