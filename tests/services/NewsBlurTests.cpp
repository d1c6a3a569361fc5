// A NewsBlur account against the mock server: login, sync, marks, subscriptions and folders, each
// with what reached the server.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>
#include <set>

#include "ServiceTestSupport.h"
#include "accounts/ServiceFactory.h"
#include "accounts/Subscriptions.h"
#include "core/Dates.h"
#include "core/Log.h"
#include "core/Strings.h"
#include "mocks/NewsBlurMockServer.h"
#include "services/newsblur/NewsBlurService.h"
#include "services/newsblur/QKNewsBlurClient.h"
#include "store/Bookmark.h"
#include "store/BookmarkQuery.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/FeedStory.h"
#include "store/ObjectContext.h"
#include "store/ServiceDelivery.h"

namespace lectern::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using namespace std::chrono_literals;
using mock::NewsBlurFault;
using mock::NewsBlurIntelligence;
using nlohmann::json;

constexpr std::int64_t kAlpha = 101;
constexpr std::int64_t kBeta = 102;
constexpr std::int64_t kGamma = 103;

std::string hashOf(std::int64_t feedId, int number) { return fmt::format("{}:{:06x}", feedId, number); }

// An account added against the mock, its login's requests forgotten.
class NewsBlurTest : public ServiceTest {
 protected:
  void SetUp() override {
    auto added = addAccount("newsblur", "me", "secret", server_.baseURL());
    ASSERT_TRUE(added) << added.error().message();
    account_ = *added;
    server_.clearRequests();
  }

  // Story `number` of the feed, "s<number>" by id, published `age` ago.
  void addStory(int number, std::int64_t feedId, const std::string& title, std::chrono::minutes age,
                bool read, bool starred = false, NewsBlurIntelligence intelligence = {}) {
    mock::NewsBlurStory story;
    story.hash = hashOf(feedId, number);
    story.id = fmt::format("s{}", number);
    story.feedId = feedId;
    story.title = title;
    story.authors = "Jane";
    story.content = fmt::format("<p>{}</p>", title);
    story.permalink = fmt::format("https://example.org/{}", number);
    story.timestamp = static_cast<std::int64_t>(secondsSince1970(clock_.now() - age));
    story.read = read;
    story.starred = starred;
    story.intelligence = intelligence;
    server_.addStory(story);
  }
  // Alpha at the top level, Beta in "Tech", Gamma in "Tech" and "Tech - Apple".
  void serveThreeFeeds() {
    server_.addFeed({kAlpha, "Alpha", "https://a.example/feed", "https://a.example/", 3600});
    server_.addFeed({kBeta, "Beta", "https://b.example/rss", "", 60}, "Tech");
    server_.addFeed({kGamma, "Gamma", "https://c.example/atom", "https://c.example/", 60}, "Tech");
    server_.addFeed({kGamma, "Gamma", "https://c.example/atom", "https://c.example/", 60}, "Tech - Apple");
  }
  std::shared_ptr<FeedFolder> folderTitled(const std::string& title) {
    ObjectContext::FetchRequest request;
    request.where = "account = ? AND entity = 'FeedFolder' AND title = ?";
    request.arguments = {account_->objectID().row, title};
    return context().fetchFirst<FeedFolder>(std::move(request)).value();
  }
  std::shared_ptr<Feed> feedWithId(std::int64_t feedId) {
    const auto feeds = account_->feeds().value();
    for (const auto& feed : feeds) {
      if (feed->folder_id() == std::to_string(feedId)) return feed;
    }
    return nullptr;
  }
  std::vector<std::string> paths() {
    std::vector<std::string> sent;
    for (const auto& request : server_.requests()) sent.push_back(request.path);
    return sent;
  }

  mock::NewsBlurMockServer server_{"me", "secret"};
  std::shared_ptr<Account> account_;
};

