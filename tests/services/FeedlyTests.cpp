// A Feedly account against the mock: the sign-in, the token's renewal, both directions of the
// sync, and how Feedly's entries read.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <nlohmann/json.hpp>
#include <thread>

#include "ServiceTestSupport.h"
#include "accounts/AccountCommands.h"
#include "accounts/Subscriptions.h"
#include "core/Strings.h"
#include "mocks/FeedlyMockServer.h"
#include "services/feedly/FeedlySignIn.h"
#include "services/feedly/FeedlySyncOperation.h"
#include "services/feedly/QKFeedlyClient.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/FeedStory.h"
#include "store/ObjectContext.h"

namespace lectern::test {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using namespace std::chrono_literals;

class FeedlyTest : public ServiceTest {
 protected:
  void SetUp() override {
    QKFeedlyClient::resetLastTokenCheck();
    ASSERT_TRUE(defaults_.setString("feedlyClientId", server_.clientId()));
    ASSERT_TRUE(defaults_.setString("feedlyClientSecret", server_.clientSecret()));
  }

  FeedlySignInEnvironment signInEnvironment() { return {defaults_, session_, clock_, paths_}; }

  // Signs in through the loopback redirect and adds the account.
  std::shared_ptr<Account> signIn() {
    FeedlySignInRequest request;
    request.endpoint = server_.endpoint();
    request.loopback = true;
    request.openBrowser = false;
    request.timeout = 20s;
    request.showSignInPage = consentInBrowser;
    auto signedIn = signInToFeedly(signInEnvironment(), request);
    if (!signedIn) {
      ADD_FAILURE() << signedIn.error().message();
      return nullptr;
    }
    // The sync fuzz target makes its account with a token: its seeds start after the sign-in.
    if (recorder_) recorder_->clear();
    std::optional<Result<std::shared_ptr<Account>>> added;
    lectern::addAccount(context(), *signedIn,
                        [&](Result<std::shared_ptr<Account>> result) { added = result; });
    if (!pumpUntil([&] { return added.has_value(); }) || !*added) {
      ADD_FAILURE() << (added && !*added ? added->error().message() : "the account was not added");
      return nullptr;
    }
    return **added;
  }

  std::string feedId(const std::string& name) const { return "feed/https://" + name + ".example/rss"; }

  void addEntry(const std::string& id, const std::string& feed, const std::string& title,
                std::chrono::minutes age, bool unread, bool saved = false) {
    const auto published =
        std::chrono::duration_cast<std::chrono::milliseconds>((clock_.now() - age).time_since_epoch())
            .count();
    mock::FeedlyEntrySeed seed;
    seed.id = id;
    seed.feedId = feedId(feed);
    seed.title = title;
    seed.author = "Jane";
    seed.contentHtml = fmt::format("<p>{}</p>", title);
    seed.link = fmt::format("https://{}.example/{}", feed, title);
    seed.publishedMs = published;
    seed.crawledMs = published + 1000;
    server_.addEntry(seed, unread, saved);
  }

  // Two categories (one of them the Must Reads), a feed in each, one in both, one in none.
  void serveTypicalAccount() {
    const auto tech = server_.addCategory("Tech");
    const auto must = server_.addCategory("global.must");
    server_.addSubscription("https://ten.example/rss", "Ten", "https://ten.example/", {tech});
    server_.addSubscription("https://eleven.example/rss", "Eleven", std::nullopt, {tech, must});
    server_.addSubscription("https://www.untitled.example/rss", "", "https://www.untitled.example/", {});
    addEntry("A/1+x=:1", "ten", "Unread", 2h, /*unread=*/true);
    addEntry("A/2+x=:2", "eleven", "Unread and saved", 3h, true, /*saved=*/true);
    addEntry("A/3+x=:3", "ten", "Read and saved", 24h * 20, false, true);
    addEntry("A/4+x=:4", "www.untitled", "Read an hour ago", 1h, false);
  }

