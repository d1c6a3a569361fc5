// A Pinboard account against the mock server: sign-in, the full-list sync, a person's changes
// online and offline, saving a page, and the pace Pinboard asks for, each with what reached it.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "ServiceTestSupport.h"
#include "accounts/ServiceFactory.h"
#include "core/Dates.h"
#include "core/Strings.h"
#include "mocks/PinboardMockServer.h"
#include "services/pinboard/PinboardPacer.h"
#include "services/pinboard/PinboardService.h"
#include "services/pinboard/QKPinboardClient.h"
#include "store/Bookmark.h"
#include "store/Folder.h"
#include "store/ObjectContext.h"
#include "store/ServiceDelivery.h"

namespace lectern::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using namespace std::chrono_literals;
using mock::PinboardFault;
using mock::PinboardPost;
using mock::PinboardRequest;

constexpr std::string_view kUser = "maria";
constexpr std::string_view kPassword = "p&ss word";

// An account added against the mock, both sides keeping no pace (tests that need one set it), and
// the sign-in's requests forgotten.
class PinboardTest : public ServiceTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(defaults_.setDouble(PinboardService::kCallIntervalKey, 0));
    ASSERT_TRUE(defaults_.setDouble(PinboardService::kAllPostsIntervalKey, 0));
    auto added = addAccount("pinboard", std::string(kUser), std::string(kPassword), server_.baseURL());
    ASSERT_TRUE(added) << added.error().message();
    account_ = *added;
    server_.clearRequests();
  }

  PinboardPost post(const std::string& path, const std::string& title, bool toread = true, bool shared = false,
                    const std::string& tags = "") {
    PinboardPost made;
    // On the mock, so that the article downloads of a sync stay on this machine.
    made.href = server_.baseURL() + "pages/" + path;
    made.description = title;
    made.extended = "Notes on " + title;
    made.tags = tags;
    made.toread = toread;
    made.shared = shared;
    made.time = "2024-03-02T09:15:01Z";
    return server_.addPost(made);
  }
  std::shared_ptr<Bookmark> bookmark(const PinboardPost& post) { return story(*account_, post.hash); }
  std::vector<std::string> foldersOf(const Bookmark& bookmark) {
    std::vector<std::string> ids;
    const auto folders = bookmark.folders().value();
    for (const auto& folder : folders) ids.push_back(folder->folder_id().value_or(""));
    std::sort(ids.begin(), ids.end());
    return ids;
  }
  std::vector<std::string> storedTitles() {
    std::vector<std::string> titles;
    for (const auto& stored : stories(*account_)) titles.push_back(stored.title);
    std::sort(titles.begin(), titles.end());
    return titles;
  }
  // The API calls the mock saw, by resource, in order.
  std::vector<std::string> calls() {
    std::vector<std::string> names;
    for (const auto& request : server_.requests()) names.push_back(request.path.substr(4));
    return names;
  }
  std::shared_ptr<QKPinboardClient> client() { return serviceObjectOf<PinboardService>(*account_)->pinboardClient(); }
  void syncCleanly() {
    auto report = sync(account_);
    ASSERT_FALSE(report.error) << report.error->message();
  }

  mock::PinboardMockServer server_{std::string(kUser), std::string(kPassword)};
  std::shared_ptr<Account> account_;
};

TEST_F(PinboardTest, SigningInTradesThePasswordForTheTokenAndARefusalLeavesNoAccount) {
  EXPECT_EQ(secrets_.password(kPasswordServiceName, account_->uniqueIdentifier()).value(), server_.apiToken());

  // The next call carries the token in the query, never Basic authorisation.
  syncCleanly();
  for (const auto& request : server_.requests()) {
    EXPECT_EQ(request.parameter("auth_token"), fmt::format("{}:{}", kUser, server_.apiToken())) << request.path;
    EXPECT_EQ(request.parameter("format"), "json") << request.path;
    EXPECT_EQ(request.authorization, "") << request.path;
  }

  server_.clearRequests();
  auto refused = addAccount("pinboard", "other", "wrong", server_.baseURL());
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().description, "Pinboard: Failed to login");
  EXPECT_EQ(Account::services(context()).value().size(), 1u);  // the fixture's
  EXPECT_FALSE(secrets_.password(kPasswordServiceName, "pinboard:other").value());
  const auto signIns = server_.requests("user/api_token/");
  ASSERT_EQ(signIns.size(), 1u);
  EXPECT_EQ(signIns[0].authorization, "Basic " + base64Encode("other:wrong"));
  EXPECT_FALSE(signIns[0].has("auth_token"));
  EXPECT_EQ(signIns[0].parameter("format"), "json");
  EXPECT_EQ(signIns[0].accept, "text/plain");
}

