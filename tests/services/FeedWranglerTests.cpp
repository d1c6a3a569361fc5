// A Feed Wrangler account against the mock server: sign-in, sync, marks and subscriptions, each
// with what reached the server.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "ServiceTestSupport.h"
#include "accounts/AccountErrors.h"
#include "accounts/ServiceFactory.h"
#include "accounts/Subscriptions.h"
#include "core/Strings.h"
#include "mocks/FeedWranglerMockServer.h"
#include "services/feedwrangler/FeedWranglerService.h"
#include "services/feedwrangler/QKFeedWranglerClient.h"
#include "store/Bookmark.h"
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
using mock::FeedWranglerFault;
using mock::FeedWranglerRequest;

constexpr std::string_view kEmail = "me@example.org";
constexpr std::string_view kPassword = "secret";
constexpr std::string_view kClientKey = "lectern-test-key";

// An account added against the mock with the client key set, its sign-in's requests forgotten.
class FeedWranglerTest : public ServiceTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(defaults_.setString(FeedWranglerService::kClientKeyDefaultsKey, kClientKey));
    auto added = addAccount("feedwrangler", std::string(kEmail), std::string(kPassword), server_.baseURL());
    ASSERT_TRUE(added) << added.error().message();
    account_ = *added;
    server_.clearRequests();
  }

  // An item published (and first seen) `age` ago.
  void addItem(std::int64_t id, std::int64_t feedId, const std::string& title, std::chrono::minutes age,
               bool read, bool starred = false) {
    const auto published = static_cast<std::int64_t>(secondsSince1970(clock_.now() - age));
    server_.addItem({id, feedId, title, fmt::format("https://example.org/items/{}", id), std::nullopt,
                     fmt::format("<p>{}</p>", title), published, published, read, starred});
  }
  void serveThreeFeeds() {
    server_.addSubscription({2117, "Alpha", "https://a.example/feed", "https://a.example/"});
    server_.addSubscription({2118, "Beta", "https://b.example/rss", std::nullopt});
    server_.addSubscription({2119, "Gamma", "https://c.example/atom", "https://c.example/"});
  }
  // The offsets of the requests to `resource` whose `filter` parameter is `value`.
  std::vector<std::string> offsets(const std::string& resource, const std::string& filter,
                                   const std::string& value) {
    std::vector<std::string> found;
    for (const auto& request : server_.requests(resource)) {
      if (request.parameter(filter) == value) found.push_back(request.parameter("offset"));
    }
    return found;
  }
  std::vector<std::string> storiesInFolder(const std::string& title) {
    std::vector<std::string> ids;
    for (const auto& folder : streamFolders()) {
      if (folder->title() != title) continue;
      const auto stories = folder->bookmarks().value();
      for (const auto& story : stories) ids.push_back(story->bookmark_id().value_or(""));
    }
    std::sort(ids.begin(), ids.end());
    return ids;
  }
  std::vector<std::shared_ptr<FeedFolder>> streamFolders() {
    ObjectContext::FetchRequest request;
    request.where = "account = ? AND entity = 'FeedFolder'";
    request.arguments = {account_->objectID().row};
    return context().fetch<FeedFolder>(std::move(request)).value();
  }
  std::shared_ptr<QKFeedWranglerClient> client() {
    return serviceObjectOf<FeedWranglerService>(*account_)->feedWranglerClient();
  }

  mock::FeedWranglerMockServer server_{std::string(kEmail), std::string(kPassword), std::string(kClientKey)};
  std::shared_ptr<Account> account_;
};

