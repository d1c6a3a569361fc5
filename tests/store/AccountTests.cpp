#include <gtest/gtest.h>

#include <thread>

#include "StoreTestSupport.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/Folder.h"

namespace lectern::test {
namespace {

class AccountTest : public StoreTest {};

TEST_F(AccountTest, IdentifierNamesTheServiceAndTheLogin) {
  EXPECT_EQ(makeAccount("feedbin", "ann")->uniqueIdentifier(), "feedbin:ann");
  EXPECT_EQ(makeAccount("localrss", "ann")->uniqueIdentifier(), "localrss");  // no login: no colon
  EXPECT_EQ(makeAccount("smart-folders", std::nullopt)->uniqueIdentifier(), "smart-folders");
}

TEST_F(AccountTest, ANewUsernameMovesThePreferences) {
  auto account = makeAccount("feedbin", "ann");
  ASSERT_TRUE(account->preferences().setValue("autoSyncIntervalIndex", 3));
  account->setUsername("bob");
  EXPECT_EQ(account->uniqueIdentifier(), "feedbin:bob");
  const auto accounts = defaults_.dictionaryForKey(kAccounts);
  EXPECT_FALSE(accounts.contains("feedbin:ann"));
  EXPECT_EQ(accounts["feedbin:bob"]["autoSyncIntervalIndex"], 3);
  EXPECT_EQ(account->preferences().integerForKey("autoSyncIntervalIndex"), 3);
}

TEST_F(AccountTest, SettingTheServiceCreatesItsBuiltInFoldersOnce) {
  auto account = makeAccount("pocket");
  EXPECT_EQ(account->getLocalFolderIds().value(),
            (std::vector<std::string>{"unread", "starred", "archive", "article", "video", "image"}));
  account->setService("instapaper");  // the folders Instapaper needs are all there already
  ASSERT_TRUE(context().save());
  EXPECT_EQ(account->getLocalFolderIds().value().size(), 6u);
  EXPECT_EQ(account->favoriteFolder().value()->title(), "Favorites");
  EXPECT_EQ(account->sharedFolder().value(), nullptr);
}

TEST_F(AccountTest, ClassQueriesLeaveTheSmartFoldersAccountOut) {
  makeAccount("smart-folders", std::nullopt);
  makeAccount("pocket", "ann");
  makeAccount("instapaper", std::nullopt);
  EXPECT_EQ(Account::numberOfAccounts(context()).value(), 2);
  EXPECT_EQ(Account::services(context()).value().size(), 2u);
  EXPECT_FALSE(Account::hasFeedService(context()).value());
  EXPECT_TRUE(Account::isServiceExists(context(), "instapaper", std::nullopt).value());
  EXPECT_FALSE(Account::isServiceExists(context(), "pocket", std::nullopt).value());
  EXPECT_NE(Account::smartFoldersAccount(context()).value(), nullptr);
  EXPECT_EQ(Account::localRSSAccount(context()).value(), nullptr);
  makeAccount("localrss", std::nullopt);
  EXPECT_TRUE(Account::hasFeedService(context()).value());
}

TEST_F(AccountTest, NextSyncDateFollowsTheIntervalPreference) {
  auto account = makeAccount("feedbin");
  EXPECT_EQ(account->nextSyncDate(), std::nullopt);  // manual by default
  ASSERT_TRUE(account->preferences().setValue("autoSyncIntervalIndex", 2));
  EXPECT_EQ(account->nextSyncDate(), clock_.now());  // never synced: now
  account->setLast_sync(at(1000));
  EXPECT_EQ(account->nextSyncDate(), at(1600));
  ASSERT_TRUE(account->preferences().setValue("autoSyncIntervalIndex", 4));
  EXPECT_EQ(account->nextSyncDate(), at(4600));
  ASSERT_TRUE(account->preferences().setValue("autoSyncIntervalIndex", 5));
  EXPECT_EQ(account->nextSyncDate(), std::nullopt);
}

TEST_F(AccountTest, KeepPeriodTableAndLengthening) {
  const std::pair<int, int> days[] = {{0, 7},  {1, 1},  {2, 2},  {3, 3},   {4, 7},
                                      {5, 14}, {6, 28}, {7, 70}, {99, 70}, {8, 7}};
  for (auto [index, expected] : days) {
    ASSERT_TRUE(defaults_.setInteger(kDaysKeepFeedReadItemsIndex, index));
    EXPECT_EQ(Feed::calculateKeepDate(defaults_, clock_), clock_.now() - std::chrono::hours(24 * expected))
        << index;
  }
  auto account = makeAccount("localrss");
  account->setLast_sync_keep_index(4);
  ASSERT_TRUE(defaults_.setInteger(kDaysKeepFeedReadItemsIndex, 5));
  EXPECT_TRUE(account->isKeepIndexChangedToLonger());
  account->setIsInitialSync(true);
  EXPECT_FALSE(account->isKeepIndexChangedToLonger());
  account->setIsInitialSync(false);
  ASSERT_TRUE(defaults_.setInteger(kDaysKeepFeedReadItemsIndex, 4));
  EXPECT_FALSE(account->isKeepIndexChangedToLonger());
}

TEST_F(AccountTest, FeedsComeInTheOrderTheRefreshNeeds) {
  auto account = makeAccount("localrss");
  auto later = account->addFeedFolderWithTitle("b-folder", 0, "b");
  auto earlier = account->addFeedFolderWithTitle("A-folder", 1, "a");
  account->addFeedWithTitle("Zeta", std::nullopt, "z", later.get());
  account->addFeedWithTitle("beta", std::nullopt, "b2", earlier.get());
  account->addFeedWithTitle("Alpha", std::nullopt, "a1", earlier.get());
  account->addFeedWithTitle("omega", std::nullopt, "o");
  ASSERT_TRUE(context().save());
  std::vector<std::string> order;
  const auto feeds = account->feedsInSyncOrder().value();
  for (const auto& feed : feeds) order.push_back(feed->title().value_or(""));
  EXPECT_EQ(order, (std::vector<std::string>{"omega", "Alpha", "beta", "Zeta"}));
}

TEST_F(AccountTest, NewestValuesAmongTheBookmarks) {
  auto account = makeAccount("feedbin");
  for (auto [id, added] : {std::pair{"9", 300.0}, {"100", 100.0}, {"10", 200.0}}) {
    auto bookmark = context().insertNewObject<Bookmark>();
    bookmark->setAccount(*account);
    bookmark->setBookmark_id(id);
    bookmark->setDate_added(at(added));
  }
  EXPECT_EQ(account->lastBookmarkId().value(), "100");  // numbers compare as numbers
  EXPECT_EQ(account->lastBookmarkAddDate().value(), at(300));
  EXPECT_EQ(account->lastBookmarkUpdateDate().value(), std::nullopt);
  const auto newestFirst = account->bookmarks(BookmarkQuery{BookmarkFilter::kAll, 2}).value();
  ASSERT_EQ(newestFirst.size(), 2u);
  EXPECT_EQ(newestFirst[0]->bookmark_id(), "9");
  EXPECT_EQ(newestFirst[1]->bookmark_id(), "10");
  EXPECT_EQ(account->findBookmarksWithIds({"10", "9", "nope"}).value().size(), 2u);
}

TEST_F(AccountTest, DeletingAnAccountOnTheMainContextForgetsItsSecretAndPreferences) {
  auto kept = makeAccount("pocket", "kept");
  auto account = makeAccount("feedbin", "ann");
  ASSERT_TRUE(account->setTokenSecret("s3cret"));
  ASSERT_TRUE(account->preferences().setValue("sortIndex", 1));
  ASSERT_TRUE(kept->preferences().setValue("sortIndex", 1));
  // A background context's copy going away is not the user deleting the account.
  std::thread worker([&] {
    auto background = manager_->newBackgroundContext().value();
    auto other = background->existingObject<Account>(kept->objectID()).value();
    background->deleteObject(*other);
    background->rollback();
  });
  worker.join();
  context().deleteObject(*account);
  ASSERT_TRUE(context().save());
  EXPECT_EQ(secrets_.deleted(), std::vector<std::string>{"com.quillhq.Lectern/feedbin:ann"});
  const auto accounts = defaults_.dictionaryForKey(kAccounts);
  EXPECT_FALSE(accounts.contains("feedbin:ann"));
  EXPECT_TRUE(accounts.contains("pocket:kept"));
}

TEST_F(AccountTest, FeedFolderTitlesAreFlatPaths) {
  auto account = makeAccount("feedbin");
  auto nested = account->addFeedFolderWithTitle("Tech - Linux - Kernel", 0, "k");
  auto top = account->addFeedFolderWithTitle("Tech", 1, "t");
  EXPECT_EQ(nested->titlePath(), (std::vector<std::string>{"Tech", "Linux", "Kernel"}));
  EXPECT_EQ(nested->titleOfLastComponent(), "Kernel");
  EXPECT_EQ(nested->titleOfParentComponent(), "Tech - Linux");
  EXPECT_EQ(top->titleOfLastComponent(), "Tech");
  EXPECT_EQ(top->titleOfParentComponent(), std::nullopt);
  EXPECT_EQ(top->appendTitleToPath("News"), "Tech - News");
  EXPECT_EQ(top->iconName(), "folderTemplate");
  EXPECT_EQ(account->addFolderWithTitle("Unread", 0, "unread")->iconName(), "unreadTemplate");
}

TEST_F(AccountTest, AFeedsDateIsStoredOnlyWhenItDiffers) {
  auto account = makeAccount("localrss");
  auto feed = account->addFeedWithTitle("Feed", std::nullopt, "http://example.com/feed");
  feed->setDate_updated(at(100));
  ASSERT_TRUE(context().save());
  feed->setDate_updated(at(100));
  EXPECT_FALSE(context().hasChanges());
  feed->setDate_updated(at(101));
  EXPECT_TRUE(feed->isUpdated());
  EXPECT_EQ(feed->URL(), "http://example.com/feed");  // the built-in reader keeps it in folder_id
  feed->recordRefreshFailed(at(200), "timed out");
  feed->recordRefreshFailed(at(300), "timed out again");
  EXPECT_EQ(feed->failing_since(), at(200));
  feed->recordRefreshSucceeded(at(400));
  EXPECT_EQ(feed->last_error(), std::nullopt);
  EXPECT_EQ(feed->failing_since(), std::nullopt);
  EXPECT_EQ(feed->last_refresh(), at(400));
}

}  // namespace
}  // namespace lectern::test