TEST_F(PinboardTest, TheAuthTokenParameterExistsOnlyAfterLogin) {
  auto pacer = std::make_shared<PinboardPacer>(clock_, PinboardPacer::Intervals{0ms, 0ms});
  auto signIn =
      std::make_shared<QKPinboardClient>(session_, server_.baseURL(), std::string(kUser), std::string(kPassword), pacer);
  EXPECT_EQ(signIn->defaultParameters(), nlohmann::json({{"format", "json"}}));
  std::optional<Result<std::string>> token;
  signIn->authenticate([&](Result<std::string> answer) { token = std::move(answer); });
  ASSERT_TRUE(pumpUntil([&] { return token.has_value(); }));
  ASSERT_TRUE(*token) << token->error().message();
  EXPECT_EQ(signIn->defaultParameters()["auth_token"], fmt::format("{}:{}", kUser, server_.apiToken()));
  // The Basic header went with the token call only.
  EXPECT_FALSE(signIn->defaultValueForHeader("Authorization"));
}

TEST_F(PinboardTest, FirstSyncMapsPostsAndTheirFlagsIntoTheBuiltInFolders) {
  const auto unread = post("unread", "  Unread and private", /*toread=*/true, /*shared=*/false, "perf caf&eacute;");
  const auto archived = post("archived", "Read and public", /*toread=*/false, /*shared=*/true);
  auto untitled = post("caf%C3%A9%20menu", "");
  syncCleanly();

  EXPECT_EQ(calls(), std::vector<std::string>{"posts/all"});
  EXPECT_EQ(server_.requests("posts/all")[0].parameter("meta"), "yes");
  auto first = bookmark(unread);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->title(), "Unread and private");  // leading white space removed
  EXPECT_EQ(first->tags(), "perf,café");             // spaces become commas, entities decoded
  EXPECT_EQ(first->bookmark_hash(), unread.meta);
  EXPECT_EQ(first->url(), server_.baseURL() + "pages/unread");
  EXPECT_EQ(first->date_added(), dateFromISO8601String("2024-03-02T09:15:01Z"));
  EXPECT_EQ(first->preview_text().value(), "Notes on   Unread and private");
  EXPECT_FALSE(first->is_archived());
  EXPECT_THAT(foldersOf(*first), ElementsAre("private", "unread"));
  auto second = bookmark(archived);
  ASSERT_TRUE(second);
  EXPECT_TRUE(second->is_archived());
  EXPECT_TRUE(second->is_shared());
  EXPECT_THAT(foldersOf(*second), ElementsAre("archive", "shared"));
  auto third = bookmark(untitled);
  ASSERT_TRUE(third);
  EXPECT_EQ(third->url(), server_.baseURL() + "pages/café menu");  // percent-decoded
  EXPECT_EQ(third->title(), untitled.href);                        // no title: the address
}

TEST_F(PinboardTest, ASecondSyncFollowsChangedPostsOnlyAndDropsVanishedAndInvalidOnes) {
  const auto kept = post("kept", "Kept as it is", true, false, "one");
  const auto edited = post("edited", "Edited elsewhere", true, false, "one");
  const auto vanishing = post("vanishing", "Deleted elsewhere");
  const auto breaking = post("breaking", "Broken by the server");
  syncCleanly();
  ASSERT_EQ(stories(*account_).size(), 4u);

  // A local field of an unchanged post stays: "meta" says there is nothing to read again.
  bookmark(kept)->setTitle("Renamed here");
  ASSERT_TRUE(context().save());
  ASSERT_TRUE(server_.editPost(edited.href, [](PinboardPost& changed) {
    changed.description = "Edited again";
    changed.toread = false;
    changed.tags = "two three";
  }));
  server_.removePost(vanishing.href);
  // Same hash, no address: a post that cannot be mapped takes its bookmark with it.
  ASSERT_TRUE(server_.editPost(breaking.href, [](PinboardPost& changed) { changed.href = ""; }));
  const auto added = post("added", "New one");

  syncCleanly();
  EXPECT_EQ(storedTitles(), (std::vector<std::string>{"Edited again", "New one", "Renamed here"}));
  auto changed = bookmark(edited);
  EXPECT_TRUE(changed->is_archived());
  EXPECT_EQ(changed->tags(), "two,three");
  EXPECT_THAT(foldersOf(*changed), ElementsAre("archive", "private"));
  EXPECT_EQ(changed->bookmark_hash(), server_.post(edited.href)->meta);
  EXPECT_TRUE(bookmark(added));
}

