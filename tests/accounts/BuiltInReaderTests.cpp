#include <gtest/gtest.h>

#include "AccountsTestSupport.h"
#include "accounts/AccountErrors.h"
#include "accounts/BuiltInReader.h"
#include "accounts/KeptArticles.h"
#include "accounts/Subscriptions.h"
#include "net/QKKindURLErrorMessage.h"
#include "services/localrss/LocalRSSService.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/FeedStory.h"
#include "store/ObjectContext.h"

namespace lectern::test {
namespace {

class BuiltInReaderTest : public AccountsTest {
 protected:
  // Subscribes and waits for the answer.
  Result<std::shared_ptr<Feed>> subscribe(const std::string& url,
                                          std::optional<std::string> folder = std::nullopt) {
    std::optional<Result<std::shared_ptr<Feed>>> outcome;
    subscribeToFeed(context(), url, std::move(folder),
                    [&](Result<std::shared_ptr<Feed>> added) { outcome = added; });
    if (!pumpUntil([&] { return outcome.has_value(); })) throw std::runtime_error("no answer");
    return *outcome;
  }
  std::optional<Error> unsubscribe(std::int64_t feedId) {
    std::optional<std::optional<Error>> outcome;
    unsubscribeFromFeed(context(), feedId, [&](std::optional<Error> error) { outcome = error; });
    if (!pumpUntil([&] { return outcome.has_value(); })) throw std::runtime_error("no answer");
    return *outcome;
  }
  // The account object owns its service: it is kept for as long as the test uses the service.
  LocalRSSService& service() {
    reader_ = ensureLocalRSSAccount(context()).value();
    return dynamic_cast<LocalRSSService&>(*reader_->serviceObject());
  }
  std::vector<std::string> folderTitles() {
    ObjectContext::FetchRequest request;
    request.where = "entity = 'FeedFolder'";
    request.orderBy = "pos";
    std::vector<std::string> titles;
    const auto folders = context().fetch<FeedFolder>(request).value();
    for (const auto& folder : folders) titles.push_back(*folder->title());
    return titles;
  }
  std::int64_t feedCount() { return context().count(Entity::kFeed, "1").value(); }