TEST_F(FeedWranglerTest, SigningInKeepsTheTokenAndARefusalOrAMissingClientKeyLeavesNoAccount) {
  // The password was traded for the token: only the token is kept.
  EXPECT_EQ(secrets_.password(kPasswordServiceName, account_->uniqueIdentifier()).value(),
            server_.accessToken());

  auto noAccountFor = [&](const std::string& email) {
    EXPECT_EQ(Account::services(context()).value().size(), 1u) << email;  // the fixture's
    EXPECT_FALSE(secrets_.password(kPasswordServiceName, "feedwrangler:" + email).value()) << email;
  };
  ASSERT_TRUE(defaults_.removeObject(FeedWranglerService::kClientKeyDefaultsKey));
  auto keyless = addAccount("feedwrangler", "other@example.org", "secret", server_.baseURL());
  ASSERT_FALSE(keyless);
  EXPECT_EQ(keyless.error().description, "Failed to authenticate");
  EXPECT_THAT(keyless.error().recoverySuggestion,
              ::testing::HasSubstr("`lectern config set feedwranglerClientKey KEY`"));
  EXPECT_THAT(server_.requests(), IsEmpty());
  noAccountFor("other@example.org");

  // A key set as a number (`lectern config set` stores digits as one) is a key too.
  ASSERT_TRUE(defaults_.setInteger(FeedWranglerService::kClientKeyDefaultsKey, 4242));
  auto refused = addAccount("feedwrangler", "other@example.org", "p&ss+word", server_.baseURL());
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().description, "Failed to authenticate");
  EXPECT_EQ(refused.error().recoverySuggestion, "Invalid client key");
  noAccountFor("other@example.org");
  const auto signIns = server_.requests("users/authorize");
  ASSERT_EQ(signIns.size(), 1u);
  EXPECT_EQ(signIns[0].parameter("email"), "other@example.org");
  EXPECT_EQ(signIns[0].parameter("password"), "p&ss+word");  // escaped on the way
  EXPECT_EQ(signIns[0].parameter("client_key"), "4242");
  EXPECT_EQ(signIns[0].parameter("format"), "json");

  ASSERT_TRUE(defaults_.setString(FeedWranglerService::kClientKeyDefaultsKey, kClientKey));
  auto wrongPassword = addAccount("feedwrangler", std::string(kEmail) + ".uk", "wrong", server_.baseURL());
  ASSERT_FALSE(wrongPassword);
  EXPECT_EQ(wrongPassword.error().description, "Failed to authenticate");
  EXPECT_EQ(wrongPassword.error().recoverySuggestion, "Invalid email or password");
  noAccountFor(std::string(kEmail) + ".uk");
}

TEST_F(FeedWranglerTest, FirstSyncMirrorsTheAccountAndASecondFollowsItsChanges) {
  serveThreeFeeds();
  addItem(101, 2117, "Unread one", 2h, /*read=*/false);
  addItem(102, 2118, "Unread and starred", 3h, /*read=*/false, /*starred=*/true);
  addItem(103, 2119, "Old starred", 24h * 30, /*read=*/true, /*starred=*/true);
  addItem(104, 2117, "Read yesterday", 24h, /*read=*/true);
  addItem(105, 2117, "Read long ago", 24h * 10, /*read=*/true);
  auto report = sync(account_);
  ASSERT_FALSE(report.error) << report.error->message();

  EXPECT_THAT(feedsAndFolders(*account_), ElementsAre("Alpha:", "Beta:", "Gamma:"));
  // Read items older than the keep date stay at the server.
  EXPECT_THAT(stories(*account_), ElementsAre(StoredStory{"101", "Unread one", false, false, "2117"},
                                              StoredStory{"102", "Unread and starred", false, true, "2118"},
                                              StoredStory{"103", "Old starred", true, true, "2119"},
                                              StoredStory{"104", "Read yesterday", true, false, "2117"}));
  const auto feeds = account_->feeds().value();
  auto beta = std::ranges::find_if(feeds, [](const auto& feed) { return feed->folder_id() == "2118"; });
  ASSERT_NE(beta, feeds.end());
  EXPECT_EQ((*beta)->feed_link(), "https://b.example/rss");  // no site: the feed's address
  EXPECT_TRUE(account_->last_sync());

  for (const auto& request : server_.requests()) {
    EXPECT_EQ(request.parameter("access_token"), server_.accessToken()) << request.path;
    EXPECT_EQ(request.parameter("format"), "json") << request.path;
    EXPECT_EQ(request.accept, "text/json") << request.path;
  }
  EXPECT_THAT(offsets("feed_items/list_ids", "read", "false"), ElementsAre("0"));
  EXPECT_THAT(offsets("feed_items/list_ids", "starred", "true"), ElementsAre("0"));
  EXPECT_EQ(server_.requests("feed_items/list_ids")[0].parameter("limit"), "1000");
  EXPECT_THAT(offsets("feed_items/list", "read", "true"), ElementsAre("0"));
  EXPECT_EQ(server_.requests("feed_items/list")[0].parameter("limit"), "100");

  server_.clearRequests();
  addItem(107, 2118, "New since", 1h, /*read=*/false);
  server_.setRead(101, true);  // read elsewhere
  server_.setStarred(101, true);
  server_.setStarred(102, false);
  server_.removeSubscription(2119);
  report = sync(account_);
  ASSERT_FALSE(report.error) << report.error->message();
  // The unsubscribed feed went with its stories.
  EXPECT_THAT(feedsAndFolders(*account_), ElementsAre("Alpha:", "Beta:"));
  EXPECT_THAT(stories(*account_), ElementsAre(StoredStory{"101", "Unread one", true, true, "2117"},
                                              StoredStory{"102", "Unread and starred", false, false, "2118"},
                                              StoredStory{"104", "Read yesterday", true, false, "2117"},
                                              StoredStory{"107", "New since", false, false, "2118"}));
  // Only the new item was downloaded again.
  std::vector<std::string> asked;
  for (const auto& request : server_.requests("feed_items/get"))
    asked.push_back(request.parameter("feed_item_ids"));
  EXPECT_THAT(asked, ElementsAre("107"));
}