TEST_F(PinboardTest, NewBookmarksGetTheirArticleText) {
  server_.seed(/*count=*/2, /*unread=*/1, /*sharedEvery=*/0);
  syncCleanly();
  const auto posts = server_.posts();
  ASSERT_EQ(posts.size(), 2u);
  for (const auto& seeded : posts) {
    auto stored = bookmark(seeded);
    ASSERT_TRUE(stored) << seeded.href;
    const auto html = stored->html().value();
    ASSERT_TRUE(html) << seeded.href;
    EXPECT_THAT(*html, HasSubstr("Paragraph 3 of " + toLowerASCII(seeded.description)));
    // The notes stay the preview: the article does not replace them.
    EXPECT_EQ(stored->preview_text().value(), "Notes on " + toLowerASCII(seeded.description));
  }
}

TEST_F(PinboardTest, OnlineChangesSendThePostAgainWhole) {
  auto spaced = post("caf%C3%A9%20menu", "Menu", /*toread=*/true, /*shared=*/false, "food drink");
  syncCleanly();
  server_.clearRequests();
  auto stored = bookmark(spaced);
  ASSERT_TRUE(stored);

  ASSERT_FALSE(waitFor([&](auto done) { Bookmark::markBookmarks({stored}, *account_, /*archived=*/true, done); }));
  auto adds = server_.requests("posts/add");
  ASSERT_EQ(adds.size(), 1u);
  // Sent by the address Pinboard knows (escaped again), with everything it had.
  EXPECT_EQ(adds[0].parameter("url"), spaced.href);
  EXPECT_EQ(adds[0].parameter("toread"), "no");
  EXPECT_EQ(adds[0].parameter("shared"), "no");
  EXPECT_EQ(adds[0].parameter("description"), "Menu");
  EXPECT_EQ(adds[0].parameter("extended"), "Notes on Menu");
  EXPECT_EQ(adds[0].parameter("tags"), "food drink");
  EXPECT_EQ(adds[0].parameter("dt"), "2024-03-02T09:15:01Z");
  EXPECT_EQ(adds[0].parameter("replace"), "yes");
  EXPECT_FALSE(server_.post(spaced.href)->toread);
  EXPECT_THAT(foldersOf(*stored), ElementsAre("archive", "private"));

  ASSERT_FALSE(waitFor([&](auto done) { Bookmark::markBookmark(*stored, Bookmark::Shared{true}, done); }));
  EXPECT_TRUE(server_.post(spaced.href)->shared);
  EXPECT_THAT(foldersOf(*stored), ElementsAre("archive", "shared"));

  stored->setTags("food,late-night,tea");
  ASSERT_FALSE(waitFor([&](auto done) { Bookmark::updateTagsOfBookmark(*stored, done); }));
  EXPECT_EQ(server_.post(spaced.href)->tags, "food late-night tea");

  // A move between the built-in folders is a flag too; the other pair of folders stays.
  auto unreadFolder = account_->unreadFolder().value();
  ASSERT_FALSE(waitFor([&](auto done) { Bookmark::moveBookmark(*stored, *unreadFolder, done); }));
  EXPECT_TRUE(server_.post(spaced.href)->toread);
  EXPECT_THAT(foldersOf(*stored), ElementsAre("shared", "unread"));

  // Pinboard has no favourites: the star is Lectern's and nothing is sent.
  server_.clearRequests();
  ASSERT_FALSE(waitFor([&](auto done) { Bookmark::markBookmark(*stored, Bookmark::Favorited{true}, done); }));
  EXPECT_THAT(server_.requests(), IsEmpty());
  EXPECT_THAT(queued(*account_), IsEmpty());

  ASSERT_FALSE(waitFor([&](auto done) { Bookmark::deleteBookmarkWithId(spaced.hash, *account_, done); }));
  EXPECT_FALSE(server_.post(spaced.href));
  EXPECT_THAT(stories(*account_), IsEmpty());
  for (const auto& request : server_.requests()) EXPECT_EQ(request.parameter("format"), "json") << request.path;
}