TEST_F(NewsBlurTest, AWrongPasswordLeavesNoAccountAndTheSessionCookieNeverReachesTheLog) {
  auto refused = addAccount("newsblur", "other", "wrong", server_.baseURL());
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().domain, "com.quillhq.Lectern");
  EXPECT_EQ(refused.error().code, 100);
  EXPECT_EQ(refused.error().description, "Failed to login");
  EXPECT_EQ(refused.error().recoverySuggestion, "Invalid user name or password");
  EXPECT_EQ(Account::services(context()).value().size(), 1u);  // the fixture's
  EXPECT_FALSE(secrets_.password(kPasswordServiceName, "newsblur:other").value());
  const auto logins = server_.requests("/api/login");
  ASSERT_EQ(logins.size(), 1u);
  EXPECT_EQ(logins[0].method, "POST");
  EXPECT_EQ(logins[0].parameter("username"), "other");
  EXPECT_EQ(logins[0].parameter("password"), "wrong");

  // NewsBlur has accounts without a password: an empty one is sent as it is.
  mock::NewsBlurMockServer open("guest", "");
  auto passwordless = addAccount("newsblur", "guest", "", open.baseURL());
  ASSERT_TRUE(passwordless) << passwordless.error().message();
  EXPECT_EQ(open.requests("/api/login").at(0).parameter("password"), "");
  EXPECT_TRUE(open.requests("/api/login").at(0).parameters.contains("password"));

  // A sync logs in before anything else, and every call after carries the session.
  std::mutex mutex;
  std::string logged;
  const int observer = Log::addObserver([&](LogLevel, std::string_view, std::string_view message) {
    std::lock_guard lock(mutex);
    logged.append(message).append("\n");
  });
  serveThreeFeeds();
  addStory(1, kAlpha, "One", 1h, /*read=*/false);
  server_.clearRequests();
  const auto report = sync(account_);
  Log::removeObserver(observer);
  ASSERT_FALSE(report.error) << report.error->message();
  const auto sent = server_.requests();
  ASSERT_FALSE(sent.empty());
  EXPECT_EQ(sent.front().path, "/api/login");
  for (size_t index = 1; index < sent.size(); ++index) {
    EXPECT_TRUE(sent[index].authenticated) << sent[index].path;
    EXPECT_THAT(sent[index].cookie, ::testing::HasSubstr("newsblur_sessionid=")) << sent[index].path;
  }
  for (const auto& request : sent) EXPECT_EQ(request.accept, "text/plain") << request.path;
  std::lock_guard lock(mutex);
  EXPECT_THAT(logged, ::testing::HasSubstr("NewsBlur: "));
  for (const auto& session : server_.sessionIds()) EXPECT_EQ(logged.find(session), std::string::npos);
}

TEST_F(NewsBlurTest, ARefusedLoginEndsTheSyncBeforeAnythingIsSentOrRead) {
  serveThreeFeeds();
  addStory(1, kAlpha, "One", 1h, /*read=*/false);
  ASSERT_FALSE(sync(account_).error);
  reachability_.set(ReachabilityStatus::kNotReachable);
  EXPECT_FALSE(
      waitFor([&](auto done) { Bookmark::markBookmarks({story(*account_, "s1")}, *account_, true, done); }));
  reachability_.set(ReachabilityStatus::kReachableViaWiFi);

  // The password was changed on NewsBlur's site.
  server_.setPassword("changed");
  server_.clearRequests();
  const auto report = sync(account_);
  ASSERT_TRUE(report.error);
  EXPECT_EQ(report.error->description, "Failed to login");
  EXPECT_EQ(report.error->recoverySuggestion, "Invalid user name or password");
  EXPECT_THAT(paths(), ElementsAre("/api/login"));
  EXPECT_THAT(queued(*account_), ElementsAre("3 s1"));  // it waits for a login that works
  EXPECT_THAT(stories(*account_), ElementsAre(StoredStory{"s1", "One", true, false, "101"}));
}