TEST_F(FeedWranglerTest, ItemsReadTheirTimesAsSecondsAndAFutureDateBecomesNow) {
  server_.addSubscription({2117, "Alpha", "https://a.example/feed", std::nullopt});
  const auto now = static_cast<std::int64_t>(secondsSince1970(clock_.now()));
  server_.addItem({501, 2117, "Dated", "https://a.example/501", "Jane", "<p>Body</p>", now - 3600, now - 1800,
                   false, false});
  server_.addItem({502, 2117, "From the future", "https://a.example/502", std::nullopt, "", now + 86'400, now,
                   false, false});
  ASSERT_FALSE(sync(account_).error);
  const auto gets = server_.requests("feed_items/get");
  ASSERT_EQ(gets.size(), 1u);
  const auto asked = split(gets[0].parameter("feed_item_ids"), ",");
  EXPECT_THAT(asked, UnorderedElementsAre("501", "502"));

  auto dated = std::dynamic_pointer_cast<FeedStory>(story(*account_, "501"));
  ASSERT_TRUE(dated);
  EXPECT_EQ(dated->date_added(), dateFromSecondsSince1970(static_cast<double>(now - 3600)));
  EXPECT_EQ(dated->date_updated(), dateFromSecondsSince1970(static_cast<double>(now - 1800)));
  EXPECT_EQ(dated->html().value(), "<p>Body</p>");
  EXPECT_EQ(dated->url(), "https://a.example/501");
  EXPECT_EQ(dated->permalink(), "https://a.example/501");
  EXPECT_EQ(dated->author(), "Jane");
  EXPECT_EQ(dated->bookmark_hash(), "501");
  const auto future = story(*account_, "502")->date_added();
  ASSERT_TRUE(future);
  EXPECT_EQ(std::chrono::floor<std::chrono::seconds>(*future),
            std::chrono::floor<std::chrono::seconds>(clock_.now()));
}

TEST_F(FeedWranglerTest, SmartStreamsBecomeFoldersOfTheirFeedsOrOfTheItemsTheyFind) {
  serveThreeFeeds();
  addItem(101, 2117, "Apple launches a phone", 2h, /*read=*/false);
  addItem(102, 2118, "Pears", 3h, /*read=*/false);
  addItem(103, 2119, "An apple a day", 5h, /*read=*/true);
  server_.addStream({77, "Reading", std::nullopt, false, false, {2117, 2118}});
  // "all_feeds" streams list no feeds: they hold every feed, those subscribed later too.
  server_.addStream({78, "Everything", std::nullopt, true, false, {}});
  server_.addStream({79, "Apple news", "apple", true, false, {}});
  ASSERT_FALSE(sync(account_).error);

  EXPECT_THAT(feedsAndFolders(*account_),
              ElementsAre("Alpha: Everything, Reading", "Beta: Everything, Reading", "Gamma: Everything"));
  EXPECT_THAT(storiesInFolder("Apple news"), ElementsAre("101", "103"));
  for (const auto& folder : streamFolders()) EXPECT_EQ(folder->folder_id(), "smart-stream");
  EXPECT_THAT(server_.requests("streams/stream_item_ids"), ::testing::SizeIs(1));
  EXPECT_EQ(server_.requests("streams/stream_item_ids")[0].parameter("stream_id"), "79");

  server_.addStream({77, "Later", std::nullopt, false, false, {2118}});
  server_.removeStream(79);
  server_.removeSubscription(2119);
  server_.addSubscription({2120, "Delta", "https://d.example/feed", std::nullopt});
  ASSERT_FALSE(sync(account_).error);
  EXPECT_THAT(feedsAndFolders(*account_),
              ElementsAre("Alpha: Everything", "Beta: Everything, Later", "Delta: Everything"));
  std::vector<std::string> titles;
  for (const auto& folder : streamFolders()) titles.push_back(folder->title().value_or(""));
  EXPECT_THAT(titles, UnorderedElementsAre("Later", "Everything"));
}