TEST_F(PinboardTest, OfflineChangesWaitAndAreReplayedAfterTheFullList) {
  const auto reading = post("reading", "To archive");
  const auto doomed = post("doomed", "To delete");
  syncCleanly();
  server_.clearRequests();

  reachability_.set(ReachabilityStatus::kNotReachable);
  EXPECT_FALSE(waitFor([&](auto done) { Bookmark::markBookmarks({bookmark(reading)}, *account_, true, done); }));
  EXPECT_FALSE(waitFor([&](auto done) { Bookmark::deleteBookmarkWithId(doomed.hash, *account_, done); }));
  EXPECT_THAT(queued(*account_), ElementsAre("3 " + reading.hash, "99 " + doomed.hash));
  EXPECT_THAT(server_.requests(), IsEmpty());
  reachability_.set(ReachabilityStatus::kReachableViaWiFi);

  syncCleanly();
  EXPECT_EQ(calls(), (std::vector<std::string>{"posts/all", "posts/add", "posts/delete"}));
  EXPECT_EQ(server_.requests("posts/delete")[0].parameter("url"), doomed.href);
  EXPECT_THAT(queued(*account_), IsEmpty());
  EXPECT_FALSE(server_.post(doomed.href));
  EXPECT_FALSE(server_.post(reading.href)->toread);
  // The full list still held the deleted post: it did not come back.
  EXPECT_EQ(storedTitles(), std::vector<std::string>{"To archive"});
  EXPECT_TRUE(bookmark(reading)->is_archived());
}

TEST_F(PinboardTest, AFailedFullListChangesNothingAndReplaysNothing) {
  const auto reading = post("reading", "Reading");
  syncCleanly();
  reachability_.set(ReachabilityStatus::kNotReachable);
  EXPECT_FALSE(waitFor([&](auto done) { Bookmark::markBookmarks({bookmark(reading)}, *account_, true, done); }));
  reachability_.set(ReachabilityStatus::kReachableViaWiFi);
  server_.removePost(reading.href);
  server_.clearRequests();

  const std::pair<PinboardFault, std::string> faults[] = {
      {PinboardFault::kServerError, "An unknown error has occurred on the remote server"},
      {PinboardFault::kWrongShape, "Pinboard: Unknown API error"},
      {PinboardFault::kNotJson, "Pinboard said: <html><body>Pinboard is down for maintenance</body></html>"},
      {PinboardFault::kResultError, "Pinboard said: something went wrong"},
      {PinboardFault::kTooManyRequests, "try again later"},
      {PinboardFault::kDropConnection, ""},
  };
  for (const auto& [fault, said] : faults) {
    SCOPED_TRACE(said);
    server_.injectFault("posts/all", fault);
    auto report = sync(account_);
    ASSERT_TRUE(report.error);
    EXPECT_EQ(report.error->description, "Pinboard: Failed to get bookmarks");
    EXPECT_THAT(report.error->recoverySuggestion, HasSubstr(said));
    EXPECT_EQ(storedTitles(), std::vector<std::string>{"Reading"});
    EXPECT_THAT(queued(*account_), ElementsAre("3 " + reading.hash));
  }
  EXPECT_EQ(server_.requests().size(), std::size(faults));  // the full list each time, nothing else
}

