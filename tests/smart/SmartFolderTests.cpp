// Smart folders over a library: the default folders across accounts, stored predicates of every
// age, date folders as time passes, badges, and refreshing when the library changes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/UserDefaults.h"
#include "services/smartfolders/SmartFolderService.h"
#include "smart/RowTemplates.h"
#include "smart/library/QKSmartFolderContents.h"
#include "smart/library/SmartFolderQuery.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedStory.h"
#include "store/Folder.h"
#include "store/ObjectContext.h"
#include "store/ModelVersion.h"
#include "store/SmartFolder.h"
#include "store/StoreTestSupport.h"

namespace lectern::test {
namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;

class SmartFolderTest : public StoreTest {
 protected:
  SmartFolderTest() {
    smartAccount_ = makeAccount("smart-folders", std::nullopt);
    contents_ = std::make_unique<QKSmartFolderContents>(context(), clock_, defaults_);
  }
  ~SmartFolderTest() override { contents_.reset(); }

  std::shared_ptr<Bookmark> add(Account& account, std::string id, std::chrono::hours age, Feed* feed = nullptr) {
    std::shared_ptr<Bookmark> bookmark;
    if (feed != nullptr) {
      auto story = context().insertNewObject<FeedStory>();
      story->setFeed(*feed);
      bookmark = story;
    } else {
      bookmark = context().insertNewObject<Bookmark>();
    }
    bookmark->setAccount(account);
    bookmark->setBookmark_id(std::move(id));
    bookmark->setTitle("Story");
    bookmark->setDate_added(clock_.now() - age);
    return bookmark;
  }

  std::shared_ptr<SmartFolder> folder(std::string title, std::string predicate, std::int64_t badgeIndex = 1) {
    auto smart = context().insertNewObject<SmartFolder>();
    smart->setTitle(std::move(title));
    smart->setFolder_id(std::string(kSmartFolderId));
    smart->setPredicate(std::move(predicate));
    smart->setBadgeIndex(badgeIndex);
    smart->setAccount(*smartAccount_);
    if (auto saved = context().save(); !saved) throw std::runtime_error(saved.error().message());
    return smart;
  }

  std::shared_ptr<SmartFolder> defaultFolder(std::string_view title) {
    ObjectContext::FetchRequest request;
    request.where = "title = ?";
    request.arguments = {std::string(title)};
    return context().fetchFirst<SmartFolder>(request).value();
  }

  std::vector<std::string> ids(SmartFolder& smart) {
    auto bookmarks = contents_->bookmarks(smart);
    EXPECT_TRUE(bookmarks) << (bookmarks ? "" : bookmarks.error().message());
    std::vector<std::string> out;
    if (bookmarks) {
      for (const auto& bookmark : *bookmarks) out.push_back(bookmark->bookmark_id().value_or(""));
    }
    std::sort(out.begin(), out.end());
    return out;
  }

  void save() {
    if (auto saved = context().save(); !saved) throw std::runtime_error(saved.error().message());
  }