TEST_F(FeedWranglerTest, OfflineChangesReachTheServerInOrderBeforeItsStateIsReadBack) {
  serveThreeFeeds();
  addItem(101, 2117, "One", 2h, /*read=*/false);
  addItem(102, 2118, "Two", 3h, /*read=*/false, /*starred=*/true);
  addItem(104, 2117, "Four", 4h, /*read=*/true);
  ASSERT_FALSE(sync(account_).error);
  server_.clearRequests();

  reachability_.set(ReachabilityStatus::kNotReachable);
  EXPECT_FALSE(
      waitFor([&](auto done) { Bookmark::markBookmarks({story(*account_, "101")}, *account_, true, done); }));
  EXPECT_FALSE(waitFor([&](auto done) {
    Bookmark::markBookmark(*story(*account_, "102"), Bookmark::Favorited{false}, done);
  }));
  EXPECT_FALSE(waitFor(
      [&](auto done) { Bookmark::markBookmarks({story(*account_, "104")}, *account_, false, done); }));
  EXPECT_THAT(queued(*account_), ElementsAre("3 101", "4 104", "2 102"));
  EXPECT_THAT(server_.requests(), IsEmpty());

  reachability_.set(ReachabilityStatus::kReachableViaWiFi);
  const auto report = sync(account_);
  ASSERT_FALSE(report.error) << report.error->message();
  const auto sent = server_.requests();
  ASSERT_GE(sent.size(), 3u);
  EXPECT_EQ(sent[0].path, "/api/v2/feed_items/mark_all_read");
  EXPECT_EQ(sent[0].parameter("feed_item_ids"), "101");
  EXPECT_EQ(sent[1].path, "/api/v2/feed_items/update");
  EXPECT_EQ(sent[1].parameter("feed_item_id"), "104");
  EXPECT_EQ(sent[1].parameter("read"), "false");
  EXPECT_EQ(sent[2].path, "/api/v2/feed_items/update");
  EXPECT_EQ(sent[2].parameter("feed_item_id"), "102");
  EXPECT_EQ(sent[2].parameter("starred"), "false");
  EXPECT_EQ(sent[0].method, "POST");
  EXPECT_EQ(sent[0].parameter("access_token"), server_.accessToken());  // in the form body
  EXPECT_EQ(server_.unreadItemIds(), (std::set<std::int64_t>{102, 104}));
  EXPECT_THAT(server_.starredItemIds(), IsEmpty());
  EXPECT_THAT(queued(*account_), IsEmpty());
  EXPECT_THAT(stories(*account_), ElementsAre(StoredStory{"101", "One", true, false, "2117"},
                                              StoredStory{"102", "Two", false, false, "2118"},
                                              StoredStory{"104", "Four", false, false, "2117"}));
}