TEST_F(PinboardTest, ErrorsSayWhatPinboardSaid) {
  const auto body = [](std::string_view text) { return QKPinboardClient::errorFromResponseData(text, "Title"); };
  auto said = body(R"({"result_code": "item not found"})");
  EXPECT_EQ(said.domain, "Pinboard");
  EXPECT_EQ(said.code, 100);
  EXPECT_EQ(said.description, "Title");
  EXPECT_EQ(said.recoverySuggestion, "Pinboard said: item not found");
  EXPECT_EQ(body("Service Unavailable").recoverySuggestion, "Pinboard said: Service Unavailable");
  auto unknown = body(R"({"posts": []})");
  EXPECT_EQ(unknown.domain, "com.quillhq.com");
  EXPECT_EQ(unknown.recoverySuggestion, "Pinboard: Unknown API error");
  EXPECT_EQ(body("").domain, "com.quillhq.com");
  EXPECT_TRUE(QKPinboardClient::isResponseError(nlohmann::json{{"result_code", "missing url"}}));
  EXPECT_FALSE(QKPinboardClient::isResponseError(nlohmann::json{{"result_code", "done"}}));
  EXPECT_FALSE(QKPinboardClient::isResponseError(nlohmann::json{{"posts", nlohmann::json::array()}}));

  // A refusal in a successful answer is shown and not queued; a 429 waits in the queue.
  const auto reading = post("reading", "Reading");
  syncCleanly();
  server_.injectFault("posts/add", PinboardFault::kResultError);
  auto refused = waitFor([&](auto done) { Bookmark::markBookmarks({bookmark(reading)}, *account_, true, done); });
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->description, "Pinboard: Failed to add bookmark");
  EXPECT_EQ(refused->recoverySuggestion, "Pinboard said: something went wrong");
  EXPECT_EQ(deliveryOf(refused), Delivery::kRefused);
  EXPECT_THAT(queued(*account_), IsEmpty());
  server_.injectFault("posts/add", PinboardFault::kTooManyRequests);
  EXPECT_FALSE(waitFor([&](auto done) { Bookmark::markBookmarks({bookmark(reading)}, *account_, false, done); }));
  EXPECT_THAT(queued(*account_), ElementsAre("4 " + reading.hash));
}

TEST_F(PinboardTest, SavingAPageAddsItThenKeepsThePostPinboardGivesBack) {
  auto service = serviceObjectOf<PinboardService>(*account_);
  struct Case {
    std::optional<std::string> folder;
    std::string toread, shared;
    std::vector<std::string> folders;
  };
  const Case cases[] = {{std::nullopt, "yes", "no", {"private", "unread"}},
                        {"archive", "no", "no", {"archive", "private"}},
                        {"private", "yes", "no", {"private", "unread"}},
                        {"shared", "yes", "yes", {"shared", "unread"}}};
  int page = 0;
  for (const auto& saved : cases) {
    SCOPED_TRACE(saved.folder.value_or("none"));
    server_.clearRequests();
    const std::string url = fmt::format("{}pages/saved/{}", server_.baseURL(), ++page);
    ASSERT_FALSE(waitFor([&](auto done) {
      service->addBookmark({url, "Saved page", "Why I kept it", "later,tools", saved.folder}, done);
    }));
    EXPECT_EQ(calls(), (std::vector<std::string>{"posts/add", "posts/get"}));
    const auto add = server_.requests("posts/add")[0];
    EXPECT_EQ(add.parameter("toread"), saved.toread);
    EXPECT_EQ(add.parameter("shared"), saved.shared);
    EXPECT_EQ(add.parameter("tags"), "later tools");
    EXPECT_EQ(server_.requests("posts/get")[0].parameter("url"), url);
    auto stored = story(*account_, server_.post(url)->hash);
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->title(), "Saved page");
    EXPECT_EQ(stored->tags(), "later,tools");
    EXPECT_EQ(foldersOf(*stored), saved.folders);
  }
  // A folder Pinboard does not have is refused before anything is sent.
  server_.clearRequests();
  auto refused = waitFor([&](auto done) {
    service->addBookmark({server_.baseURL() + "pages/x", "X", std::nullopt, "", std::string("video")}, done);
  });
  ASSERT_TRUE(refused);
  EXPECT_THAT(server_.requests(), IsEmpty());
}

TEST_F(PinboardTest, ASecondSyncTooSoonSaysWhenToTryAgainWithoutAskingPinboard) {
  ASSERT_TRUE(defaults_.setDouble(PinboardService::kAllPostsIntervalKey, 300));
  serviceObjectOf<PinboardService>(*account_)->resetApiClient();
  syncCleanly();
  // The test's clock stands still: the full list is due in the whole interval.
  auto report = sync(account_);
  ASSERT_TRUE(report.error);
  EXPECT_EQ(report.error->description, "Pinboard: Failed to get bookmarks");
  EXPECT_EQ(report.error->recoverySuggestion,
            "Pinboard allows the full list once every 5 min: try again in 5 min.");
  EXPECT_EQ(server_.requests("posts/all").size(), 1u);

  // When the pace of every call is what holds it back, that is the limit named.
  ASSERT_TRUE(defaults_.setDouble(PinboardService::kAllPostsIntervalKey, 0));
  ASSERT_TRUE(defaults_.setDouble(PinboardService::kCallIntervalKey, 120));
  serviceObjectOf<PinboardService>(*account_)->resetApiClient();
  report = sync(account_);
  ASSERT_TRUE(report.error);
  EXPECT_EQ(report.error->recoverySuggestion, "Pinboard allows one call every 2 min: try again in 2 min.");
}

