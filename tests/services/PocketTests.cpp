// A Pocket account against the mock: the browser sign-in, the client's requests and errors, full
// and incremental syncs, how items are filed, and a person's changes online and offline, each
// checked against what reached the server.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ServiceTestSupport.h"
#include "accounts/AccountCommands.h"
#include "accounts/ServiceFactory.h"
#include "core/SecretStore.h"
#include "mocks/PocketMockServer.h"
#include "services/pocket/PocketService.h"
#include "services/pocket/PocketSignIn.h"
#include "services/pocket/QKPocketClient.h"
#include "store/Bookmark.h"
#include "store/Folder.h"
#include "store/ObjectContext.h"
#include "store/ServiceDelivery.h"

namespace lectern::test {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using namespace std::chrono_literals;
using mock::PocketFault;
using mock::PocketItem;

constexpr std::string_view kConsumerKey = "lectern-consumer-key";

class PocketTest : public ServiceTest {
 protected:
  void SetUp() override { ASSERT_TRUE(defaults_.setString(PocketService::kConsumerKeyDefaultsKey, kConsumerKey)); }

  SignInEnvironment signInEnvironment() { return {defaults_, session_, clock_, paths_}; }

  Result<NewAccount> signInThroughLoopback() {
    PocketSignInRequest request;
    request.endpoint = server_.baseURL();
    request.browser.loopback = true;
    request.browser.openBrowser = false;
    request.browser.timeout = 20s;
    request.browser.showSignInPage = consentInBrowser;
    return signInToPocket(signInEnvironment(), request);
  }

  // Signs in and adds the account; the sign-in's requests are forgotten.
  void signIn() {
    auto signedIn = signInThroughLoopback();
    ASSERT_TRUE(signedIn) << signedIn.error().message();
    std::optional<Result<std::shared_ptr<Account>>> added;
    lectern::addAccount(context(), *signedIn, [&](Result<std::shared_ptr<Account>> result) { added = result; });
    ASSERT_TRUE(pumpUntil([&] { return added.has_value(); }));
    ASSERT_TRUE(*added) << added->error().message();
    account_ = **added;
    server_.clearRequests();
  }

  // Signs in and syncs once; the requests are forgotten.
  void signInAndSync() {
    signIn();
    ASSERT_TRUE(account_);
    auto report = sync(account_);
    ASSERT_FALSE(report.error) << report.error->message();
    server_.clearRequests();
  }

  std::string addItem(std::string title, int status = 0) {
    PocketItem item;
    item.givenUrl = item.resolvedUrl = server_.articleURL(title);
    item.resolvedTitle = std::move(title);
    item.status = status;
    return server_.addItem(std::move(item)).itemId;
  }

  // The item ids of the account's built-in folder, sorted.
  std::vector<std::string> inFolder(std::string_view folderId) {
    auto folder = account_->findFolderWithId(folderId).value();
    if (!folder) throw std::runtime_error("no folder " + std::string(folderId));
    std::vector<std::string> ids;
    const auto bookmarks = folder->bookmarks().value();
    for (const auto& bookmark : bookmarks) ids.push_back(bookmark->bookmark_id().value_or(""));
    std::sort(ids.begin(), ids.end());
    return ids;
  }

  // "offset state" of every list request.
  std::vector<std::string> pages() {
    std::vector<std::string> seen;
    for (const auto& request : server_.requests("get"))
      seen.push_back(request.parameter("offset") + " " + request.parameter("state"));
    return seen;
  }

  // The one action of each send, without its time.
  std::vector<std::string> sentActions() {
    std::vector<std::string> seen;
    for (const auto& request : server_.requests("send")) {
      const json actions = request.actions();
      EXPECT_EQ(actions.size(), 1u) << actions.dump();
      for (const auto& action : actions) {
        std::string line = action.value("action", "") + " " + action.value("item_id", "");
        if (action.contains("tags")) line += " " + action["tags"].dump();
        seen.push_back(line);
      }
    }
    return seen;
  }

  std::shared_ptr<QKPocketClient> client() { return serviceObjectOf<PocketService>(*account_)->pocketClient(); }

  std::string now() const { return fmt::format("{:.0f}", secondsSince1970(clock_.now())); }