TEST_F(FeedWranglerTest, ARefusalInASuccessfulAnswerIsShownAndAServerInTroubleQueuesTheChange) {
  serveThreeFeeds();
  addItem(101, 2117, "One", 2h, /*read=*/false);
  addItem(102, 2117, "Two", 3h, /*read=*/false);
  ASSERT_FALSE(sync(account_).error);

  // HTTP 200 with "result": "error": the server declined; the person sees its reason.
  server_.injectFault("feed_items/update", FeedWranglerFault::kResultError);
  auto refused = waitFor(
      [&](auto done) { Bookmark::markBookmark(*story(*account_, "101"), Bookmark::Favorited{true}, done); });
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->description, "Failed to mark item");
  EXPECT_EQ(refused->recoverySuggestion, "Something went wrong");
  EXPECT_EQ(refused->domain, "com.quillhq.Lectern.FeedWranglerClient");
  EXPECT_EQ(refused->code, 100);
  EXPECT_EQ(deliveryOf(refused), Delivery::kRefused);
  EXPECT_THAT(queued(*account_), IsEmpty());
  EXPECT_THAT(server_.starredItemIds(), IsEmpty());

  // A 500 that explains itself keeps its status: the change waits for the next sync.
  server_.injectFault("feed_items/mark_all_read", FeedWranglerFault::kServerError);
  EXPECT_FALSE(
      waitFor([&](auto done) { Bookmark::markBookmarks({story(*account_, "102")}, *account_, true, done); }));
  EXPECT_THAT(queued(*account_), ElementsAre("3 102"));
  auto troubled = waitFor([&](auto done) {
    server_.injectFault("feed_items/mark_all_read", FeedWranglerFault::kServerError);
    client()->markStories({"102"}, /*readed=*/true, done);
  });
  ASSERT_TRUE(troubled);
  EXPECT_EQ(troubled->recoverySuggestion, "Internal Server Error");
  EXPECT_EQ(troubled->info(kHTTPStatusCodeErrorKey), "500");
  EXPECT_EQ(deliveryOf(troubled), Delivery::kNotDelivered);
  ASSERT_FALSE(sync(account_).error);
  EXPECT_FALSE(server_.unreadItemIds().contains(102));
  EXPECT_THAT(queued(*account_), IsEmpty());

  // Deleting an item marks it read there: Feed Wrangler keeps its items.
  server_.setRead(101, false);
  EXPECT_FALSE(waitFor([&](auto done) { Bookmark::deleteBookmarkWithId("101", *account_, done); }));
  EXPECT_FALSE(server_.unreadItemIds().contains(101));
}

TEST_F(FeedWranglerTest, ExactlyAThousandUnreadIdsCostOneMoreEmptyPage) {
  server_.addSubscription({2117, "Alpha", "https://a.example/feed", std::nullopt});
  for (int id = 1; id <= 1000; ++id) addItem(id, 2117, fmt::format("Item {}", id), 1h, /*read=*/false);
  ASSERT_FALSE(sync(account_).error);

  EXPECT_THAT(offsets("feed_items/list_ids", "read", "false"), ElementsAre("0", "1000"));
  // The missing items come 100 ids a request, each once.
  std::set<std::string> downloaded;
  const auto gets = server_.requests("feed_items/get");
  EXPECT_EQ(gets.size(), 10u);
  for (const auto& request : gets) {
    const auto ids = split(request.parameter("feed_item_ids"), ",");
    EXPECT_LE(ids.size(), 100u);
    downloaded.insert(ids.begin(), ids.end());
  }
  EXPECT_EQ(downloaded.size(), 1000u);
  const auto stored = stories(*account_);
  EXPECT_EQ(stored.size(), 1000u);
  EXPECT_TRUE(std::ranges::none_of(stored, [](const auto& story) { return story.read; }));
}

TEST_F(FeedWranglerTest, ReadPagingStopsWithTheMergeThatMeetsAnItemOlderThanTheKeepDate) {
  server_.addSubscription({2117, "Alpha", "https://a.example/feed", std::nullopt});
  // Newest first: 250 read items of the last two days, then 450 older than the week kept.
  for (int id = 1; id <= 250; ++id)
    addItem(id, 2117, fmt::format("Recent {}", id), id * 10min, /*read=*/true);
  for (int id = 251; id <= 700; ++id)
    addItem(id, 2117, fmt::format("Old {}", id), 24h * 8 + id * 1min, /*read=*/true);
  ASSERT_FALSE(sync(account_).error);

  // Five pages fill the first batch of 500, whose merge meets the old items: no sixth page.
  EXPECT_THAT(offsets("feed_items/list", "read", "true"), ElementsAre("0", "100", "200", "300", "400"));
  const auto stored = stories(*account_);
  EXPECT_EQ(stored.size(), 250u);
  EXPECT_TRUE(std::ranges::all_of(
      stored, [](const auto& story) { return story.read && story.title.starts_with("Recent"); }));
}

