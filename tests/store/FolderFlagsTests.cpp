#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "StoreTestSupport.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/FeedStory.h"
#include "store/Folder.h"
#include "store/Token.h"

namespace lectern::test {
namespace {

class FolderFlagsTest : public StoreTest {
 protected:
  // An item with the given flag in exactly the given folders.
  std::shared_ptr<Bookmark> itemIn(Account& account, const std::vector<std::string>& folderIds,
                                   bool archived = false) {
    auto bookmark = context().insertNewObject<Bookmark>();
    bookmark->setAccount(account);
    bookmark->setBookmark_id("item");
    bookmark->setIs_archived(archived);
    bookmark->removeFromAllFolder();
    for (const auto& id : folderIds) {
      auto folder = account.findFolderWithId(id).value();
      if (!folder) folder = account.addFolderWithTitle(id, 9, id);
      bookmark->addToFolder(*folder);
    }
    EXPECT_TRUE(context().save());
    return bookmark;
  }
  static std::set<std::string> folderIds(const Bookmark& bookmark) {
    std::set<std::string> ids;
    const auto folders = bookmark.folders().value();
    for (const auto& folder : folders) ids.insert(folder->folder_id().value_or(""));
    return ids;
  }
};

TEST_F(FolderFlagsTest, ArchivingMovesItemsBetweenTheBuiltInFoldersPerService) {
  struct Case {
    std::string_view service;
    std::vector<std::string> before;
    bool archive;
    std::set<std::string> after;
  };
  const Case cases[] = {
      // Instapaper: archiving leaves every folder but "archive"; un-archiving goes to "unread"
      // only when the item is in no other folder.
      {"instapaper", {"unread", "starred", "mine"}, true, {"archive"}},
      {"instapaper", {"archive", "mine"}, false, {"mine"}},
      {"instapaper", {"archive"}, false, {"unread"}},
      // Pocket and Pinboard: only "unread" and "archive" change.
      {"pocket", {"unread", "article"}, true, {"archive", "article"}},
      {"pocket", {"archive", "video"}, false, {"unread", "video"}},
      {"pinboard", {"unread", "private"}, true, {"archive", "private"}},
      // Feed services: the flag is the unread state; folders stay.
      {"feedbin", {"mine"}, true, {"mine"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(fmt::format("{} archive={}", c.service, c.archive));
    auto account = makeAccount(c.service, fmt::format("user{}", &c - cases));
    auto item = itemIn(*account, c.before, /*archived=*/!c.archive);
    item->setIs_archived(c.archive);
    ASSERT_TRUE(context().save());
    EXPECT_EQ(folderIds(*item), c.after);
    EXPECT_EQ(item->is_archived(), c.archive);
  }
}

TEST_F(FolderFlagsTest, StarringAndSharingFollowTheirFolders) {
  auto instapaper = makeAccount("instapaper");
  auto item = itemIn(*instapaper, {"unread"});
  item->setIs_favorited(true);
  EXPECT_EQ(folderIds(*item), (std::set<std::string>{"unread", "starred"}));
  item->setIs_favorited(false);
  EXPECT_EQ(folderIds(*item), (std::set<std::string>{"unread"}));

  auto pinboard = makeAccount("pinboard");
  auto link = itemIn(*pinboard, {"private"});
  link->setIs_favorited(true);  // Pinboard has no "starred" folder
  link->setIs_shared(true);
  EXPECT_EQ(folderIds(*link), (std::set<std::string>{"shared"}));
  link->setIs_shared(false);
  EXPECT_EQ(folderIds(*link), (std::set<std::string>{"private"}));
  EXPECT_TRUE(link->is_favorited());
}

TEST_F(FolderFlagsTest, AStoryMovesItsFeedsBadgeCountOnlyWhenTheFlagChanges) {
  auto account = makeAccount("localrss");
  auto feed = account->addFeedWithTitle("Feed", "http://example.com/feed", "http://example.com/feed");
  std::vector<std::shared_ptr<FeedStory>> stories;
  for (int i = 0; i < 3; ++i) {
    auto story = context().insertNewObject<FeedStory>();
    story->setAccount(*account);
    story->setFeed(*feed);
    stories.push_back(story);
  }
  ASSERT_TRUE(context().save());
  ASSERT_EQ(feed->bookmarkCount().value(), 3);
  stories[0]->setIs_archived(true);
  stories[0]->setIs_archived(true);
  EXPECT_EQ(feed->bookmarkCount().value(), 2);
  stories[0]->setIs_archived(false);
  stories[1]->setIs_archived(true);
  stories[2]->setIs_archived(true);
  EXPECT_EQ(feed->bookmarkCount().value(), 1);
  ASSERT_TRUE(context().save());
  EXPECT_EQ(feed->unreadCount().value(), 1);
  const auto counts = account->unreadFeedCounts().value();
  EXPECT_EQ(counts.at(feed->objectID()), 1);
}

TEST_F(FolderFlagsTest, MovingLeavesEveryFolderButStarred) {
  auto account = makeAccount("instapaper");
  auto mine = account->addFolderWithTitle("Mine", 5, "12345");
  auto item = itemIn(*account, {"unread", "starred"});
  bool done = false;
  std::optional<Error> error;
  Bookmark::moveBookmark(*item, *mine, [&](std::optional<Error> result) {
    error = std::move(result);
    done = true;
  });
  ASSERT_TRUE(pumpUntil([&] { return done; }));
  EXPECT_EQ(error, std::nullopt);
  EXPECT_EQ(folderIds(*item), (std::set<std::string>{"starred", "12345"}));
  EXPECT_EQ(service_->calls(), std::vector<std::string>{"move item"});

  goOffline();
  done = false;
  Bookmark::markBookmark(*item, Bookmark::Shared{true}, [&](std::optional<Error> result) {
    error = std::move(result);
    done = true;
  });
  ASSERT_TRUE(pumpUntil([&] { return done; }));
  ASSERT_TRUE(error);
  EXPECT_FALSE(item->is_shared());
}

TEST_F(FolderFlagsTest, RearrangingOrdersByTitleIgnoringCase) {
  auto account = makeAccount("feedbin");
  auto zebra = account->addFeedFolderWithTitle("zebra", 0, "z");
  auto apricot = account->addFeedFolderWithTitle("Apricot", 1, "a");
  auto mango = account->addFeedFolderWithTitle("mango", 2, "m");
  account->rearrangeItemsAlphabetically({zebra, apricot, mango});
  EXPECT_EQ(std::vector<std::int64_t>({apricot->pos(), mango->pos(), zebra->pos()}),
            (std::vector<std::int64_t>{0, 1, 2}));
  auto feed = account->addFeedWithTitle("Feed", std::nullopt, "f", mango.get());
  ASSERT_TRUE(context().save());
  ASSERT_TRUE(FeedFolder::deleteFolder(*mango));
  EXPECT_FALSE(feed->isDeleted());  // its feeds are detached, not deleted
  EXPECT_EQ(feed->firstFolder().value(), nullptr);
  std::vector<std::string> titles;
  const auto folders = account->sortedFolders().value();
  for (const auto& folder : folders) titles.push_back(folder->title().value_or(""));
  EXPECT_EQ(titles, (std::vector<std::string>{"Apricot", "zebra"}));
}

class TagsTest : public StoreTest {
 protected:
  void SetUp() override { account_ = makeAccount("pinboard"); }
  std::shared_ptr<Bookmark> tagged(std::string id, std::string tags) {
    auto bookmark = context().insertNewObject<Bookmark>();
    bookmark->setAccount(*account_);
    bookmark->setBookmark_id(std::move(id));
    bookmark->setTags(std::move(tags));
    return bookmark;
  }
  static std::vector<std::string> titles(const std::vector<std::shared_ptr<Token>>& tokens) {
    std::vector<std::string> out;
    for (const auto& token : tokens) out.push_back(token->title().value_or(""));
    return out;
  }
  std::shared_ptr<Account> account_;
};

TEST_F(TagsTest, SavingMakesTokensFollowTheTagString) {
  auto first = tagged("b1", "art, news,art");
  auto second = tagged("b2", "news");
  ASSERT_TRUE(context().save());
  EXPECT_EQ(titles(account_->fetchTags().value()),
            (std::vector<std::string>{"art", "news"}));  // one token per name
  EXPECT_EQ(titles(first->tokens().value()), (std::vector<std::string>{"art", "news"}));
  first->setTagsArray({"news", "travel"});
  ASSERT_TRUE(context().save());
  EXPECT_EQ(titles(first->tokens().value()), (std::vector<std::string>{"news", "travel"}));
  EXPECT_EQ(titles(account_->fetchTags().value()), (std::vector<std::string>{"art", "news", "travel"}));
  EXPECT_EQ(second->tokens().value().size(), 1u);
}

TEST_F(TagsTest, TheSameTagStringAgainLeavesTokensAlone) {
  auto bookmark = tagged("b1", "a,b");
  ASSERT_TRUE(context().save());
  auto tokens = bookmark->tokens().value();
  ASSERT_EQ(tokens.size(), 2u);
  tokens[1]->removeBookmark(*bookmark);  // the tokens no longer match the string
  ASSERT_TRUE(context().save());
  bookmark->setTags("a,b");
  ASSERT_TRUE(context().save());
  EXPECT_EQ(titles(bookmark->tokens().value()), (std::vector<std::string>{"a"}));
}

TEST_F(TagsTest, ATagWithoutUnreadItemsLeavesTheUnreadTokensButStays) {
  auto read = tagged("b1", "old");
  read->setIs_archived(true);
  auto unread = tagged("b2", "fresh,old");
  ASSERT_TRUE(context().save());
  EXPECT_EQ(titles(account_->unreadTokens().value()), (std::vector<std::string>{"fresh", "old"}));
  context().deleteObject(*unread);
  ASSERT_TRUE(context().save());
  EXPECT_EQ(titles(account_->unreadTokens().value()), std::vector<std::string>{});
  EXPECT_EQ(titles(account_->fetchTags().value()), (std::vector<std::string>{"fresh", "old"}));
}

TEST_F(TagsTest, AccountsWithoutTagsGetNoTokens) {
  auto feedbin = makeAccount("feedbin");
  auto bookmark = context().insertNewObject<Bookmark>();
  bookmark->setAccount(*feedbin);
  bookmark->setTags("x,y");
  ASSERT_TRUE(context().save());
  EXPECT_TRUE(feedbin->fetchTags().value().empty());
}

}  // namespace
}  // namespace lectern::test