  mock::PocketMockServer server_{std::string(kConsumerKey)};
  std::shared_ptr<Account> account_;
};

TEST_F(PocketTest, SigningInTradesTheApprovedRequestTokenAndARefusalLeavesNothingBehind) {
  auto noAccount = [&] {
    EXPECT_TRUE(Account::services(context()).value().empty());
    EXPECT_FALSE(secrets_.password(kPasswordServiceName, "pocket:" + server_.username()).value());
  };
  // Without a consumer key nothing is sent, and the error says how to set one.
  ASSERT_TRUE(defaults_.removeObject(PocketService::kConsumerKeyDefaultsKey));
  auto keyless = signInThroughLoopback();
  ASSERT_FALSE(keyless);
  EXPECT_THAT(keyless.error().recoverySuggestion, HasSubstr("`lectern config set pocketConsumerKey KEY`"));
  EXPECT_THAT(server_.requests(), IsEmpty());

  // A wrong key: Pocket refuses the request token, said in the header of an answer of status 200.
  ASSERT_TRUE(defaults_.setString(PocketService::kConsumerKeyDefaultsKey, "not-the-key"));
  auto wrongKey = signInThroughLoopback();
  ASSERT_FALSE(wrongKey);
  EXPECT_EQ(wrongKey.error().description, "Pocket: Failed to sign in");
  EXPECT_EQ(wrongKey.error().recoverySuggestion, "Invalid consumer key.");

  // The person declines on Pocket's page: the trade is refused and no account is made.
  ASSERT_TRUE(defaults_.setString(PocketService::kConsumerKeyDefaultsKey, kConsumerKey));
  server_.setConsent(mock::PocketMockServer::Consent::kDecline);
  auto declined = signInThroughLoopback();
  ASSERT_FALSE(declined);
  EXPECT_EQ(declined.error().recoverySuggestion, "User rejected code.");
  EXPECT_EQ(server_.authorizations(), 0);
  noAccount();

  server_.setConsent(mock::PocketMockServer::Consent::kGrant);
  server_.clearRequests();
  signIn();
  ASSERT_TRUE(account_);
  EXPECT_EQ(account_->uniqueIdentifier(), "pocket:" + server_.username());
  EXPECT_EQ(account_->tokenSecret().value(), server_.accessToken());
  EXPECT_EQ(server_.authorizations(), 1);
}

TEST_F(PocketTest, TheSignInAsksForJsonSendsOnlyItsOwnParametersAndTheAccountCheckIsSigned) {
  signIn();
  ASSERT_TRUE(account_);
  // signIn forgot its requests; do it once more on a second library-less sign-in to look at them.
  auto again = signInThroughLoopback();
  ASSERT_TRUE(again) << again.error().message();
  const auto requested = server_.requests("oauth/request");
  ASSERT_EQ(requested.size(), 1u);
  EXPECT_EQ(requested[0].xAccept, "application/json");
  EXPECT_EQ(requested[0].accept, "*/*");
  EXPECT_EQ(requested[0].parameter("consumer_key"), kConsumerKey);
  EXPECT_THAT(requested[0].parameter("redirect_uri"), ::testing::StartsWith("http://127.0.0.1:"));
  EXPECT_THAT(requested[0].parameter("redirect_uri"), ::testing::EndsWith("/pocket/auth"));
  EXPECT_FALSE(requested[0].parameters.contains("access_token"));
  const auto authorized = server_.requests("oauth/authorize");
  ASSERT_EQ(authorized.size(), 1u);
  EXPECT_EQ(authorized[0].parameter("code"), "dcba4321-dcba-4321-dcba-000002");
  EXPECT_FALSE(authorized[0].parameters.contains("access_token"));

  // The account's token is checked once when it is added, signed like every later call.
  server_.clearRequests();
  ASSERT_TRUE(Account::services(context()).value().size() == 1u);
  auto checked = waitFor([&](ServiceCompletion done) { serviceObjectOf<PocketService>(*account_)->authenticate(done); });
  EXPECT_FALSE(checked) << checked->message();
  const auto gets = server_.requests("get");
  ASSERT_EQ(gets.size(), 1u);
  EXPECT_EQ(gets[0].parameter("access_token"), server_.accessToken());
  EXPECT_EQ(gets[0].parameter("consumer_key"), kConsumerKey);
  EXPECT_THAT(gets[0].contentType, HasSubstr("application/json"));

  // A token Pocket does not know: the account is not added, its secret not kept.
  auto refused = addAccount("pocket", "someone", "not-a-token", server_.baseURL());
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().recoverySuggestion, "Invalid access token.");
  EXPECT_FALSE(secrets_.password(kPasswordServiceName, "pocket:someone").value());
}