TEST_F(NewsBlurTest, FirstSyncMirrorsFlatFoldersFeedsAndStoriesAndASecondFollowsTheServer) {
  serveThreeFeeds();
  addStory(1, kAlpha, "Unread one", 2h, /*read=*/false);
  addStory(2, kBeta, "Unread and starred", 3h, /*read=*/false, /*starred=*/true);
  addStory(3, kGamma, "Old starred", 24h * 30, /*read=*/true, /*starred=*/true);
  addStory(4, kAlpha, "Read yesterday", 24h, /*read=*/true);
  addStory(5, kAlpha, "Read long ago", 24h * 10, /*read=*/true);
  auto report = sync(account_);
  ASSERT_FALSE(report.error) << report.error->message();

  // The top level " " makes no folder; a feed listed in two folders sits in both.
  EXPECT_THAT(feedsAndFolders(*account_), ElementsAre("Alpha:", "Beta: Tech", "Gamma: Tech, Tech - Apple"));
  EXPECT_EQ(folderTitled("Tech")->folder_id(), "feed-folder");
  EXPECT_EQ(feedWithId(kBeta)->feed_link(), "https://b.example/rss");  // no site: the feed's address
  EXPECT_EQ(feedWithId(kAlpha)->feed_link(), "https://a.example/");
  const auto updated = feedWithId(kAlpha)->date_updated();
  ASSERT_TRUE(updated);
  EXPECT_EQ(std::chrono::floor<std::chrono::seconds>(*updated),
            std::chrono::floor<std::chrono::seconds>(clock_.now() - 1h));
  // Read stories older than the keep date stay at the server.
  EXPECT_THAT(stories(*account_), ElementsAre(StoredStory{"s1", "Unread one", false, false, "101"},
                                              StoredStory{"s2", "Unread and starred", false, true, "102"},
                                              StoredStory{"s3", "Old starred", true, true, "103"},
                                              StoredStory{"s4", "Read yesterday", true, false, "101"}));
  EXPECT_EQ(story(*account_, "s1")->bookmark_hash(), hashOf(kAlpha, 1));
  EXPECT_TRUE(account_->last_sync());

  const auto feeds = server_.requests("/reader/feeds");
  ASSERT_EQ(feeds.size(), 1u);
  EXPECT_EQ(feeds[0].parameter("flat"), "true");
  EXPECT_EQ(feeds[0].parameter("include_favicons"), "false");
  EXPECT_EQ(feeds[0].parameter("update_counts"), "false");
  EXPECT_EQ(server_.requests("/reader/refresh_feeds").size(), 1u);
  // Missing unread stories come by hash, one "h" pair each.
  std::set<std::string> asked;
  for (const auto& request : server_.requests("/reader/river_stories")) {
    for (const auto& hash : request.values("h")) asked.insert(hash);
  }
  EXPECT_EQ(asked, (std::set<std::string>{hashOf(kAlpha, 1), hashOf(kBeta, 2)}));
  const auto river = server_.requests("/reader/river_stories").back();
  EXPECT_EQ(river.parameter("page"), "1");
  EXPECT_EQ(river.parameter("order"), "newest");
  EXPECT_EQ(river.parameter("read_filter"), "all");

  // Changed at the server: a new story, one read and one unread again elsewhere, a star taken
  // away, a feed gone and a folder renamed.
  server_.clearRequests();
  addStory(7, kBeta, "New since", 30min, /*read=*/false);
  server_.setRead(hashOf(kAlpha, 1), true);
  server_.setRead(hashOf(kAlpha, 4), false);
  server_.setStarred(hashOf(kBeta, 2), false);
  server_.removeFeed(kGamma);
  server_.removeFolder("Tech - Apple");
  server_.removeFeed(kBeta);
  server_.addFeed({kBeta, "Beta", "https://b.example/rss", "", 60}, "Reading");
  report = sync(account_);
  ASSERT_FALSE(report.error) << report.error->message();
  EXPECT_THAT(feedsAndFolders(*account_), ElementsAre("Alpha:", "Beta: Reading"));
  EXPECT_FALSE(folderTitled("Tech - Apple"));  // a folder NewsBlur no longer lists goes
  EXPECT_THAT(stories(*account_), ElementsAre(StoredStory{"s1", "Unread one", true, false, "101"},
                                              StoredStory{"s2", "Unread and starred", false, false, "102"},
                                              StoredStory{"s4", "Read yesterday", false, false, "101"},
                                              StoredStory{"s7", "New since", false, false, "102"}));
  // The story read here and unread there became unread without being asked for again.
  asked.clear();
  for (const auto& request : server_.requests("/reader/river_stories")) {
    for (const auto& hash : request.values("h")) asked.insert(hash);
  }
  EXPECT_EQ(asked, (std::set<std::string>{hashOf(kBeta, 7)}));
}