  std::shared_ptr<Account> smartAccount_;
  std::unique_ptr<QKSmartFolderContents> contents_;
};

TEST_F(SmartFolderTest, DefaultFoldersSelectAcrossAFeedAccountAndAReadLaterAccount) {
  SmartFolderService::addDefaultSmartFolders(*smartAccount_);
  save();
  auto reader = makeAccount("localrss");
  auto feed = reader->addFeedWithTitle("Daily", "https://example.org/feed", "feed-1");
  add(*reader, "rss-unread", 1h, feed.get());
  add(*reader, "rss-read", 2h, feed.get())->setIs_archived(true);
  auto starred = add(*reader, "rss-starred-read", 3h, feed.get());
  starred->setIs_archived(true);
  starred->setIs_favorited(true);

  auto later = makeAccount("instapaper");
  auto unread = add(*later, "later-unread", 1h);
  unread->addToFolder(*later->unreadFolder().value());
  auto archived = add(*later, "later-archived", 2h);
  archived->addToFolder(*later->unreadFolder().value());
  archived->setIs_archived(true);  // leaves "unread" for "archive"
  auto favorite = add(*later, "later-favorite-elsewhere", 1h);
  favorite->setIs_favorited(true);
  save();

  EXPECT_EQ(ids(*defaultFolder("Read Later")), (std::vector<std::string>{"later-unread"}));
  EXPECT_EQ(ids(*defaultFolder("RSS News")), (std::vector<std::string>{"rss-unread"}));
  EXPECT_EQ(ids(*defaultFolder("RSS Starred")), (std::vector<std::string>{"rss-starred-read"}));
  EXPECT_EQ(contents_->bookmarkCount(*defaultFolder("RSS News")).value(), 1);
}

TEST_F(SmartFolderTest, AStoredPredicateOfTheOldFolderFormSelectsByFolderName) {
  auto later = makeAccount("pocket");
  auto daily = later->addFolderWithTitle("Daily Reads", 5, "f-daily");
  add(*later, "in-folder", 1h)->addToFolder(*daily);
  add(*later, "elsewhere", 1h);
  save();
  auto old = folder("Old", "folder ==[cd] \"daily reads\"");
  EXPECT_EQ(ids(*old), (std::vector<std::string>{"in-folder"}));
  auto oldNegative = folder("Old not", "NOT (folder.title == \"Daily Reads\")");
  EXPECT_EQ(ids(*oldNegative), (std::vector<std::string>{"elsewhere"}));
  // Shown as the current row.
  auto predicate = fetchPredicate(*old);
  ASSERT_TRUE(predicate);
  EXPECT_EQ(rowTextFromPredicate(*predicate), "folders.title is daily reads");
}

TEST_F(SmartFolderTest, DateFoldersChangeTheirAnswerWhenTimePassesAndOthersDoNot) {
  auto reader = makeAccount("localrss");
  add(*reader, "yesterday", 24h);
  add(*reader, "three-days", 72h);
  save();
  auto recent = folder("Recent", formatPredicate(predicateFromRowText("date_added in-last 2 days").value()));
  auto everything = folder("All", "title == \"Story\"");
  EXPECT_EQ(ids(*recent), (std::vector<std::string>{"yesterday"}));
  EXPECT_TRUE(QKSmartFolderContents::hasDatePredicate(*recent));
  EXPECT_FALSE(QKSmartFolderContents::hasDatePredicate(*everything));
  EXPECT_EQ(contents_->bookmarkCount(*everything).value(), 2);

  std::vector<std::string> heard;
  contents_->addObserver([&](const SmartFolder& f, std::string_view key) {
    heard.push_back(f.title().value_or("") + ":" + std::string(key));
  });
  clock_.advance(std::chrono::hours(36));
  contents_->rearrangeIfHasDatePredicate(*everything);
  EXPECT_TRUE(heard.empty());
  contents_->rearrangeIfHasDatePredicate(*recent);
  EXPECT_THAT(heard, ::testing::Contains("Recent:bookmarkCount"));
  EXPECT_TRUE(ids(*recent).empty());
  EXPECT_EQ(contents_->bookmarkCount(*recent).value(), 0);
}

TEST_F(SmartFolderTest, AMalformedStoredPredicateIsAnErrorNotAFolderOfEverything) {
  auto reader = makeAccount("localrss");
  add(*reader, "one", 1h);
  save();
  for (const std::string text : {"title CONTAINS[cd", "title == \"x\" AND", "nosuch == 1", ""}) {
    auto broken = folder("Broken", text);
    auto bookmarks = contents_->bookmarks(*broken);
    ASSERT_FALSE(bookmarks) << text;
    EXPECT_THAT(bookmarks.error().description, HasSubstr("Broken"));
    EXPECT_FALSE(contents_->bookmarkCount(*broken));
    EXPECT_FALSE(contents_->isBadgeVisible(*broken));
    EXPECT_EQ(contents_->badgeValue(*broken), "");
  }
  auto position = fetchPredicate(*folder("Cut", "title CONTAINS[cd"));
  ASSERT_FALSE(position);
  EXPECT_THAT(position.error().description, HasSubstr("at character 15"));
}

TEST_F(SmartFolderTest, BadgesFollowTheFolderSettingTheDefaultAndTheCount) {
  auto reader = makeAccount("localrss");
  add(*reader, "a", 1h);
  add(*reader, "b", 2h);
  save();
  auto follows = folder("Follows", "title == \"Story\"", 1);
  auto always = folder("Always", "title == \"Story\"", 2);
  auto never = folder("Never", "title == \"Story\"", 0);
  auto empty = folder("Empty", "title == \"Nothing\"", 2);
  EXPECT_TRUE(contents_->isBadgeVisible(*follows));
  EXPECT_EQ(contents_->badgeValue(*follows), "2");
  EXPECT_EQ(contents_->badgeValue(*never), "");
  EXPECT_EQ(contents_->badgeValue(*empty), "");
  ASSERT_TRUE(defaults_.setInteger(kBookmarkCountDisplayIndex, 1));
  EXPECT_FALSE(contents_->isBadgeVisible(*follows));
  EXPECT_EQ(contents_->badgeValue(*follows), "");
  EXPECT_EQ(contents_->badgeValue(*always), "2");
}

TEST_F(SmartFolderTest, ChangesToTheLibraryRefreshTheFoldersSeen) {
  auto reader = makeAccount("localrss");
  add(*reader, "a", 1h);
  save();
  auto starred = folder("Starred", formatPredicate(predicateFromRowText("is_favorited is yes").value()));
  EXPECT_EQ(contents_->bookmarkCount(*starred).value(), 0);
  std::vector<std::string> heard;
  contents_->addObserver([&](const SmartFolder&, std::string_view key) { heard.emplace_back(key); });
  add(*reader, "b", 1h)->setIs_favorited(true);
  save();
  EXPECT_THAT(heard, ::testing::ElementsAre("bookmarks", "bookmarkCount"));
  EXPECT_EQ(contents_->bookmarkCount(*starred).value(), 1);
  EXPECT_EQ(contents_->badgeValue(*starred), "1");
}

}  // namespace
}  // namespace lectern::test