TEST_F(PocketTest, SignedRequestsKeepParametersTheyCarryAndErrorHeadersFailEvenWithStatus200) {
  signIn();
  auto pocket = client();
  ASSERT_TRUE(pocket);
  EXPECT_TRUE(pocket->signRequests());
  const auto request = pocket->requestWithMethod("POST", "v3/get", json{{"consumer_key", "own"}, {"count", "1"}});
  const json body = json::parse(request.body);
  EXPECT_EQ(body["consumer_key"], "own");
  EXPECT_EQ(body["access_token"], server_.accessToken());
  EXPECT_EQ(body["count"], "1");
  pocket->setSignRequests(false);
  EXPECT_FALSE(json::parse(pocket->requestWithMethod("POST", "v3/get", json{{"count", "1"}}).body)
                   .contains("access_token"));
  pocket->setSignRequests(true);

  // Status 200 with X-Error: a refusal, shown and not queued again.
  server_.injectFault("get", PocketFault::kErrorHeader);
  auto refused = pocket->getBookmarksWithParams(json{{"count", "1"}});
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().domain, "com.quillhq.Lectern");
  EXPECT_EQ(refused.error().code, 100);
  EXPECT_EQ(refused.error().description, "Pocket: Failed to get bookmarks");
  EXPECT_EQ(refused.error().recoverySuggestion, "Something went wrong");
  EXPECT_EQ(deliveryOf(refused.error()), Delivery::kRefused);

  // Maintenance (503 with X-Error): the same error, but a change would wait in the queue.
  server_.injectFault("get", PocketFault::kServerError);
  auto down = pocket->getBookmarksWithParams(json{{"count", "1"}});
  ASSERT_FALSE(down);
  EXPECT_EQ(down.error().code, 100);
  EXPECT_EQ(down.error().recoverySuggestion, "Pocket's server is down for scheduled maintenance.");
  EXPECT_EQ(deliveryOf(down.error()), Delivery::kNotDelivered);

  // An answer that is no object, not JSON, or cut off: an error titled like the call.
  for (const auto fault : {PocketFault::kWrongShape, PocketFault::kNotJson, PocketFault::kDropConnection}) {
    server_.injectFault("get", fault);
    auto broken = pocket->getBookmarksWithParams(json{{"count", "1"}});
    ASSERT_FALSE(broken) << static_cast<int>(fault);
    EXPECT_EQ(broken.error().description, "Pocket: Failed to get bookmarks") << static_cast<int>(fault);
  }
}

TEST_F(PocketTest, AFullSyncPagesTheListFiftyAtATimeThenTheArchiveAndKeepsTheArticles) {
  server_.seed(/*unread=*/120, /*archived=*/7, /*favoriteEvery=*/10);
  signIn();
  auto report = sync(account_);
  ASSERT_FALSE(report.error) << report.error->message();
  // A short third page (20 items) ends the list; the archive starts again at 0.
  EXPECT_THAT(pages(), ElementsAre("0 unread", "50 unread", "100 unread", "0 archive"));
  for (const auto& request : server_.requests("get")) {
    EXPECT_EQ(request.parameter("count"), "50");
    EXPECT_EQ(request.parameter("detailType"), "complete");
    EXPECT_FALSE(request.parameters.contains("since"));
  }
  EXPECT_EQ(account_->bookmarks().value().size(), 127u);
  EXPECT_EQ(inFolder("unread").size(), 120u);
  EXPECT_EQ(inFolder("archive").size(), 7u);
  EXPECT_EQ(inFolder("starred").size(), 12u);
  ASSERT_TRUE(account_->last_sync());
  EXPECT_EQ(static_cast<std::int64_t>(secondsSince1970(*account_->last_sync())), server_.now());

  const auto first = server_.items().back();  // the oldest: "Story 1"
  auto stored = story(*account_, first.itemId);
  EXPECT_EQ(stored->title(), "Story 1");
  EXPECT_EQ(stored->url(), first.resolvedUrl);
  EXPECT_EQ(stored->date_added(), dateFromSecondsSince1970(static_cast<double>(first.timeAdded)));
  EXPECT_THAT(stored->html().value().value_or(""), HasSubstr("This is the text of story-1"));
}