TEST_F(NewsBlurTest, AnExpiredSessionCostsOneNewLoginNotTheSync) {
  serveThreeFeeds();
  addStory(1, kAlpha, "One", 1h, /*read=*/false);
  addStory(2, kBeta, "Two", 2h, /*read=*/false);
  ASSERT_FALSE(sync(account_).error);

  // Mid-run: a read answers "authenticated": false (with a default account's data).
  server_.clearRequests();
  addStory(3, kBeta, "Three", 30min, /*read=*/false);
  server_.expireSessionsOn("/reader/unread_story_hashes");
  auto report = sync(account_);
  ASSERT_FALSE(report.error) << report.error->message();
  EXPECT_EQ(server_.requests("/api/login").size(), 2u);
  EXPECT_EQ(server_.requests("/reader/unread_story_hashes").size(), 2u);
  EXPECT_EQ(stories(*account_).size(), 3u);
  EXPECT_FALSE(story(*account_, "s1")->is_archived());  // nothing was marked read from the empty answer

  // A write answered 403 (the session the account's login opened ended meanwhile) is sent again
  // after one new login.
  server_.clearRequests();
  EXPECT_FALSE(
      waitFor([&](auto done) { Bookmark::markBookmarks({story(*account_, "s1")}, *account_, true, done); }));
  EXPECT_THAT(paths(), ElementsAre("/reader/mark_story_as_read", "/api/login", "/reader/mark_story_as_read"));
  EXPECT_EQ(server_.requests()[0].status, 403);
  EXPECT_FALSE(server_.unreadHashes().contains(hashOf(kAlpha, 1)));
  EXPECT_THAT(queued(*account_), IsEmpty());

  // A new client (a new process) logs in before its first call.
  serviceObjectOf<NewsBlurService>(*account_)->resetApiClient();
  server_.clearRequests();
  EXPECT_FALSE(waitFor(
      [&](auto done) { Bookmark::markBookmark(*story(*account_, "s2"), Bookmark::Favorited{true}, done); }));
  EXPECT_THAT(paths(), ElementsAre("/api/login", "/reader/mark_story_as_starred"));
  EXPECT_TRUE(server_.starredHashes().contains(hashOf(kBeta, 2)));
}

TEST_F(NewsBlurTest, OfflineChangesReplayWithTheirFeedIdsAfterTheLogin) {
  serveThreeFeeds();
  addStory(1, kAlpha, "One", 1h, /*read=*/false);
  addStory(2, kAlpha, "Two", 2h, /*read=*/false);
  addStory(3, kBeta, "Three", 3h, /*read=*/false);
  addStory(4, kGamma, "Four", 4h, /*read=*/true);
  addStory(5, kBeta, "Five", 5h, /*read=*/false);
  ASSERT_FALSE(sync(account_).error);
  server_.clearRequests();

  reachability_.set(ReachabilityStatus::kNotReachable);
  EXPECT_FALSE(waitFor([&](auto done) {
    Bookmark::markBookmarks({story(*account_, "s1"), story(*account_, "s3"), story(*account_, "s2")},
                            *account_, true, done);
  }));
  EXPECT_FALSE(
      waitFor([&](auto done) { Bookmark::markBookmarks({story(*account_, "s4")}, *account_, false, done); }));
  EXPECT_FALSE(waitFor(
      [&](auto done) { Bookmark::markBookmark(*story(*account_, "s4"), Bookmark::Favorited{true}, done); }));
  EXPECT_FALSE(waitFor([&](auto done) { Bookmark::deleteBookmarkWithId("s5", *account_, done); }));
  EXPECT_EQ(queued(*account_).size(), 6u);
  EXPECT_THAT(server_.requests(), IsEmpty());

  reachability_.set(ReachabilityStatus::kReachableViaWiFi);
  const auto report = sync(account_);
  ASSERT_FALSE(report.error) << report.error->message();
  const auto sent = server_.requests();
  ASSERT_GE(sent.size(), 6u);
  EXPECT_EQ(sent[0].path, "/api/login");
  // Read: one call per feed with its stories; then unread, star, and the deletion as a read.
  EXPECT_EQ(sent[1].path, "/reader/mark_story_as_read");
  EXPECT_EQ(sent[1].parameter("feed_id"), "101");
  EXPECT_THAT(sent[1].values("story_id"), UnorderedElementsAre("s1", "s2"));
  EXPECT_EQ(sent[2].path, "/reader/mark_story_as_read");
  EXPECT_EQ(sent[2].parameter("feed_id"), "102");
  EXPECT_THAT(sent[2].values("story_id"), ElementsAre("s3"));
  EXPECT_EQ(sent[3].path, "/reader/mark_story_as_unread");
  EXPECT_EQ(sent[3].parameter("feed_id"), "103");
  EXPECT_EQ(sent[4].path, "/reader/mark_story_as_starred");
  EXPECT_EQ(sent[4].parameter("story_id"), "s4");
  EXPECT_EQ(sent[4].parameter("feed_id"), "103");
  EXPECT_EQ(sent[5].path, "/reader/mark_story_as_read");
  EXPECT_EQ(sent[5].parameter("story_id"), "s5");
  EXPECT_EQ(sent[5].parameter("feed_id"), "102");
  EXPECT_EQ(server_.unreadHashes(), (std::set<std::string>{hashOf(kGamma, 4)}));
  EXPECT_EQ(server_.starredHashes(), (std::set<std::string>{hashOf(kGamma, 4)}));
  EXPECT_THAT(queued(*account_), IsEmpty());
  // NewsBlur keeps the deleted story, read: the read stories bring it back as such.
  EXPECT_THAT(stories(*account_), ElementsAre(StoredStory{"s1", "One", true, false, "101"},
                                              StoredStory{"s2", "Two", true, false, "101"},
                                              StoredStory{"s3", "Three", true, false, "102"},
                                              StoredStory{"s4", "Four", false, true, "103"},
                                              StoredStory{"s5", "Five", true, false, "102"}));
}

