// A list counts what it leaves out in SQL instead of fetching every match: the counts must agree
// with the lists for every container and filter, unsaved changes included, and `lectern list`
// must print the same page and total as before.
#include <gtest/gtest.h>

#include <fmt/format.h>

#include "app/ProgramRun.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/FeedStory.h"
#include "store/Folder.h"
#include "store/ListCounts.h"
#include "store/ObjectContext.h"
#include "store/SmartFolder.h"
#include "store/StoreTestSupport.h"

namespace lectern::test {
namespace {

using namespace std::chrono_literals;

class ListCountTest : public StoreTest {
 protected:
  ListCountTest() {
    // NewsBlur: the one service whose training blocks stories (a negative score).
    reader_ = makeAccount("newsblur", "reader");
    later_ = makeAccount("instapaper", "reader");
    folder_ = reader_->addFeedFolderWithTitle("News", 0, "news");
    inFolder_ = reader_->addFeedWithTitle("In a folder", "http://127.0.0.1:1/a.xml", std::nullopt, folder_.get());
    loose_ = reader_->addFeedWithTitle("Loose", "http://127.0.0.1:1/b.xml", std::nullopt);
    // Stories of both feeds and read-later pages, with every mix of read, starred and blocked,
    // and dates that tie across accounts.
    for (int i = 0; i < 24; ++i) {
      std::shared_ptr<Bookmark> item;
      if (i % 3 == 2) {
        item = context().insertNewObject<Bookmark>();
        item->setAccount(*later_);
      } else {
        auto story = context().insertNewObject<FeedStory>();
        story->setAccount(*reader_);
        story->setFeed(i % 3 == 0 ? *inFolder_ : *loose_);
        if (i % 5 == 0) story->setScore(-1);
        item = story;
      }
      item->setBookmark_id(fmt::format("item{}", i));
      item->setTitle(i % 4 == 0 ? "Climate report" : "Other news");
      item->setDate_added(clock_.now() - std::chrono::hours(i / 2));
      item->setIs_archived(i % 2 == 1);
      item->setIs_favorited(i % 4 == 1);
    }
    if (auto saved = context().save(); !saved) throw std::runtime_error(saved.error().message());
  }

  static std::vector<BookmarkQuery> queries() {
    std::vector<BookmarkQuery> out;
    for (auto filter : {BookmarkFilter::kAll, BookmarkFilter::kUnread, BookmarkFilter::kStarred}) {
      for (bool blocked : {true, false}) out.push_back(BookmarkQuery{filter, std::nullopt, blocked});
    }
    return out;
  }

  // Each list's count equals its length, and its first page is the head of the whole list.
  template <class List, class Count>
  void expectCountsAgree(const std::string& name, List list, Count count) {
    for (BookmarkQuery query : queries()) {
      const std::string label = fmt::format("{} filter {} blocked {}", name, static_cast<int>(query.filter),
                                            query.includeBlocked);
      auto all = list(query);
      ASSERT_TRUE(all) << label;
      auto counted = count(query);
      ASSERT_TRUE(counted) << label;
      EXPECT_EQ(*counted, static_cast<std::int64_t>(all->size())) << label;
      query.limit = 2;
      auto page = list(query);
      ASSERT_TRUE(page) << label;
      ASSERT_EQ(page->size(), std::min<size_t>(2, all->size())) << label;
      for (size_t i = 0; i < page->size(); ++i) EXPECT_EQ((*page)[i], (*all)[i]) << label;
    }
  }

  void expectEveryCountAgrees() {
    for (const auto& account : {reader_, later_}) {
      expectCountsAgree(
          "account " + account->service().value_or(""), [&](const BookmarkQuery& q) { return account->bookmarks(q); },
          [&](const BookmarkQuery& q) { return countBookmarks(*account, q); });
      auto folders = account->allFolders();
      ASSERT_TRUE(folders);
      for (const auto& folder : *folders) {
        expectCountsAgree(
            "folder " + folder->title().value_or(""), [&](const BookmarkQuery& q) { return folder->readerItems(q); },
            [&](const BookmarkQuery& q) { return countReaderItems(*folder, q); });
      }
    }
    for (const auto& feed : {inFolder_, loose_}) {
      expectCountsAgree(
          "feed " + feed->title().value_or(""), [&](const BookmarkQuery& q) { return feed->stories(q); },
          [&](const BookmarkQuery& q) { return countStories(*feed, q); });
    }
  }

  std::shared_ptr<Account> reader_;
  std::shared_ptr<Account> later_;
  std::shared_ptr<FeedFolder> folder_;
  std::shared_ptr<Feed> inFolder_;
  std::shared_ptr<Feed> loose_;
};

TEST_F(ListCountTest, CountsAgreeWithListsForEveryContainerAndFilter) {
  expectEveryCountAgrees();
  // Unsaved changes count as the lists show them.
  auto stories = loose_->stories();
  ASSERT_TRUE(stories);
  ASSERT_GE(stories->size(), 3u);
  (*stories)[0]->setIs_archived(!(*stories)[0]->is_archived());
  (*stories)[1]->setIs_favorited(true);
  context().deleteObject(*(*stories)[2]);
  auto added = context().insertNewObject<FeedStory>();
  added->setAccount(*reader_);
  added->setFeed(*inFolder_);
  added->setBookmark_id("unsaved");
  added->setDate_added(clock_.now());
  expectEveryCountAgrees();
}

TEST_F(ListCountTest, ListPrintsThePageAndTheTotalOfEveryScope) {
  auto smartAccount = makeAccount("smart-folders", std::nullopt);
  auto smart = context().insertNewObject<SmartFolder>();
  smart->setTitle("Climate");
  smart->setFolder_id(std::string(kSmartFolderId));
  smart->setPredicate("title CONTAINS[cd] \"climate\"");
  smart->setBadgeIndex(1);
  smart->setAccount(*smartAccount);
  ASSERT_TRUE(context().save());

  TempDir scratch;
  const auto list = [&](const std::string& arguments) { return runProgram(scratch.path(), temp_.path(), "list " + arguments); };
  const std::string scopes[] = {"",
                                "--unread",
                                "--starred",
                                "--all",
                                "--account newsblur",
                                fmt::format("--feed {}", loose_->objectID().row),
                                fmt::format("--folder {}", folder_->objectID().row),
                                fmt::format("--smart {} --unread", smart->objectID().row)};
  for (const auto& scope : scopes) {
    const ProgramRun whole = list(scope + " --limit 0 --json");
    ASSERT_EQ(whole.exit, 0) << scope << whole.err;
    const auto all = whole.parsed();
    ASSERT_GT(all.size(), 3u) << scope;
    const ProgramRun page = list(scope + " --limit 3 --json");
    ASSERT_EQ(page.exit, 0) << scope << page.err;
    // The newest three, across accounts too, in the same order as the whole list.
    EXPECT_EQ(page.parsed(), nlohmann::json(std::vector<nlohmann::json>(all.begin(), all.begin() + 3))) << scope;
    const ProgramRun text = list(scope + " --limit 3");
    ASSERT_EQ(text.exit, 0) << scope << text.err;
    EXPECT_NE(text.out.find(fmt::format("3 of {} (--limit 0 shows all)", all.size())), std::string::npos)
        << scope << "\n" << text.out;
  }
  // A page that holds everything says nothing of a total.
  const ProgramRun everything = list(fmt::format("--feed {} --limit 100", inFolder_->objectID().row));
  ASSERT_EQ(everything.exit, 0) << everything.err;
  EXPECT_EQ(everything.out.find(" of "), std::string::npos) << everything.out;
}

}  // namespace
}  // namespace lectern::test