TEST_F(PocketTest, ItemsAreFiledByKindWithTheImageAndVideoRulesThatDifferOnPurpose) {
  auto add = [&](std::string title, int hasImage, int hasVideo, bool article) {
    PocketItem item;
    item.givenUrl = item.resolvedUrl = server_.articleURL(title);
    item.resolvedTitle = std::move(title);
    item.hasImage = hasImage;
    item.hasVideo = hasVideo;
    item.isArticle = article;
    return server_.addItem(std::move(item)).itemId;
  };
  const auto showsImages = add("shows-images", 1, 0, true);
  const auto isImage = add("is-image", 2, 0, false);
  const auto showsVideo = add("shows-video", 0, 1, true);
  const auto isVideo = add("is-video", 0, 2, false);
  const auto plain = add("plain", 0, 0, false);
  // Titles: the resolved one without leading space, else the given one, else the address's last part.
  PocketItem untitled;
  untitled.givenUrl = server_.articleURL("from-the-address") + "/?ref=x";
  untitled.givenTitle = "  ";
  untitled.isArticle = false;
  const auto fromAddress = server_.addItem(untitled).itemId;
  PocketItem given;
  given.givenUrl = server_.articleURL("given");
  given.givenTitle = "\t Given title";
  given.tags = {"reading", "later"};
  given.favorite = true;
  given.isArticle = false;
  const auto givenId = server_.addItem(given).itemId;

  signIn();
  auto report = sync(account_);
  ASSERT_FALSE(report.error) << report.error->message();
  EXPECT_THAT(inFolder("image"), ElementsAre(isImage));
  EXPECT_THAT(inFolder("video"), UnorderedElementsAre(showsVideo, isVideo));
  EXPECT_THAT(inFolder("article"), UnorderedElementsAre(showsImages, showsVideo));
  EXPECT_THAT(inFolder("starred"), ElementsAre(givenId));
  EXPECT_EQ(story(*account_, plain)->title(), "plain");
  EXPECT_EQ(story(*account_, fromAddress)->title(), "from-the-address");
  EXPECT_EQ(story(*account_, fromAddress)->url(), untitled.givenUrl);
  EXPECT_EQ(story(*account_, givenId)->title(), "Given title");
  EXPECT_THAT(story(*account_, givenId)->tagsArray(), UnorderedElementsAre("reading", "later"));

  // An item that stops being a video leaves the folder at the next sync.
  server_.clearRequests();
  PocketItem changed = *server_.item(isVideo);
  changed.hasVideo = 0;
  server_.addItem(changed);
  report = sync(account_);
  ASSERT_FALSE(report.error) << report.error->message();
  EXPECT_THAT(inFolder("video"), ElementsAre(showsVideo));
}

TEST_F(PocketTest, AnEmptyListIsAListAndStillMovesTheNextSyncsStart) {
  signIn();
  auto report = sync(account_);
  ASSERT_FALSE(report.error) << report.error->message();
  EXPECT_THAT(pages(), ElementsAre("0 unread", "0 archive"));
  EXPECT_TRUE(account_->bookmarks().value().empty());
  ASSERT_TRUE(account_->last_sync());
  EXPECT_EQ(static_cast<std::int64_t>(secondsSince1970(*account_->last_sync())), server_.now());
}