TEST_F(FeedWranglerTest, SubscribeAndUnsubscribeChangeTheServerFirst) {
  auto subscribe = [&](const std::string& url) {
    std::optional<Result<std::shared_ptr<Feed>>> outcome;
    subscribeAccountToFeed(context(), *account_, url, std::nullopt,
                           [&](Result<std::shared_ptr<Feed>> added) { outcome = std::move(added); });
    EXPECT_TRUE(pumpUntil([&] { return outcome.has_value(); }));
    return std::move(*outcome);
  };
  server_.addDiscoverableFeed({3001, "New Feed", "https://new.example/rss", "https://new.example/"});
  auto feed = subscribe("https://new.example/");
  ASSERT_TRUE(feed) << feed.error().message();
  EXPECT_EQ((*feed)->folder_id(), "3001");
  EXPECT_EQ((*feed)->feed_link(), "https://new.example/rss");
  ASSERT_EQ(server_.subscriptions().size(), 1u);
  const auto added = server_.requests("subscriptions/add_feed_and_wait");
  ASSERT_EQ(added.size(), 1u);
  EXPECT_EQ(added[0].parameter("feed_url"), "https://new.example/");
  EXPECT_EQ(added[0].parameter("choose_first"), "true");
  // Subscribing again gives the same feed.
  auto again = subscribe("https://new.example/rss");
  ASSERT_TRUE(again);
  EXPECT_EQ((*again)->objectID(), (*feed)->objectID());
  EXPECT_THAT(feedsAndFolders(*account_), ElementsAre("New Feed:"));

  auto missing = subscribe("https://nothing.example/");
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error().description, "Failed to add feed");
  EXPECT_EQ(missing.error().recoverySuggestion, "Could not find a feed at that address");
  EXPECT_THAT(feedsAndFolders(*account_), ElementsAre("New Feed:"));

  // Streams are made on the site: moving is refused before anything is sent.
  server_.clearRequests();
  auto moved = waitFor(
      [&](auto done) { moveFeedToFolder(context(), (*feed)->objectID().row, std::string("Later"), done); });
  ASSERT_TRUE(moved);
  EXPECT_EQ(moved->code, kChangeNotOffered);
  EXPECT_THAT(server_.requests(), IsEmpty());

  EXPECT_FALSE(waitFor([&](auto done) { unsubscribeFromFeed(context(), (*feed)->objectID().row, done); }));
  EXPECT_EQ(server_.requests("subscriptions/remove_feed").at(0).parameter("feed_id"), "3001");
  EXPECT_THAT(server_.subscriptions(), IsEmpty());
  EXPECT_THAT(feedsAndFolders(*account_), IsEmpty());
}

TEST_F(FeedWranglerTest, AnswersOfTheWrongShapeChangeNothingAndAFailedFetchSaysWhy) {
  serveThreeFeeds();
  server_.addStream({77, "Reading", std::nullopt, false, false, {2117}});
  addItem(101, 2117, "One", 2h, /*read=*/false);
  addItem(102, 2118, "Two", 3h, /*read=*/false);
  ASSERT_FALSE(sync(account_).error);
  const auto before = stories(*account_);
  const auto shape = feedsAndFolders(*account_);

  // Lists answered as objects: no feed, folder or unread mark is taken from them.
  server_.setRead(101, true);
  server_.injectFault("subscriptions/list", FeedWranglerFault::kWrongShape);
  server_.injectFault("streams/list", FeedWranglerFault::kWrongShape);
  server_.injectFault("feed_items/list_ids", FeedWranglerFault::kWrongShape);
  ASSERT_FALSE(sync(account_).error);
  EXPECT_EQ(feedsAndFolders(*account_), shape);
  EXPECT_EQ(stories(*account_), before);

  server_.injectFault("feed_items/list_ids", FeedWranglerFault::kNotJson);
  auto report = sync(account_);
  ASSERT_TRUE(report.error);
  EXPECT_EQ(report.error->description, "Failed to fetch unread ids");
  EXPECT_EQ(stories(*account_), before);

  addItem(103, 2118, "Three", 1h, /*read=*/false);
  server_.injectFault("feed_items/get", FeedWranglerFault::kDropConnection);
  report = sync(account_);
  ASSERT_TRUE(report.error);
  EXPECT_EQ(report.error->description, "Failed to fetch entries with ids");
  EXPECT_EQ(server_.requests("feed_items/get").back().parameter("feed_item_ids"), "103");
  EXPECT_FALSE(story(*account_, "101")->is_archived());  // a list not fetched whole marks nothing read
}

}  // namespace
}  // namespace lectern::test