  FeedServer server_;
  std::shared_ptr<Account> reader_;
};

TEST_F(BuiltInReaderTest, SubscribingLearnsTheTitleAndFilesTheFeed) {
  auto feed = subscribe(server_.url("/feed.xml"), "News");
  ASSERT_TRUE(feed) << feed.error().message();
  EXPECT_EQ((*feed)->title(), "Lectern Notes");
  EXPECT_EQ((*feed)->folder_id(), server_.url("/feed.xml"));
  EXPECT_EQ((*feed)->feed_link(), server_.url("/feed.xml"));
  auto folder = (*feed)->firstFolder().value();
  ASSERT_NE(folder, nullptr);
  EXPECT_EQ(folder->title(), "News");
  EXPECT_EQ(folder->entity(), Entity::kFeedFolder);
  EXPECT_FALSE(context().hasChanges());  // saved
  auto account = Account::localRSSAccount(context()).value();
  EXPECT_EQ(account->title(), "Built-in RSS Reader");

  // A feed without title is named after its host; an existing folder is reused.
  auto untitled = subscribe(server_.url("/untitled.xml"), " News ");
  ASSERT_TRUE(untitled) << untitled.error().message();
  EXPECT_EQ((*untitled)->title(), "127.0.0.1");
  EXPECT_EQ(folderTitles(), std::vector<std::string>{"News"});
  EXPECT_EQ(folder->feeds().value().size(), 2u);
}

TEST_F(BuiltInReaderTest, FailedSubscriptionsSayWhyAndLeaveNothingBehind) {
  struct Case {
    std::string url;
    std::string_view description;
    int code;
  };
  const Case cases[] = {
      {server_.url("/missing.xml"), "Failed to add subscription", kAddSubscriptionFailed},
      {server_.url("/page.html"), "Failed to add subscription", kAddSubscriptionFailed},
      {"ftp://example.org/feed.xml", "Failed to add subscription: invalid url", kInvalidSubscriptionURL},
      {"just words", "Failed to add subscription: invalid url", kInvalidSubscriptionURL},
      {"http://", "Failed to add subscription: invalid url", kInvalidSubscriptionURL},
      {"  ", "Failed to add subscription: invalid url", kInvalidSubscriptionURL},
  };
  for (const auto& [url, description, code] : cases) {
    SCOPED_TRACE(url);
    auto feed = subscribe(url, "Tech");
    ASSERT_FALSE(feed);
    EXPECT_EQ(feed.error().domain, "com.quillhq.Lectern.Account");
    EXPECT_EQ(feed.error().code, code);
    EXPECT_EQ(feed.error().description, description);
    EXPECT_FALSE(feed.error().recoverySuggestion.empty());
  }
  EXPECT_EQ(server_.requests(), 2);  // unusable addresses are never fetched
  EXPECT_EQ(feedCount(), 0);
  EXPECT_EQ(folderTitles(), std::vector<std::string>{});  // the folder made for them went again

  // The reason is the fetch's own explanation (a status outside 200-299).
  auto missing = subscribe(server_.url("/missing.xml"));
  EXPECT_EQ(missing.error().recoverySuggestion, QKKindURLErrorMessage::messageForURLErrorCode(-1011));
}

TEST_F(BuiltInReaderTest, SubscribingTwiceKeepsOneFeed) {
  auto first = subscribe(server_.url("/feed.xml"));
  ASSERT_TRUE(first);
  auto second = subscribe(server_.url("/feed.xml"));
  ASSERT_TRUE(second);
  EXPECT_EQ(*second, *first);
  EXPECT_EQ(server_.requests(), 1);
  // Into a folder: the same feed, now filed there too.
  auto filed = subscribe(server_.url("/feed.xml"), "Later");
  ASSERT_TRUE(filed);
  EXPECT_EQ(*filed, *first);
  EXPECT_EQ((*first)->firstFolder().value()->title(), "Later");

  // Two subscriptions under way at once for one new address still give one feed.
  int answers = 0;
  std::vector<std::shared_ptr<Feed>> feeds;
  for (int i = 0; i < 2; ++i) {
    subscribeToFeed(context(), server_.url("/untitled.xml"), std::nullopt,
                    [&](Result<std::shared_ptr<Feed>> added) {
                      ++answers;
                      if (added) feeds.push_back(*added);
                    });
  }
  ASSERT_TRUE(pumpUntil([&] { return answers == 2; }));
  ASSERT_EQ(feeds.size(), 2u);
  EXPECT_EQ(feeds[0], feeds[1]);
  EXPECT_EQ(feedCount(), 2);

  // A feed that knows its address only as feed_link (as OPML import writes it) is found too.
  auto account = Account::localRSSAccount(context()).value();
  auto imported = account->addFeedWithTitle("Imported", server_.url("/page.html"), std::nullopt);
  ASSERT_TRUE(context().save());
  EXPECT_EQ(subscribe(server_.url("/page.html")).value(), imported);
}

TEST_F(BuiltInReaderTest, UnsubscribingRemovesTheFeedWithItsStories) {
  auto doomed = subscribe(server_.url("/feed.xml"), "News").value();
  auto kept = subscribe(server_.url("/untitled.xml"), "News").value();
  auto account = Account::localRSSAccount(context()).value();
  for (const auto& [feed, id] : {std::pair{doomed, "a"}, std::pair{doomed, "b"}, std::pair{kept, "c"}}) {
    auto story = context().insertNewObject<FeedStory>();
    story->setBookmark_id(id);
    story->setAccount(*account);
    story->setFeed(*feed);
  }
  ASSERT_TRUE(context().save());
  const auto doomedId = doomed->objectID().row;

  EXPECT_EQ(unsubscribe(doomedId), std::nullopt);
  EXPECT_EQ(feedCount(), 1);
  EXPECT_EQ(context().count(Entity::kFeedStory, "1").value(), 1);
  EXPECT_EQ(kept->stories().value().size(), 1u);
  EXPECT_EQ(folderTitles(), std::vector<std::string>{"News"});  // the folder stays

  for (std::int64_t missing : {doomedId, kept->firstFolder().value()->objectID().row, std::int64_t{999}}) {
    auto error = unsubscribe(missing);
    ASSERT_TRUE(error) << missing;
    EXPECT_EQ(error->code, kNoSuchFeed);
  }
  // A feed of another account goes through that account's service, which must agree first (this
  // one has no password to reach its server with): nothing is removed here.
  auto other = makeAccount("feedbin", "ann");
  auto foreign = other->addFeedWithTitle("Theirs", "http://example.org/x", "x");
  ASSERT_TRUE(context().save());
  EXPECT_EQ(unsubscribe(foreign->objectID().row)->code, kServiceClientUnavailable);
  EXPECT_FALSE(foreign->isDeleted());
}

TEST_F(BuiltInReaderTest, StarredStoriesAreKeptAsCopiesAndTakenBackWhenTheServiceRefuses) {
  // A hosted feed whose service cannot be reached (no password): its unsubscription fails after
  // the starred story was copied, and the copy and its new folder go again.
  auto other = makeAccount("feedbin", "ann");
  auto foreign = other->addFeedWithTitle("Theirs", "http://example.org/x", "x");
  auto starred = context().insertNewObject<FeedStory>();
  starred->setBookmark_id("s");
  starred->setTitle("Starred one");
  starred->setAccount(*other);
  starred->setFeed(*foreign);
  starred->setIs_favorited(true);
  starred->setHtml("<p>Kept text</p>");
  starred->addEnclosure("http://example.org/a.mp3", "audio/mpeg", 42);
  auto plain = context().insertNewObject<FeedStory>();
  plain->setBookmark_id("p");
  plain->setAccount(*other);
  plain->setFeed(*foreign);
  ASSERT_TRUE(context().save());

  std::optional<Result<KeptArticles>> refused;
  unsubscribeFromFeed(context(), foreign->objectID().row, StarredArticles::kKeep,
                      [&](Result<KeptArticles> kept) { refused = kept; });
  ASSERT_TRUE(pumpUntil([&] { return refused.has_value(); }));
  ASSERT_FALSE(*refused);
  EXPECT_EQ(refused->error().code, kServiceClientUnavailable);
  ASSERT_TRUE(context().save());
  EXPECT_EQ(context().count(Entity::kFeedStory, "1").value(), 2);
  EXPECT_EQ(context().count(Entity::kFolder, "entity = 'Folder' AND folder_id = 'kept'").value(), 0);

  // Kept directly, as the built-in reader's own unsubscription does before its save.
  auto kept = keepStarredArticles(context(), {starred, plain}, StarredArticles::kKeep);
  ASSERT_TRUE(kept) << kept.error().message();
  EXPECT_EQ(kept->going, 1);
  ASSERT_EQ(kept->kept, 1);
  ASSERT_TRUE(context().save());
  auto copy = std::dynamic_pointer_cast<FeedStory>(kept->copies[0]);
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->account().value()->service(), "localrss");
  EXPECT_EQ(copy->title(), "Starred one");
  EXPECT_TRUE(copy->is_favorited());
  EXPECT_EQ(copy->html().value(), "<p>Kept text</p>");
  EXPECT_EQ(copy->enclosures().value().size(), 1u);
  EXPECT_FALSE(copy->feedID());
  EXPECT_TRUE(copy->isInFolder(*kept->folder).value());
  EXPECT_EQ(kept->folder->title(), "Kept");
  EXPECT_EQ(keepStarredArticles(context(), {starred}, StarredArticles::kDelete)->kept, 0);
}

TEST_F(BuiltInReaderTest, FeedsMoveAndFoldersAreAddedAndRenamedLocally) {
  auto feed = subscribe(server_.url("/feed.xml"), "News").value();
  LocalRSSService& reader = service();
  std::vector<Result<std::shared_ptr<FeedFolder>>> folders;
  auto collect = [&](Result<std::shared_ptr<FeedFolder>> folder) { folders.push_back(folder); };
  reader.addOrRenameFolder("Tech", nullptr, collect);
  reader.addOrRenameFolder(" ", nullptr, collect);
  ASSERT_TRUE(pumpUntil([&] { return folders.size() == 2; }));
  ASSERT_TRUE(folders[0]);
  EXPECT_EQ(folders[1].error().code, kInvalidFolderName);
  auto tech = *folders[0];

  std::optional<std::optional<Error>> moved;
  reader.moveFeed(*feed, tech.get(), [&](std::optional<Error> error) { moved = error; });
  ASSERT_TRUE(pumpUntil([&] { return moved.has_value(); }));
  EXPECT_EQ(*moved, std::nullopt);
  EXPECT_EQ(feed->feedFolders().value(), std::vector<std::shared_ptr<FeedFolder>>{tech});

  reader.addOrRenameFolder("Science", tech.get(), collect);
  ASSERT_TRUE(pumpUntil([&] { return folders.size() == 3; }));
  ASSERT_TRUE(folders[2]);
  EXPECT_EQ(*folders[2], tech);
  EXPECT_EQ(folderTitles(), (std::vector<std::string>{"News", "Science"}));
  EXPECT_FALSE(context().hasChanges());

  // Out of every folder to the top level.
  moved.reset();
  reader.moveFeed(*feed, nullptr, [&](std::optional<Error> error) { moved = error; });
  ASSERT_TRUE(pumpUntil([&] { return moved.has_value(); }));
  EXPECT_EQ(feed->firstFolder().value(), nullptr);
}

}  // namespace
}  // namespace lectern::test