TEST_F(NewsBlurTest, ReadPagingGoesPastHiddenPagesAndStopsAtTheFirstOlderStoryMidPage) {
  server_.addFeed({kAlpha, "Alpha", "https://a.example/feed", "", 60});
  server_.setRiverPageSize(3);
  // Newest first: three trained-away stories (a page emptied by hiding), four recent read ones,
  // then older than the week kept.
  for (int number = 1; number <= 3; ++number) {
    addStory(number, kAlpha, fmt::format("Hidden {}", number), number * 1min, /*read=*/true, false,
             {0, -1, 0, 0});
  }
  for (int number = 4; number <= 7; ++number)
    addStory(number, kAlpha, fmt::format("Recent {}", number), number * 1h, /*read=*/true);
  for (int number = 8; number <= 20; ++number)
    addStory(number, kAlpha, fmt::format("Old {}", number), 24h * 8 + number * 1min, /*read=*/true);
  ASSERT_FALSE(sync(account_).error);

  std::vector<std::string> pages;
  for (const auto& request : server_.requests("/reader/river_stories")) {
    if (request.values("h").empty()) pages.push_back(request.parameter("page"));
  }
  // Page 3 holds "Recent 7" and then old stories: no fourth page.
  EXPECT_THAT(pages, ElementsAre("1", "2", "3"));
  std::vector<std::string> titles;
  for (const auto& stored : stories(*account_)) titles.push_back(stored.title);
  EXPECT_THAT(titles, UnorderedElementsAre("Recent 4", "Recent 5", "Recent 6", "Recent 7"));
}

TEST_F(NewsBlurTest, MissingStoriesAreAskedForFiftyHashesARequestAndEachOnce) {
  server_.addFeed({kAlpha, "Alpha", "https://a.example/feed", "", 60});
  server_.addFeed({kBeta, "Beta", "https://b.example/feed", "", 60});
  for (int number = 1; number <= 120; ++number)
    addStory(number, number % 2 == 0 ? kAlpha : kBeta, fmt::format("Story {}", number), 1h, /*read=*/false);
  ASSERT_FALSE(sync(account_).error);

  std::multiset<std::string> asked;
  size_t requests = 0;
  for (const auto& request : server_.requests("/reader/river_stories")) {
    const auto hashes = request.values("h");
    if (hashes.empty()) continue;
    ++requests;
    EXPECT_LE(hashes.size(), 50u);
    EXPECT_EQ(request.parameters.count("h"), hashes.size());  // one plain "h" pair per hash
    asked.insert(hashes.begin(), hashes.end());
  }
  EXPECT_EQ(requests, 3u);
  EXPECT_EQ(asked.size(), 120u);
  EXPECT_EQ(std::set<std::string>(asked.begin(), asked.end()).size(), 120u);
  EXPECT_EQ(stories(*account_).size(), 120u);
}