namespace lectern::test {
namespace {

class SearchIndexUpgradeTest : public StoreTest {};

TEST_F(SearchIndexUpgradeTest, ALibraryFromBeforeTheIndexGetsItBuiltByTheUpgrade) {
  const ModelVersion* before = modelVersionNamed("Lectern 2.6");
  ASSERT_NE(before, nullptr);
  writeStoreOfVersion(paths_.storeFile(), *before,
                      {"INSERT INTO Account (id, service, title) VALUES (1, 'pocket', 'Pocket')",
                       "INSERT INTO Bookmark (id, entity, account, bookmark_id, title) VALUES"
                       " (20, 'Bookmark', 1, 'a', 'Crème Brûlée'), (21, 'Bookmark', 1, 'b', 'Other'),"
                       " (22, 'Bookmark', 1, 'c', NULL)",
                       "INSERT INTO Content (id, bookmark, preview_text) VALUES (30, 20, 'Dessert'),"
                       " (31, 21, 'ÉCOLE et café')"});
  ASSERT_TRUE(manager_->isMigrationNeeded());
  ASSERT_TRUE(manager_->migrate(nullptr));
  EXPECT_EQ(queryStore(paths_.storeFile(), "SELECT rowid, title, preview_text FROM StorySearch ORDER BY rowid"),
            (std::vector<std::string>{"20|creme brulee|dessert", "21|other|ecole et cafe", "22|NULL|NULL"}));
  auto found = fetchMatchingBookmarks(context(), parsePredicate("content.preview_text CONTAINS[cd] \"CAFÉ\"").value(),
                                      clock_.now());
  ASSERT_TRUE(found) << found.error().message();
  ASSERT_EQ(found->size(), 1u);
  EXPECT_EQ((*found)[0]->bookmark_id(), "b");
}

}  // namespace
}  // namespace lectern::test
