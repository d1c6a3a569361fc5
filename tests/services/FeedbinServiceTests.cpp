// What a person does with a Feedbin account: add it, mark, subscribe, move, unsubscribe.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FeedbinTestSupport.h"
#include "accounts/ServiceFactory.h"
#include "accounts/Subscriptions.h"
#include "services/feedbin/FeedbinService.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/ObjectContext.h"

namespace lectern::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using namespace std::chrono_literals;

class FeedbinServiceTest : public FeedbinTest {
 protected:
  // One subscription with two entries, synced.
  void syncSmallAccount() {
    server_.addSubscription({501, 11, "Alpha", "https://a.example/feed", std::nullopt});
    addEntry(101, 11, "First", 2h, /*unread=*/true);
    addEntry(102, 11, "Second", 3h, /*unread=*/true);
    ASSERT_FALSE(sync(account_).error);
    server_.clearRequests();
  }
  Result<std::shared_ptr<Feed>> subscribe(const std::string& url, std::optional<std::string> folder) {
    std::optional<Result<std::shared_ptr<Feed>>> outcome;
    subscribeAccountToFeed(context(), *account_, url, std::move(folder),
                           [&](Result<std::shared_ptr<Feed>> added) { outcome = std::move(added); });
    if (!pumpUntil([&] { return outcome.has_value(); })) throw std::runtime_error("no answer");
    return std::move(*outcome);
  }
  std::vector<std::string> serverTagsOf(std::int64_t feedId) {
    std::vector<std::string> names;
    for (const auto& tagging : server_.taggings()) {
      if (tagging.feedId == feedId) names.push_back(tagging.name);
    }
    return names;
  }
};

TEST_F(FeedbinServiceTest, AWrongPasswordLeavesNoAccountBehind) {
  auto added = addAccount("feedbin", "other@example.org", "wrong", server_.baseURL());
  ASSERT_FALSE(added);
  EXPECT_EQ(added.error().description, "Authentication failed");
  EXPECT_EQ(added.error().recoverySuggestion, "Authentication required");
  auto accounts = Account::services(context());
  ASSERT_TRUE(accounts);
  EXPECT_EQ(accounts->size(), 1u);  // the one the fixture added
  EXPECT_FALSE(secrets_.password(kPasswordServiceName, "feedbin:other@example.org").value());
  EXPECT_FALSE(defaults_.dictionaryForKey("Accounts").contains("feedbin:other@example.org"));
  // The password went to the secret store, never into the library.
  EXPECT_EQ(secrets_.password(kPasswordServiceName, account_->uniqueIdentifier()).value(),
            std::string(kPassword));
}

TEST_F(FeedbinServiceTest, ChangesMadeOnlineReachTheServerOrWaitInTheQueue) {
  syncSmallAccount();
  EXPECT_FALSE(
      waitFor([&](auto done) { Bookmark::markBookmarks({story(*account_, "101")}, *account_, true, done); }));
  EXPECT_FALSE(waitFor(
      [&](auto done) { Bookmark::markBookmark(*story(*account_, "102"), Bookmark::Favorited{true}, done); }));
  EXPECT_FALSE(server_.unreadEntryIds().contains(101));
  EXPECT_TRUE(server_.starredEntryIds().contains(102));
  EXPECT_THAT(queued(*account_), IsEmpty());

  // The connection drops: the change waits in the queue, and the next sync sends it.
  server_.injectFault("DELETE", "/v2/unread_entries.json", mock::Fault::kDropConnection);
  EXPECT_FALSE(
      waitFor([&](auto done) { Bookmark::markBookmarks({story(*account_, "102")}, *account_, true, done); }));
  EXPECT_TRUE(story(*account_, "102")->is_archived());
  EXPECT_THAT(queued(*account_), ElementsAre("3 102"));
  ASSERT_FALSE(sync(account_).error);
  EXPECT_FALSE(server_.unreadEntryIds().contains(102));
  EXPECT_THAT(queued(*account_), IsEmpty());
  EXPECT_TRUE(story(*account_, "102")->is_archived());

  // Deleting an item marks it read at Feedbin, which keeps every entry.
  server_.setUnread(101, true);
  EXPECT_FALSE(waitFor([&](auto done) { Bookmark::deleteBookmarkWithId("101", *account_, done); }));
  EXPECT_FALSE(server_.unreadEntryIds().contains(101));

  // The server refuses (the password changed there): the person sees it, the local change stays.
  secrets_.setPassword(kPasswordServiceName, account_->uniqueIdentifier(), "stale");
  serviceObjectOf<FeedbinService>(*account_)->resetApiClient();
  auto refused =
      waitFor([&](auto done) { Bookmark::markBookmarks({story(*account_, "102")}, *account_, false, done); });
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->description, "Failed to mark entry");
  EXPECT_FALSE(story(*account_, "102")->is_archived());
  EXPECT_THAT(queued(*account_), IsEmpty());
}