TEST_F(NewsBlurTest, TheIntelligenceScoreIsKeptAndBlockedStoriesCanBeLeftOut) {
  // Likes win over dislikes; dislikes over the feed's training; the feed's alone when nothing else.
  const std::vector<std::pair<json, int>> cases = {
      {{{"title", 1}, {"author", -1}, {"tags", 0}, {"feed", -1}}, 1},
      {{{"title", 0}, {"author", -1}, {"tags", 0}, {"feed", 1}}, -1},
      {{{"title", 0}, {"author", 0}, {"tags", 0}, {"feed", -1}}, -1},
      {{{"title", 0}, {"author", 0}, {"tags", 0}, {"feed", 1}}, 1},
      {{{"title", "2"}, {"author", nullptr}}, 2},
      {json::object(), 0},
      {json::array(), 0}};
  for (const auto& [intelligence, expected] : cases)
    EXPECT_EQ(FeedStory::computeStoryScore(intelligence), expected) << intelligence.dump();
  EXPECT_TRUE(FeedStory::isStoryBlockedByIntelligence({{"intelligence", {{"feed", -1}}}}));
  EXPECT_FALSE(FeedStory::isStoryBlockedByIntelligence({{"score", -1}}));

  server_.addFeed({kAlpha, "Alpha", "https://a.example/feed", "", 60});
  addStory(1, kAlpha, "Liked", 1h, /*read=*/false, false, {0, 1, 0, -1});
  addStory(2, kAlpha, "Trained away", 2h, /*read=*/false, false, {0, 0, -1, 0});
  addStory(3, kAlpha, "Untrained", 3h, /*read=*/false);
  ASSERT_FALSE(sync(account_).error);
  // The merge keeps every story; the score goes with it.
  EXPECT_EQ(stories(*account_).size(), 3u);
  EXPECT_EQ(std::dynamic_pointer_cast<FeedStory>(story(*account_, "s2"))->score(), -1);
  EXPECT_EQ(std::dynamic_pointer_cast<FeedStory>(story(*account_, "s1"))->score(), 1);
  BookmarkQuery shown;
  shown.includeBlocked = false;
  std::vector<std::string> titles;
  const auto listed = account_->bookmarks(shown).value();
  for (const auto& bookmark : listed) titles.push_back(bookmark->title().value_or(""));
  EXPECT_THAT(titles, ElementsAre("Liked", "Untrained"));
}

TEST_F(NewsBlurTest, StoriesMapTheirFieldsAndReadTheirDatesAsGmt) {
  const FixedClock clock(dateFromMillisecondsSince1970(1'700'000'000'000));
  auto& moc = context();
  auto story = moc.insertNewObject<FeedStory>();
  const json item = {{"story_hash", "42:a1b2c3"},
                     {"id", "https://example.com/?p=42"},
                     {"story_title", "A post"},
                     {"story_authors", json::array({"Jane"})},
                     {"story_content", "<p>Body</p>"},
                     {"story_permalink", "https://example.com/a-post"},
                     {"story_date", "2016-10-26 15:00:00"},
                     {"read_status", 1}};
  ASSERT_TRUE(FeedStory::isValidForNewsBlurMapping(item));
  const auto date = FeedStory::newsBlurStoryDate(item);
  ASSERT_TRUE(date);
  EXPECT_EQ(millisecondsSince1970(*date), 1'477'494'000'000);
  story->mapFromNewsBlurDictionary(item, *date, /*isArchived=*/true, /*isFavorited=*/false, clock);
  EXPECT_EQ(story->bookmark_id(), "https://example.com/?p=42");
  EXPECT_EQ(story->bookmark_hash(), "42:a1b2c3");
  EXPECT_EQ(story->url(), "https://example.com/a-post");
  EXPECT_EQ(story->html(), "<p>Body</p>");
  EXPECT_FALSE(story->author());  // authors that are no text are left out
  EXPECT_TRUE(story->is_archived());
  EXPECT_EQ(story->score(), 0);
  // A future date becomes now; dates of another shape do not read.
  story->mapFromNewsBlurDictionary(item, clock.now() + 24h, false, false, clock);
  ASSERT_TRUE(story->date_added());
  EXPECT_EQ(std::chrono::floor<std::chrono::seconds>(*story->date_added()),
            std::chrono::floor<std::chrono::seconds>(clock.now()));
  EXPECT_FALSE(FeedStory::newsBlurStoryDate({{"story_date", "2016-10-26T15:00:00Z"}}));
  EXPECT_FALSE(FeedStory::newsBlurStoryDate({{"story_date", 1477494000}}));
  EXPECT_FALSE(FeedStory::isValidForNewsBlurMapping({{"id", "x"}}));
  moc.rollback();
}