TEST_F(PocketTest, AnIncrementalSyncAsksForChangesSinceTheLastOneDeletesAndUpdates) {
  const auto kept = addItem("kept");
  const auto deleted = addItem("deleted");
  const auto changed = addItem("changed");
  signIn();
  ASSERT_FALSE(sync(account_).error);
  const auto firstSince = static_cast<std::int64_t>(secondsSince1970(*account_->last_sync()));
  ASSERT_EQ(account_->bookmarks().value().size(), 3u);

  server_.clearRequests();
  ASSERT_TRUE(server_.setStatus(deleted, 2));
  ASSERT_TRUE(server_.setTitle(changed, "Changed title"));
  ASSERT_TRUE(server_.setStatus(changed, 1));
  ASSERT_TRUE(server_.setFavorite(changed, true));
  const auto added = addItem("added");
  auto report = sync(account_);
  ASSERT_FALSE(report.error) << report.error->message();

  const auto gets = server_.requests("get");
  ASSERT_EQ(gets.size(), 1u);
  EXPECT_EQ(gets[0].parameter("since"), std::to_string(firstSince));
  EXPECT_EQ(gets[0].parameter("detailType"), "complete");
  EXPECT_FALSE(gets[0].parameters.contains("count"));
  EXPECT_FALSE(gets[0].parameters.contains("state"));
  EXPECT_THAT(stories(*account_), UnorderedElementsAre(StoredStory{kept, "kept", false, false, ""},
                                                       StoredStory{changed, "Changed title", true, true, ""},
                                                       StoredStory{added, "added", false, false, ""}));
  EXPECT_THAT(inFolder("archive"), ElementsAre(changed));
  EXPECT_THAT(story(*account_, added)->html().value().value_or(""), HasSubstr("This is the text of added"));
  EXPECT_EQ(static_cast<std::int64_t>(secondsSince1970(*account_->last_sync())), server_.now());

  // More changes than Pocket hands back without a count: the next offset follows.
  server_.clearRequests();
  for (int i = 0; i < 35; ++i) addItem(fmt::format("burst-{}", i));
  ASSERT_FALSE(sync(account_).error);
  EXPECT_THAT(pages(), ElementsAre(" ", "30 "));  // the first asks no offset
  EXPECT_EQ(account_->bookmarks().value().size(), 38u);
}

TEST_F(PocketTest, AFailedPageEndsTheSyncKeepsEarlierPagesAndTheNextSyncStartsOver) {
  server_.seed(/*unread=*/60, /*archived=*/0, /*favoriteEvery=*/0);
  signIn();
  server_.injectFault("get", PocketFault::kServerError, /*occurrence=*/2);
  auto failed = sync(account_);
  ASSERT_TRUE(failed.error);
  EXPECT_EQ(failed.error->description, "Pocket: Failed to get bookmarks");
  EXPECT_EQ(account_->bookmarks().value().size(), 50u);
  EXPECT_FALSE(account_->last_sync());

  server_.clearRequests();
  ASSERT_FALSE(sync(account_).error);
  EXPECT_THAT(pages(), ElementsAre("0 unread", "50 unread", "0 archive"));
  EXPECT_EQ(account_->bookmarks().value().size(), 60u);
}

TEST_F(PocketTest, EveryChangeIsOneTimedActionPerSendAndTheServerFollows) {
  const auto a = addItem("a");
  const auto b = addItem("b");
  const auto c = addItem("c");
  signInAndSync();
  auto itemA = story(*account_, a);
  auto itemB = story(*account_, b);

  // Two items archived: two sends of one action each.
  EXPECT_FALSE(waitFor([&](ServiceCompletion done) { Bookmark::markBookmarks({itemA, itemB}, *account_, true, done); }));
  EXPECT_EQ(server_.item(a)->status, 1);
  EXPECT_EQ(server_.item(b)->status, 1);
  EXPECT_FALSE(waitFor([&](ServiceCompletion done) { Bookmark::markBookmarks({itemB}, *account_, false, done); }));
  EXPECT_EQ(server_.item(b)->status, 0);
  EXPECT_FALSE(waitFor([&](ServiceCompletion done) { Bookmark::markBookmark(*itemA, Bookmark::Favorited{true}, done); }));
  EXPECT_TRUE(server_.item(a)->favorite);
  EXPECT_FALSE(waitFor([&](ServiceCompletion done) { Bookmark::markBookmark(*itemA, Bookmark::Favorited{false}, done); }));
  EXPECT_FALSE(server_.item(a)->favorite);

  itemB->setTagsArray({"one", "two"});
  EXPECT_FALSE(waitFor([&](ServiceCompletion done) { Bookmark::updateTagsOfBookmark(*itemB, done); }));
  EXPECT_EQ(server_.item(b)->tags, (std::vector<std::string>{"one", "two"}));
  itemB->setTagsArray({});
  EXPECT_FALSE(waitFor([&](ServiceCompletion done) { Bookmark::updateTagsOfBookmark(*itemB, done); }));
  EXPECT_TRUE(server_.item(b)->tags.empty());

  EXPECT_FALSE(waitFor([&](ServiceCompletion done) { Bookmark::deleteBookmarkWithId(c, *account_, done); }));
  EXPECT_EQ(server_.item(c)->status, 2);
  EXPECT_FALSE(account_->findBookmarkWithId(c).value());

  EXPECT_THAT(sentActions(), ElementsAre("archive " + a, "archive " + b, "add " + b, "favorite " + a,
                                         "unfavorite " + a, "tags_replace " + b + " [\"one\",\"two\"]",
                                         "tags_clear " + b, "delete " + c));
  for (const auto& request : server_.requests("send")) {
    EXPECT_EQ(request.actions()[0].value("time", ""), now());
    EXPECT_EQ(request.parameter("access_token"), server_.accessToken());
  }
  EXPECT_THAT(queued(*account_), IsEmpty());
}