  mock::FeedlyMockServer server_;
};

TEST_F(FeedlyTest, SignsInThroughTheBrowserThenMirrorsTheAccountAndFollowsItsChanges) {
  serveTypicalAccount();
  auto account = signIn();
  ASSERT_TRUE(account);
  EXPECT_EQ(account->uniqueIdentifier(), "feedly:" + server_.email());
  EXPECT_EQ(account->tokenSecret().value(), server_.currentAccessToken());
  EXPECT_TRUE(account->token());
  EXPECT_GT(account->token_expire().value(), clock_.now() + 6 * 24h);
  EXPECT_EQ(server_.codeGrants(), 1);

  auto report = sync(account);
  ASSERT_FALSE(report.error) << report.error->message();
  EXPECT_THAT(feedsAndFolders(*account),
              ElementsAre("Eleven: Must Read, Tech", "Ten: Tech", "untitled.example:"));
  EXPECT_THAT(stories(*account),
              ElementsAre(StoredStory{"A/1+x=:1", "Unread", false, false, feedId("ten")},
                          StoredStory{"A/2+x=:2", "Unread and saved", false, true, feedId("eleven")},
                          StoredStory{"A/3+x=:3", "Read and saved", true, true, feedId("ten")},
                          StoredStory{"A/4+x=:4", "Read an hour ago", true, false,
                                      "feed/https://www.untitled.example/rss"}));
  auto stored = story(*account, "A/1+x=:1");
  EXPECT_EQ(stored->url(), "https://ten.example/Unread");
  EXPECT_EQ(stored->html(), "<p>Unread</p>");
  for (const auto& request : server_.requests()) {
    if (request.path.starts_with("/v3/auth")) continue;
    EXPECT_EQ(request.authorization, "OAuth " + server_.currentAccessToken()) << request.path;
  }

  addEntry("B/5+y=:5", "eleven", "New", 10min, true);
  server_.setUnread("A/1+x=:1", false);
  server_.setSaved("A/2+x=:2", false);
  server_.removeSubscription(feedId("ten"));
  report = sync(account);
  ASSERT_FALSE(report.error) << report.error->message();
  EXPECT_THAT(feedsAndFolders(*account), ElementsAre("Eleven: Must Read, Tech", "untitled.example:"));
  EXPECT_THAT(stories(*account),
              ElementsAre(StoredStory{"A/2+x=:2", "Unread and saved", false, false, feedId("eleven")},
                          StoredStory{"A/4+x=:4", "Read an hour ago", true, false,
                                      "feed/https://www.untitled.example/rss"},
                          StoredStory{"B/5+y=:5", "New", false, false, feedId("eleven")}));
}

TEST_F(FeedlyTest, ARejectedTokenIsRenewedOnceAndKeptAndADeadGrantSaysSo) {
  serveTypicalAccount();
  auto account = signIn();
  ASSERT_TRUE(account);
  ASSERT_FALSE(sync(account).error);

  // Six hours have not passed and the token has days left: no profile check.
  server_.clearRequests();
  ASSERT_FALSE(sync(account).error);
  EXPECT_THAT(server_.requests("/v3/profile"), IsEmpty());

  server_.expireAccessTokens();
  QKFeedlyClient::resetLastTokenCheck();  // as after six hours
  server_.clearRequests();
  auto report = sync(account);
  ASSERT_FALSE(report.error) << report.error->message();
  EXPECT_EQ(server_.refreshGrants(), 1);
  EXPECT_EQ(server_.requests("/v3/profile").size(), 1u);
  EXPECT_EQ(account->tokenSecret().value(), server_.currentAccessToken());
  // A client made later (another command) starts from the renewed token.
  server_.clearRequests();
  EXPECT_FALSE(waitFor(
      [&](auto done) { Bookmark::markBookmarks({story(*account, "A/1+x=:1")}, *account, true, done); }));
  EXPECT_EQ(server_.refreshGrants(), 1);

  server_.expireAccessTokens();
  server_.revokeRefreshTokens();
  QKFeedlyClient::resetLastTokenCheck();
  report = sync(account);
  ASSERT_TRUE(report.error);
  EXPECT_EQ(report.error->domain, "com.quillhq.Lectern.feedlyClient");
  EXPECT_EQ(report.error->code, 400);
  EXPECT_EQ(report.error->description, "Failed to refresh token");
  EXPECT_THAT(report.error->recoverySuggestion, HasSubstr("Change your login credentials"));
  EXPECT_EQ(stories(*account).size(), 4u);  // nothing lost
}

TEST_F(FeedlyTest, MarksReachFeedlyOnlineAndAfterBeingQueuedOffline) {
  serveTypicalAccount();
  auto account = signIn();
  ASSERT_TRUE(account);
  ASSERT_FALSE(sync(account).error);
  server_.clearRequests();

  EXPECT_FALSE(waitFor(
      [&](auto done) { Bookmark::markBookmarks({story(*account, "A/1+x=:1")}, *account, true, done); }));
  EXPECT_FALSE(server_.unreadIds().contains("A/1+x=:1"));
  EXPECT_FALSE(waitFor([&](auto done) {
    Bookmark::markBookmark(*story(*account, "A/4+x=:4"), Bookmark::Favorited{true}, done);
  }));
  EXPECT_TRUE(server_.savedIds().contains("A/4+x=:4"));
  const auto put = server_.requests("/v3/tags");
  ASSERT_EQ(put.size(), 1u);
  EXPECT_EQ(put[0].method, "PUT");

  reachability_.set(ReachabilityStatus::kNotReachable);
  EXPECT_FALSE(waitFor(
      [&](auto done) { Bookmark::markBookmarks({story(*account, "A/1+x=:1")}, *account, false, done); }));
  EXPECT_FALSE(waitFor([&](auto done) {
    Bookmark::markBookmark(*story(*account, "A/2+x=:2"), Bookmark::Favorited{false}, done);
  }));
  EXPECT_EQ(queued(*account).size(), 2u);
  reachability_.set(ReachabilityStatus::kReachableViaWiFi);
  ASSERT_FALSE(sync(account).error);
  EXPECT_TRUE(server_.unreadIds().contains("A/1+x=:1"));
  EXPECT_FALSE(server_.savedIds().contains("A/2+x=:2"));
  EXPECT_THAT(queued(*account), IsEmpty());
  EXPECT_FALSE(story(*account, "A/1+x=:1")->is_archived());
  EXPECT_FALSE(story(*account, "A/2+x=:2")->is_favorited());

  // Several ids in one unsave: each encoded, joined by a plain comma, in the tag's path.
  auto client = std::make_shared<QKFeedlyClient>(session_, server_.endpoint(), FeedlyApplication{},
                                                 FeedlyTokens{server_.currentAccessToken(), {}, {}}, clock_);
  ASSERT_FALSE(waitFor([&](auto done) { client->markStoriesStarred({"A/1+x=:1", "A/3+x=:3"}, done); }));
  server_.clearRequests();
  ASSERT_FALSE(waitFor([&](auto done) { client->markStoriesUnstarred({"A/1+x=:1", "A/3+x=:3"}, done); }));
  EXPECT_FALSE(server_.savedIds().contains("A/1+x=:1"));
  EXPECT_FALSE(server_.savedIds().contains("A/3+x=:3"));
  EXPECT_EQ(QKFeedlyClient::urlEncodedStringFromString("A/1+x=:1"), "A%2F1%2Bx%3D%3A1");
  const auto unsave = server_.requests("/v3/tags");
  ASSERT_EQ(unsave.size(), 1u);
  EXPECT_EQ(unsave[0].method, "DELETE");
  EXPECT_THAT(unsave[0].path, HasSubstr("/A/1+x=:1,A/3+x=:3"));
}

TEST_F(FeedlyTest, SubscriptionsAndFoldersChangeOnFeedlyFirst) {
  serveTypicalAccount();
  auto account = signIn();
  ASSERT_TRUE(account);
  ASSERT_FALSE(sync(account).error);

  std::optional<Result<std::shared_ptr<Feed>>> subscribed;
  subscribeAccountToFeed(context(), *account, "https://new.example/rss", "Tech",
                         [&](Result<std::shared_ptr<Feed>> added) { subscribed = std::move(added); });
  ASSERT_TRUE(pumpUntil([&] { return subscribed.has_value(); }));
  ASSERT_TRUE(*subscribed) << subscribed->error().message();
  const std::int64_t newFeed = (**subscribed)->objectID().row;
  auto subscriptions = server_.subscriptionsJson();
  auto added = std::find_if(subscriptions.begin(), subscriptions.end(),
                            [](const json& s) { return s["id"] == "feed/https://new.example/rss"; });
  ASSERT_NE(added, subscriptions.end());
  EXPECT_EQ((*added)["categories"][0]["label"], "Tech");

  // Into a folder Feedly does not have yet: it is made there by its label.
  ASSERT_FALSE(waitFor([&](auto done) { moveFeedToFolder(context(), newFeed, "Later", done); }));
  subscriptions = server_.subscriptionsJson();
  added = std::find_if(subscriptions.begin(), subscriptions.end(),
                       [](const json& s) { return s["id"] == "feed/https://new.example/rss"; });
  ASSERT_NE(added, subscriptions.end());
  EXPECT_EQ((*added)["categories"].size(), 1u);
  EXPECT_EQ((*added)["categories"][0]["label"], "Later");

  std::int64_t techRow = 0;
  const auto folders = account->allFolders().value();
  for (const auto& folder : folders) {
    if (folder->title() == "Tech") techRow = folder->objectID().row;
  }
  ASSERT_NE(techRow, 0);
  ASSERT_FALSE(waitFor([&](auto done) { renameFolder(context(), techRow, "Technology", done); }));
  EXPECT_THAT(server_.categoriesJson().dump(), HasSubstr("\"Technology\""));

  ASSERT_FALSE(waitFor([&](auto done) { unsubscribeFromFeed(context(), newFeed, done); }));
  EXPECT_THAT(server_.subscriptionsJson().dump(), ::testing::Not(HasSubstr("new.example")));

  ASSERT_FALSE(sync(account).error);
  EXPECT_THAT(feedsAndFolders(*account),
              ElementsAre("Eleven: Must Read, Technology", "Ten: Technology", "untitled.example:"));
}

TEST_F(FeedlyTest, OddAnswersChangeNothingAndAFailedFetchSaysWhy) {
  serveTypicalAccount();
  auto account = signIn();
  ASSERT_TRUE(account);
  ASSERT_FALSE(sync(account).error);
  const auto shape = feedsAndFolders(*account);
  const auto before = stories(*account);

  server_.injectFault("/v3/categories", mock::Fault::kWrongShape);
  server_.injectFault("/v3/subscriptions", mock::Fault::kWrongShape);
  server_.injectFault("/v3/streams/ids", mock::Fault::kWrongShape);
  ASSERT_FALSE(sync(account).error);
  EXPECT_EQ(feedsAndFolders(*account), shape);
  EXPECT_EQ(stories(*account), before);  // an unread list of the wrong shape marks nothing read

  addEntry("C/6", "ten", "Fails to come", 5min, true);
  server_.injectFault("/v3/entries/.mget", mock::Fault::kServerError);
  auto report = sync(account);
  ASSERT_TRUE(report.error);
  EXPECT_EQ(report.error->description, "Failed to fetch entries");
  EXPECT_EQ(stories(*account), before);
}

TEST_F(FeedlyTest, EntriesReadTheirDatesLinksAndTextsAsFeedlyWritesThem) {
  const FixedClock clock(dateFromSecondsSince1970(1'700'000'000));
  // "published" 0 gives way to "crawled"; an empty one stays empty; otherwise published wins.
  EXPECT_EQ(FeedStory::stringValueOfFeedItemPublishedDate(json{{"published", 0}, {"crawled", 1452614994867}}),
            "1452614994867");
  EXPECT_EQ(
      FeedStory::stringValueOfFeedItemPublishedDate(json{{"published", ""}, {"crawled", 1452614994867}}), "");
  EXPECT_EQ(FeedStory::stringValueOfFeedItemPublishedDate(json{{"published", 0}, {"crawled", 0}}), "0");
  EXPECT_EQ(FeedStory::stringValueOfFeedItemPublishedDate(json{{"published", 5}, {"crawled", 9}}), "5");

  auto made = context().insertNewObject<FeedStory>();
  FeedStory& story = *made;
  const json entry = {{"id", "x=_1:2"},
                      {"title", "T"},
                      {"updated", 1452614967000},
                      {"summary", {{"content", "<p>short</p>"}}},
                      {"content", {{"content", ""}}},
                      {"alternate",
                       {{{"href", "https://a.example/feed"}, {"type", "application/rss+xml"}},
                        {{"href", "https://a.example/post"}, {"type", "TEXT/HTML"}}}}};
  story.mapFromFeedlyDictionary(entry, dateFromSecondsSince1970(1'800'000'000), clock);
  EXPECT_EQ(story.date_added(), clock.now());  // a future date becomes now
  EXPECT_EQ(story.url(), "https://a.example/post");
  EXPECT_EQ(story.html(), "<p>short</p>");  // empty content gives way to the summary
  EXPECT_EQ(story.date_updated(), dateFromSecondsSince1970(1452614967));
  EXPECT_EQ(story.bookmark_hash(), "x=_1:2");

  auto otherMade = context().insertNewObject<FeedStory>();
  FeedStory& other = *otherMade;
  other.mapFromFeedlyDictionary(json{{"id", "y"}, {"alternate", {{{"href", "https://b.example/first"}}}}},
                                clock.now(), clock);
  EXPECT_EQ(other.url(), "https://b.example/first");  // no text/html link: the first one
  EXPECT_FALSE(FeedStory::isValidForFeedlyMapping(json{{"id", ""}}));
  EXPECT_FALSE(FeedStory::isValidForFeedlyMapping(json::array()));

  EXPECT_EQ(FeedlySyncOperation::feedTitleFromJson(json{{"id", "feed/https://www.blog.example/rss"}}),
            "blog.example");
  EXPECT_EQ(FeedlySyncOperation::feedTitleFromJson(json{{"id", "feed/http://localhost/rss"}}), "localhost");
  EXPECT_EQ(FeedlySyncOperation::feedTitleFromJson(json{{"title", "Mine"}, {"website", "https://x.example"}}),
            "Mine");
  EXPECT_TRUE(QKFeedlyClient::isResponseError(json{{"message", "no"}}));
  EXPECT_FALSE(QKFeedlyClient::isResponseError(json{{"message", ""}}));
}

}  // namespace
}  // namespace lectern::test