TEST_F(PinboardTest, TheClientWaitsItsTurnInsteadOfBeingRefused) {
  // The server refuses a second call within 300 ms; the client keeps the same pace.
  server_.setLimits({300ms, 300ms});
  ASSERT_TRUE(defaults_.setDouble(PinboardService::kCallIntervalKey, 0.3));
  ASSERT_TRUE(defaults_.setDouble(PinboardService::kAllPostsIntervalKey, 0.3));
  serviceObjectOf<PinboardService>(*account_)->resetApiClient();
  const auto first = post("first", "First");
  const auto second = post("second", "Second");
  syncCleanly();
  ASSERT_FALSE(waitFor([&](auto done) {
    Bookmark::markBookmarks({bookmark(first), bookmark(second)}, *account_, /*archived=*/true, done);
  }));
  syncCleanly();
  for (const auto& request : server_.requests()) EXPECT_EQ(request.status, 200) << request.path;
  EXPECT_EQ(server_.requests().size(), 4u);
}

// The pacer with a clock that moves only when it sleeps.
class PinboardPacerTest : public ::testing::Test {
 protected:
  PinboardPacer pacer(std::shared_ptr<PinboardPacer::Memory> memory = nullptr) {
    return PinboardPacer(clock_, {3s, 300s}, std::move(memory),
                         [this](std::chrono::milliseconds wait, const std::function<bool()>& isCancelled) {
                           waits_.push_back(wait);
                           if (isCancelled && isCancelled()) return false;
                           clock_.advance(std::chrono::duration_cast<std::chrono::seconds>(wait));
                           return true;
                         });
  }

  FixedClock clock_{dateFromSecondsSince1970(1'700'000'000)};
  std::vector<std::chrono::milliseconds> waits_;
};

TEST_F(PinboardPacerTest, CallsKeepThreeSecondsApartAndTheFullListFiveMinutes) {
  auto paced = pacer();
  EXPECT_TRUE(paced.takeTurn(PinboardPacer::Call::kAllPosts));
  clock_.advance(1s);
  EXPECT_TRUE(paced.takeTurn(PinboardPacer::Call::kAny));  // at 3 s, after waiting 2 s
  EXPECT_EQ(paced.waitBefore(PinboardPacer::Call::kAllPosts), 297s);
  clock_.advance(100s);
  EXPECT_TRUE(paced.takeTurn(PinboardPacer::Call::kAllPosts));
  EXPECT_TRUE(paced.takeTurn(PinboardPacer::Call::kAny));
  EXPECT_EQ(waits_, (std::vector<std::chrono::milliseconds>{2s, 197s, 3s}));
  EXPECT_EQ(paced.waitBefore(PinboardPacer::Call::kAny), 3s);

  // A cancelled wait takes no turn.
  EXPECT_FALSE(paced.takeTurn(PinboardPacer::Call::kAny, [] { return true; }));
  EXPECT_EQ(paced.waitBefore(PinboardPacer::Call::kAny), 3s);
}

TEST_F(PinboardPacerTest, AnotherProcessSeesTheTimesThroughTheAccountPreferences) {
  UserDefaults defaults;
  auto first = pacer(pinboardPreferencesMemory(defaults, "pinboard:maria"));
  EXPECT_TRUE(first.takeTurn(PinboardPacer::Call::kAllPosts));
  clock_.advance(60s);
  auto later = pacer(pinboardPreferencesMemory(defaults, "pinboard:maria"));
  EXPECT_EQ(later.waitBefore(PinboardPacer::Call::kAllPosts), 240s);
  EXPECT_EQ(later.waitBefore(PinboardPacer::Call::kAny), 0s);
  auto other = pacer(pinboardPreferencesMemory(defaults, "pinboard:other"));
  EXPECT_EQ(other.waitBefore(PinboardPacer::Call::kAllPosts), 0s);
  EXPECT_EQ(describeWait(240s), "4 min");
  EXPECT_EQ(describeWait(std::chrono::milliseconds(61'200)), "1 min 2 s");
}

}  // namespace
}  // namespace lectern::test