TEST_F(FeedbinServiceTest, SubscribeIntoAFolderThenMoveBetweenFoldersAndUnsubscribe) {
  server_.addDiscoverableFeed({"https://new.example/feed", "New Feed", "https://new.example/"});
  auto feed = subscribe("https://new.example/feed", "Reading");
  ASSERT_TRUE(feed) << feed.error().message();
  const std::int64_t remoteFeed = std::stoll((*feed)->folder_id().value_or("0"));
  ASSERT_EQ(server_.subscriptions().size(), 1u);
  EXPECT_EQ(server_.subscriptions()[0].feedId, remoteFeed);
  EXPECT_EQ((*feed)->ext_id(), std::to_string(server_.subscriptions()[0].id));
  EXPECT_THAT(serverTagsOf(remoteFeed), ElementsAre("Reading"));
  EXPECT_THAT(feedsAndFolders(*account_), ElementsAre("New Feed: Reading"));

  // A second subscription to the same feed gives the same feed, not a second one.
  auto again = subscribe("https://new.example/feed", std::nullopt);
  ASSERT_TRUE(again) << again.error().message();
  EXPECT_EQ(server_.subscriptions().size(), 1u);

  const std::int64_t row = (*feed)->objectID().row;
  auto moveTo = [&](std::optional<std::string> folder) {
    return waitFor([&](auto done) { moveFeedToFolder(context(), row, folder, done); });
  };
  EXPECT_FALSE(moveTo("Later"));
  EXPECT_THAT(serverTagsOf(remoteFeed), ElementsAre("Later"));  // one folder after a move
  EXPECT_THAT(feedsAndFolders(*account_), ::testing::Contains("New Feed: Later"));
  EXPECT_FALSE(moveTo(std::nullopt));
  EXPECT_THAT(serverTagsOf(remoteFeed), IsEmpty());

  ASSERT_FALSE(sync(account_).error);  // the library agrees with the server after a sync too
  EXPECT_THAT(feedsAndFolders(*account_), ElementsAre("New Feed:"));

  auto synced = feedWithRemoteId(std::to_string(remoteFeed));
  ASSERT_TRUE(synced);
  EXPECT_FALSE(waitFor([&](auto done) { unsubscribeFromFeed(context(), synced->objectID().row, done); }));
  EXPECT_THAT(server_.subscriptions(), IsEmpty());
  EXPECT_THAT(feedsAndFolders(*account_), IsEmpty());
}

TEST_F(FeedbinServiceTest, ASubscriptionTheServerCannotMakeSaysWhyAndLeavesNothingBehind) {
  auto missing = subscribe("https://nothing.example/", "Empty");
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error().description, "Failed to add subscription");
  EXPECT_THAT(folderTitles(), IsEmpty());  // the folder made for it went again

  server_.addPageWithSeveralFeeds(
      "https://page.example/",
      {{"https://page.example/a.xml", "A", std::nullopt}, {"https://page.example/b.xml", "B", std::nullopt}});
  auto several = subscribe("https://page.example/", std::nullopt);
  ASSERT_FALSE(several);
  EXPECT_EQ(several.error().description, "Failed to add subscription");
  EXPECT_THAT(feedsAndFolders(*account_), IsEmpty());
}

TEST_F(FeedbinServiceTest, RenamingAFolderDoesNothingAndNeverCallsBack) {
  auto folder = account_->addFeedFolderWithTitle("Tech", 0, "feed-folder");
  ASSERT_TRUE(context().save());
  bool called = false;
  serviceObjectOf<FeedbinService>(*account_)->addOrRenameFolder(
      "Renamed", folder.get(), [&](Result<std::shared_ptr<FeedFolder>>) { called = true; });
  mainQueue_.runUntil([&] { return called; }, std::chrono::milliseconds(300));
  EXPECT_FALSE(called);
  EXPECT_EQ(folder->title(), "Tech");
  EXPECT_THAT(server_.requests(), IsEmpty());
}

}  // namespace
}  // namespace lectern::test