TEST_F(PocketTest, ARefusedChangeIsShownAndNotQueuedWhileAServerInTroubleQueuesIt) {
  const auto a = addItem("a");
  signInAndSync();
  auto item = story(*account_, a);

  // Deleted on Pocket meanwhile: favouriting it is refused (X-Error with status 200).
  ASSERT_TRUE(server_.setStatus(a, 2));
  auto refused = waitFor([&](ServiceCompletion done) { Bookmark::markBookmark(*item, Bookmark::Favorited{true}, done); });
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->description, "Pocket: Failed to update bookmark");
  EXPECT_EQ(refused->recoverySuggestion, "Invalid item id.");
  EXPECT_THAT(queued(*account_), IsEmpty());

  ASSERT_TRUE(server_.setStatus(a, 0));
  server_.injectFault("send", PocketFault::kServerError);
  EXPECT_FALSE(waitFor([&](ServiceCompletion done) { Bookmark::markBookmarks({item}, *account_, true, done); }));
  EXPECT_EQ(queued(*account_).size(), 1u);
  EXPECT_EQ(server_.item(a)->status, 0);
  server_.clearRequests();
  ASSERT_FALSE(sync(account_).error);
  EXPECT_THAT(sentActions(), ElementsAre("archive " + a));
  EXPECT_EQ(server_.item(a)->status, 1);
  EXPECT_THAT(queued(*account_), IsEmpty());
}

TEST_F(PocketTest, OfflineChangesWaitInTheQueueAndTheNextSyncSendsThemFirst) {
  const auto a = addItem("a");
  const auto b = addItem("b");
  const auto c = addItem("c");
  signInAndSync();

  reachability_.set(ReachabilityStatus::kNotReachable);
  EXPECT_FALSE(waitFor([&](ServiceCompletion done) {
    Bookmark::markBookmark(*story(*account_, a), Bookmark::Favorited{true}, done);
  }));
  EXPECT_FALSE(waitFor([&](ServiceCompletion done) { Bookmark::markBookmarks({story(*account_, b)}, *account_, true, done); }));
  EXPECT_FALSE(waitFor([&](ServiceCompletion done) { Bookmark::deleteBookmarkWithId(c, *account_, done); }));
  EXPECT_EQ(queued(*account_).size(), 3u);
  EXPECT_THAT(server_.requests(), IsEmpty());

  reachability_.set(ReachabilityStatus::kReachableViaWiFi);
  auto report = sync(account_);
  ASSERT_FALSE(report.error) << report.error->message();
  EXPECT_THAT(sentActions(), UnorderedElementsAre("favorite " + a, "archive " + b, "delete " + c));
  // The changes went before the list was read.
  EXPECT_EQ(server_.requests().back().path, "/v3/get");
  EXPECT_TRUE(server_.item(a)->favorite);
  EXPECT_EQ(server_.item(b)->status, 1);
  EXPECT_EQ(server_.item(c)->status, 2);
  EXPECT_THAT(queued(*account_), IsEmpty());
  EXPECT_THAT(stories(*account_), UnorderedElementsAre(StoredStory{a, "a", false, true, ""},
                                                       StoredStory{b, "b", true, false, ""}));
}