TEST_F(NewsBlurTest, FolderRenameMoveSubscribeAndUnsubscribeChangeTheServerFirst) {
  serveThreeFeeds();
  ASSERT_FALSE(sync(account_).error);
  server_.clearRequests();

  // Renaming "Tech" renames its nested folder with it at the server; the library follows.
  EXPECT_FALSE(waitFor(
      [&](auto done) { renameFolder(context(), folderTitled("Tech")->objectID().row, "Gadgets", done); }));
  const auto rename = server_.requests("/reader/rename_folder");
  ASSERT_EQ(rename.size(), 1u);
  EXPECT_EQ(rename[0].parameter("folder_to_rename"), "Tech");
  EXPECT_EQ(rename[0].parameter("new_folder_name"), "Gadgets");
  EXPECT_EQ(rename[0].parameter("in_folder"), "");
  ASSERT_FALSE(sync(account_).error);
  EXPECT_THAT(feedsAndFolders(*account_),
              ElementsAre("Alpha:", "Beta: Gadgets", "Gamma: Gadgets, Gadgets - Apple"));

  // A nested folder is named by its own name inside its parent.
  server_.clearRequests();
  EXPECT_FALSE(waitFor([&](auto done) {
    renameFolder(context(), folderTitled("Gadgets - Apple")->objectID().row, "Gadgets - Phones", done);
  }));
  const auto nested = server_.requests("/reader/rename_folder");
  ASSERT_EQ(nested.size(), 1u);
  EXPECT_EQ(nested[0].parameter("folder_to_rename"), "Apple");
  EXPECT_EQ(nested[0].parameter("new_folder_name"), "Phones");
  EXPECT_EQ(nested[0].parameter("in_folder"), "Gadgets");
  EXPECT_TRUE(server_.flatFolders().contains("Gadgets - Phones"));

  // A new folder is made at NewsBlur, then here.
  std::optional<Result<std::shared_ptr<FeedFolder>>> made;
  serviceObjectOf<NewsBlurService>(*account_)->addOrRenameFolder(
      "Inbox", nullptr, [&](Result<std::shared_ptr<FeedFolder>> folder) { made = std::move(folder); });
  ASSERT_TRUE(pumpUntil([&] { return made.has_value(); }));
  ASSERT_TRUE(*made) << made->error().message();
  EXPECT_EQ((**made)->title(), "Inbox");
  EXPECT_EQ(server_.requests("/reader/add_folder").at(0).parameter("folder"), "Inbox");
  EXPECT_TRUE(server_.flatFolders().contains("Inbox"));

  // Moving into a folder NewsBlur does not have yet makes it there first.
  server_.clearRequests();
  EXPECT_FALSE(waitFor([&](auto done) {
    moveFeedToFolder(context(), feedWithId(kAlpha)->objectID().row, std::string("Later"), done);
  }));
  EXPECT_THAT(paths(), ElementsAre("/reader/add_folder", "/reader/move_feed_to_folder"));
  const auto move = server_.requests("/reader/move_feed_to_folder").at(0);
  EXPECT_EQ(move.parameter("feed_id"), "101");
  EXPECT_EQ(move.parameter("in_folder"), "");
  EXPECT_EQ(move.parameter("to_folder"), "Later");
  EXPECT_THAT(server_.flatFolders().at("Later"), ElementsAre(kAlpha));
  // Into an existing one, and back to the top level.
  EXPECT_FALSE(waitFor([&](auto done) {
    moveFeedToFolder(context(), feedWithId(kAlpha)->objectID().row, std::string("Gadgets"), done);
  }));
  EXPECT_THAT(server_.flatFolders().at("Gadgets"), UnorderedElementsAre(kBeta, kGamma, kAlpha));
  EXPECT_FALSE(waitFor([&](auto done) {
    moveFeedToFolder(context(), feedWithId(kAlpha)->objectID().row, std::nullopt, done);
  }));
  EXPECT_THAT(server_.flatFolders().at(" "), ElementsAre(kAlpha));

  // Subscribing into a folder; then unsubscribing a feed from every folder it sits in.
  server_.addDiscoverableFeed({104, "Delta", "https://d.example/feed", "https://d.example/", 60});
  std::optional<Result<std::shared_ptr<Feed>>> added;
  subscribeAccountToFeed(context(), *account_, "https://d.example/", std::string("Gadgets"),
                         [&](Result<std::shared_ptr<Feed>> feed) { added = std::move(feed); });
  ASSERT_TRUE(pumpUntil([&] { return added.has_value(); }));
  ASSERT_TRUE(*added) << added->error().message();
  EXPECT_EQ((**added)->folder_id(), "104");
  EXPECT_EQ(server_.requests("/reader/add_url").at(0).parameter("folder"), "Gadgets");
  EXPECT_THAT(server_.flatFolders().at("Gadgets"), ElementsAre(kBeta, kGamma, 104));

  server_.clearRequests();
  EXPECT_FALSE(
      waitFor([&](auto done) { unsubscribeFromFeed(context(), feedWithId(kGamma)->objectID().row, done); }));
  std::vector<std::string> folders;
  for (const auto& request : server_.requests("/reader/delete_feed"))
    folders.push_back(request.parameter("in_folder"));
  EXPECT_THAT(folders, UnorderedElementsAre("Gadgets", "Phones"));
  EXPECT_FALSE(server_.feedIds().contains(kGamma));
  EXPECT_THAT(feedsAndFolders(*account_), ElementsAre("Alpha:", "Beta: Gadgets", "Delta: Gadgets"));

  // A refusal reaches the person with NewsBlur's words, and the library stays.
  auto missing = std::optional<Result<std::shared_ptr<Feed>>>();
  subscribeAccountToFeed(context(), *account_, "https://nothing.example/", std::nullopt,
                         [&](Result<std::shared_ptr<Feed>> feed) { missing = std::move(feed); });
  ASSERT_TRUE(pumpUntil([&] { return missing.has_value(); }));
  ASSERT_FALSE(*missing);
  EXPECT_EQ(missing->error().description, "Failed to add feed");
  EXPECT_EQ(missing->error().recoverySuggestion, "There is no feed at that address.");
}