TEST_F(PocketTest, ASavedPageIsKeptAsPocketDescribesItAndItsFolderIsHonoured) {
  signIn();
  auto service = serviceObjectOf<PocketService>(*account_);
  PageToSave page{server_.articleURL("saved"), "My title", std::nullopt, "news, later", std::nullopt};
  EXPECT_FALSE(waitFor([&](ServiceCompletion done) { service->addBookmark(page, done); }));
  const auto adds = server_.requests("add");
  ASSERT_EQ(adds.size(), 1u);
  EXPECT_EQ(adds[0].parameter("url"), page.url);
  EXPECT_EQ(adds[0].parameter("title"), "My title");
  EXPECT_EQ(adds[0].parameter("tags"), "news, later");
  const auto saved = server_.items().front();
  auto stored = story(*account_, saved.itemId);
  EXPECT_EQ(stored->title(), "My title");
  EXPECT_EQ(stored->url(), page.url);
  EXPECT_THAT(stored->tagsArray(), UnorderedElementsAre("news", "later"));
  EXPECT_THAT(inFolder("unread"), ElementsAre(saved.itemId));

  // Into the favourites: added, then favourited.
  server_.clearRequests();
  PageToSave favourite{server_.articleURL("favourite"), std::nullopt, std::nullopt, "", "starred"};
  EXPECT_FALSE(waitFor([&](ServiceCompletion done) { service->addBookmark(favourite, done); }));
  const auto favouriteId = server_.items().front().itemId;
  EXPECT_THAT(sentActions(), ElementsAre("favorite " + favouriteId));
  EXPECT_TRUE(server_.item(favouriteId)->favorite);
  EXPECT_THAT(inFolder("starred"), ElementsAre(favouriteId));

  // A folder Pocket has no place for: refused before anything is sent.
  server_.clearRequests();
  PageToSave elsewhere{server_.articleURL("elsewhere"), std::nullopt, std::nullopt, "", "video"};
  auto refused = waitFor([&](ServiceCompletion done) { service->addBookmark(elsewhere, done); });
  ASSERT_TRUE(refused);
  EXPECT_THAT(refused->recoverySuggestion, HasSubstr("\"video\""));
  EXPECT_THAT(server_.requests(), IsEmpty());
}


TEST_F(PocketTest, TheMappingReadsNumbersAsTextDoesAndRejectsItemsWithoutAnId) {
  signIn();
  EXPECT_FALSE(Bookmark::isValidForPocketMapping(json::array()));
  EXPECT_FALSE(Bookmark::isValidForPocketMapping(json{{"item_id", ""}}));
  EXPECT_FALSE(Bookmark::isValidForPocketMapping(json{{"given_url", "https://example.org/"}}));
  EXPECT_TRUE(Bookmark::isValidForPocketMapping(json{{"item_id", 17}}));

  auto bookmark = context().insertNewObject<Bookmark>();
  bookmark->setAccount(*account_);
  bookmark->mapFromPocketDictionary(json{{"item_id", 17},
                                         {"resolved_url", ""},
                                         {"given_url", "https://example.org/a/b/"},
                                         {"resolved_title", ""},
                                         {"favorite", 1},
                                         {"status", 1},
                                         {"time_added", 1363453123},
                                         {"time_updated", "0"},
                                         {"is_article", "0"},
                                         {"has_image", 2},
                                         {"has_video", "0"},
                                         {"tags", json::array()}},
                                    *account_);
  ASSERT_TRUE(context().save());
  EXPECT_EQ(bookmark->bookmark_id(), "17");
  EXPECT_EQ(bookmark->url(), "https://example.org/a/b/");
  EXPECT_EQ(bookmark->title(), "b");
  EXPECT_TRUE(bookmark->is_favorited());
  EXPECT_TRUE(bookmark->is_archived());
  EXPECT_EQ(bookmark->date_added(), dateFromSecondsSince1970(1363453123));
  EXPECT_FALSE(bookmark->date_updated());
  EXPECT_TRUE(bookmark->tagsArray().empty());
  EXPECT_THAT(inFolder("image"), ElementsAre("17"));
  EXPECT_THAT(inFolder("archive"), ElementsAre("17"));
  EXPECT_THAT(inFolder("starred"), ElementsAre("17"));
  EXPECT_THAT(inFolder("unread"), IsEmpty());
  EXPECT_THAT(inFolder("article"), IsEmpty());
}

}  // namespace
}  // namespace lectern::test