TEST_F(NewsBlurTest, AnswersOfTheWrongShapeChangeNothingAndRefusalsAreShownNotQueued) {
  serveThreeFeeds();
  addStory(1, kAlpha, "One", 1h, /*read=*/false);
  addStory(2, kBeta, "Old one", 24h * 40, /*read=*/true, /*starred=*/true);
  ASSERT_FALSE(sync(account_).error);
  const auto before = stories(*account_);
  const auto shape = feedsAndFolders(*account_);

  server_.injectFault("/reader/feeds", NewsBlurFault::kWrongShape);
  auto report = sync(account_);
  ASSERT_TRUE(report.error);
  EXPECT_EQ(report.error->description, "Unable to synchronize folders");
  EXPECT_EQ(report.error->recoverySuggestion, "An unexpected response was received from the server.");
  EXPECT_EQ(feedsAndFolders(*account_), shape);

  // An unread list that is no list marks nothing read.
  server_.setRead(hashOf(kAlpha, 1), true);
  server_.injectFault("/reader/unread_story_hashes", NewsBlurFault::kWrongShape);
  ASSERT_FALSE(sync(account_).error);
  EXPECT_EQ(stories(*account_), before);
  server_.setRead(hashOf(kAlpha, 1), false);

  server_.injectFault("/reader/unread_story_hashes", NewsBlurFault::kNotJson);
  report = sync(account_);
  ASSERT_TRUE(report.error);
  EXPECT_EQ(report.error->description, "Failed to fetch hashes of unread stories");
  EXPECT_EQ(stories(*account_), before);

  // NewsBlur declines marking an old story unread with HTTP 200: shown, not queued.
  auto refused = waitFor([&](auto done) {
    Bookmark::markBookmarks({story(*account_, "s2")}, *account_, /*archived=*/false, done);
  });
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->description, "Failed to update feed item");
  EXPECT_EQ(refused->recoverySuggestion, "Stories older than 30 days cannot be marked as unread.");
  EXPECT_EQ(deliveryOf(refused), Delivery::kRefused);
  EXPECT_THAT(queued(*account_), IsEmpty());

  // A server in trouble: the change waits for the next sync, which delivers it.
  server_.injectFault("/reader/mark_story_as_starred", NewsBlurFault::kServerError);
  EXPECT_FALSE(waitFor(
      [&](auto done) { Bookmark::markBookmark(*story(*account_, "s1"), Bookmark::Favorited{true}, done); }));
  EXPECT_THAT(queued(*account_), ElementsAre("1 s1"));
  ASSERT_FALSE(sync(account_).error);
  EXPECT_TRUE(server_.starredHashes().contains(hashOf(kAlpha, 1)));
  EXPECT_THAT(queued(*account_), IsEmpty());
}

}  // namespace
}  // namespace lectern::test
