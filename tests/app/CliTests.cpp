// The `lectern` program end to end: each test runs the built program in a fresh home against a
// local feed server and checks what a user (or a script) sees: output, JSON and exit codes.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <thread>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/ProgramRun.h"
#include "mocks/FeedbinMockServer.h"
#include "mocks/FeedlyMockServer.h"
#include "mocks/FeverMockServer.h"
#include "mocks/InstapaperMockServer.h"
#include "mocks/NewsBlurMockServer.h"
#include "mocks/PocketMockServer.h"
#include "store/SqliteDatabase.h"
#include "support/TestSupport.h"
#include "sync/SyncTestSupport.h"

namespace lectern::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using nlohmann::json;
using namespace std::chrono_literals;

class CliTest : public ::testing::Test {
 protected:
  // Runs `lectern --home HOME <arguments>` (arguments are shell words) with `input` on stdin.
  ProgramRun run(const std::string& arguments, const std::string& input = "", const std::string& environment = "") {
    return runProgram(home_.path(), home_.path() / "home", arguments, input, environment);
  }

  // The browser of the sign-in tests: `mock-server browse` follows the sign-in page's redirect and
  // hands a "lectern://" answer to `lectern open-url`, as a desktop would.
  std::filesystem::path installBrowser() {
    const auto browser = home_.path() / "browser.sh";
    writeFile(browser, fmt::format("#!/bin/sh\nexec '{}' browse --lectern '{}' --home '{}' \"$1\"\n", MOCK_SERVER,
                                   LECTERN_PROGRAM, (home_.path() / "home").string()));
    std::filesystem::permissions(browser, std::filesystem::perms::owner_all);
    return browser;
  }

  // Runs a sign-in that gives up waiting, then opens the page it printed in `browser`: the person
  // agreeing later, the desktop handing the answer to `open-url`.
  void finishInTheBrowserLater(const std::string& addCommand, const std::filesystem::path& browser) {
    auto gaveUp = run(addCommand);
    EXPECT_EQ(gaveUp.exit, 1);
    EXPECT_THAT(gaveUp.err, HasSubstr("within the hour"));
    const auto pageStart = gaveUp.out.find("http://");
    ASSERT_NE(pageStart, std::string::npos);
    const std::string page = gaveUp.out.substr(pageStart, gaveUp.out.find('\n', pageStart) - pageStart);
    ASSERT_EQ(std::system(fmt::format("'{}' '{}' > /dev/null", browser.string(), page).c_str()), 0);
  }

  void serveNews(const std::vector<TestEntry>& entries) {
    server_.setFeed("news", entries, std::chrono::system_clock::now());
  }

  TempDir home_;
  FeedServer server_;
};

TEST_F(CliTest, FirstRunSetsUpTheReaderThenSubscribingSyncingAndReadingWork) {
  auto first = run("");
  ASSERT_EQ(first.exit, 0) << first.err;
  EXPECT_THAT(first.out, HasSubstr("lectern subscribe URL"));
  auto accounts = run("account list --json");
  ASSERT_EQ(accounts.exit, 0) << accounts.err;
  ASSERT_EQ(accounts.parsed().size(), 1u);
  EXPECT_EQ(accounts.parsed()[0]["account"], "localrss");

  serveNews({{"Fresh one", "https://example.org/1", 2h}, {"Fresh two", "https://example.org/2", 3h}});
  auto subscribed = run("subscribe " + server_.url("news") + " --folder Daily");
  ASSERT_EQ(subscribed.exit, 0) << subscribed.err;

  // The main job syncs, then shows the unread stories.
  auto main = run("");
  ASSERT_EQ(main.exit, 0) << main.err;
  EXPECT_THAT(main.out, HasSubstr("2 unread"));
  EXPECT_THAT(main.out, HasSubstr("Fresh one"));

  auto list = run("list --json");
  ASSERT_EQ(list.exit, 0) << list.err;
  const json stories = list.parsed();
  ASSERT_EQ(stories.size(), 2u);
  EXPECT_EQ(stories[0]["title"], "Fresh one");  // newest first
  EXPECT_EQ(stories[0]["bookmark_id"], "https://example.org/1");
  EXPECT_EQ(stories[0]["account"], "localrss");
  EXPECT_EQ(stories[0]["feed"], "news");
  EXPECT_THAT(stories[0]["date_added"].get<std::string>(), ::testing::EndsWith("Z"));

  const std::string id = std::to_string(stories[0]["id"].get<std::int64_t>());
  ASSERT_EQ(run("mark read " + id).exit, 0);
  auto unread = run("list --unread --json");
  ASSERT_EQ(unread.parsed().size(), 1u);
  EXPECT_EQ(unread.parsed()[0]["title"], "Fresh two");

  auto feeds = run("feeds --json");
  ASSERT_EQ(feeds.exit, 0) << feeds.err;
  ASSERT_EQ(feeds.parsed().size(), 1u);
  auto folders = run("folders --json");
  EXPECT_THAT(folders.out, HasSubstr("Daily"));
}

TEST_F(CliTest, SyncReportsFailingFeedsWithoutFailingAndUnsyncableAccountsAsFailures) {
  serveNews({{"Story", "https://example.org/s", 1h}});
  server_.setFeed("gone", {{"Other", "https://example.org/o", 1h}}, std::chrono::system_clock::now());
  ASSERT_EQ(run("subscribe " + server_.url("news")).exit, 0);
  ASSERT_EQ(run("subscribe " + server_.url("gone")).exit, 0);
  server_.setBody("gone", "not here", 404);

  auto sync = run("sync");
  EXPECT_EQ(sync.exit, 0) << sync.err;
  EXPECT_THAT(sync.out, HasSubstr("Built-in RSS Reader: 1 feed failed"));  // never "up to date" then
  EXPECT_THAT(sync.err, HasSubstr(server_.url("gone")));  // the failing feed and its reason
  EXPECT_THAT(sync.err, Not(HasSubstr(server_.url("news"))));

  auto feeds = run("feeds --json");
  int failing = 0;
  for (const auto& feed : feeds.parsed()) {  // each feed keeps its health beside it
    const bool gone = feed["feed_link"] == server_.url("gone");
    EXPECT_EQ(feed["last_error"].is_string(), gone) << feed.dump();
    EXPECT_EQ(feed["failing_since"].is_string(), gone) << feed.dump();
    EXPECT_TRUE(feed["last_refresh"].is_string()) << feed.dump();
    failing += gone ? 1 : 0;
  }
  EXPECT_EQ(failing, 1) << feeds.out;

  // An account that cannot sync (Pocket refuses the consumer key it now has) fails the command.
  mock::PocketMockServer pocket;
  ASSERT_EQ(run("config set pocketConsumerKey " + pocket.consumerKey()).exit, 0);
  ASSERT_EQ(run("account add pocket --username me@example.org --password-stdin --endpoint " + pocket.baseURL(),
                pocket.accessToken() + "\n")
                .exit,
            0);
  ASSERT_EQ(run("config set pocketConsumerKey revoked-key").exit, 0);
  auto withPocket = run("sync --json");
  EXPECT_EQ(withPocket.exit, 1);
  bool pocketFailed = false;
  for (const auto& report : withPocket.parsed()) {
    if (report["account"] == "pocket:me@example.org") {
      pocketFailed = !report["ok"].get<bool>() && report["error"].get<std::string>().find("Pocket") != std::string::npos;
    } else {
      EXPECT_TRUE(report["ok"].get<bool>());
      EXPECT_EQ(report["failed_feeds"].size(), 1u);
    }
  }
  EXPECT_TRUE(pocketFailed) << withPocket.out;

  EXPECT_EQ(run("sync localrss").exit, 0);  // only the named account
  EXPECT_EQ(run("sync nosuchaccount").exit, 1);
  EXPECT_EQ(run("sync --no-such-flag").exit, 2);
}

TEST_F(CliTest, OfflineChangesToTheBuiltInReaderApplyAtOnceAndQueueNothing) {
  serveNews({{"Keep me", "https://example.org/k", 1h}});
  ASSERT_EQ(run("subscribe " + server_.url("news")).exit, 0);
  ASSERT_EQ(run("sync").exit, 0);
  const std::string id = std::to_string(run("list --json").parsed()[0]["id"].get<std::int64_t>());

  auto offlineSync = run("--offline sync");
  EXPECT_EQ(offlineSync.exit, 1);
  EXPECT_THAT(offlineSync.err, HasSubstr("offline"));

  // The reader's items live in the library alone: there is no service to wait for.
  ASSERT_EQ(run("--offline mark star " + id).exit, 0);
  auto queue = run("queue --json");
  ASSERT_EQ(queue.exit, 0) << queue.err;
  EXPECT_EQ(queue.parsed().size(), 0u);
  auto starred = run("list --starred --json");
  ASSERT_EQ(starred.parsed().size(), 1u);
  EXPECT_EQ(starred.parsed()[0]["title"], "Keep me");

  ASSERT_EQ(run("sync").exit, 0);
  EXPECT_EQ(run("list --starred --json").parsed().size(), 1u);
}

TEST_F(CliTest, DaemonSyncsAtStartUpAndStopsCleanlyOnSigterm) {
  serveNews({{"Daemon story", "https://example.org/d", 1h}});
  ASSERT_EQ(run("subscribe " + server_.url("news")).exit, 0);
  ASSERT_EQ(run("account set localrss syncOnStart yes").exit, 0);
  const int before = server_.requests("news");

  const auto home = (home_.path() / "home").string();
  const pid_t child = spawnQuietly({LECTERN_PROGRAM, "--home", home, "daemon"});
  ASSERT_GT(child, 0);
  // The start-up sync comes 3 s after start.
  const auto deadline = std::chrono::steady_clock::now() + 60s;
  while (server_.requests("news") == before && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(50ms);
  }
  EXPECT_GT(server_.requests("news"), before);
  // Let the sync store what it fetched before asking the daemon to stop.
  while (run("list --json").parsed().empty() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(100ms);
  }
  kill(child, SIGTERM);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(run("list --json").parsed().size(), 1u);
}

// Regression: a sync in one process while other processes mark and list left the library with
// indexes missing rows, because the sync process read the library's file outside SQLite and the
// close dropped the SQLite locks of its open connection.
TEST_F(CliTest, ASyncAndCommandsInOtherProcessesLeaveTheLibraryIntact) {
  constexpr int kFeeds = 60;
  constexpr int kRounds = 4;
  std::string outlines;
  for (int f = 0; f < kFeeds; ++f) {
    outlines += fmt::format(R"(<outline type="rss" text="f{0}" xmlUrl="{1}"/>)", f, server_.url(fmt::format("f{}", f)));
  }
  const auto opml = home_.path() / "feeds.opml";
  writeFile(opml, fmt::format(R"(<?xml version="1.0"?><opml version="1.0"><body>{}</body></opml>)", outlines));
  auto serveRound = [&](int round) {
    for (int f = 0; f < kFeeds; ++f) {
      std::vector<TestEntry> entries;
      for (int e = 0; e < 10; ++e) {
        entries.push_back({fmt::format("r{} f{} e{}", round, f, e), fmt::format("https://example.org/{}/{}/{}", round, f, e),
                           std::chrono::hours(1 + e)});
      }
      server_.setFeed(fmt::format("f{}", f), entries, std::chrono::system_clock::now());
    }
  };
  serveRound(0);
  ASSERT_EQ(run("").exit, 0);  // the first run sets up the built-in reader
  ASSERT_EQ(run("opml import '" + opml.string() + "'").exit, 0);
  ASSERT_EQ(run("sync").exit, 0);
  const auto home = (home_.path() / "home").string();

  for (int round = 1; round <= kRounds; ++round) {
    SCOPED_TRACE(round);
    serveRound(round);
    std::vector<std::string> ids;
    for (const auto& story : run("list --json --limit 40").parsed()) {
      ids.push_back(std::to_string(story["id"].get<std::int64_t>()));
    }
    ASSERT_FALSE(ids.empty());
    const pid_t sync = spawnQuietly({LECTERN_PROGRAM, "--home", home, "sync"});
    ASSERT_GT(sync, 0);
    // Other processes read and write the library for as long as the sync runs.
    int status = 0;
    int commands = 0;
    const auto deadline = std::chrono::steady_clock::now() + 200s;
    for (size_t i = 0; waitpid(sync, &status, WNOHANG) == 0; ++i) {
      if (std::chrono::steady_clock::now() > deadline) {
        kill(sync, SIGKILL);  // a stuck sync fails here, clearly, rather than at ctest's timeout
        waitpid(sync, &status, 0);
        FAIL() << "the sync did not end within 200 s";
      }
      const std::string& id = ids[i % ids.size()];
      auto changed = run(fmt::format("mark {} {} {}", i % 2 == 0 ? "read" : "unread", id, ids[(i * 7) % ids.size()]));
      EXPECT_EQ(changed.exit, 0) << changed.err;
      EXPECT_EQ(run("list --unread --limit 5").exit, 0);
      ++commands;
    }
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_GT(commands, 0);

    auto db = SqliteDatabase::open(home_.path() / "home" / "data" / "Lectern.storedata",
                                   SqliteDatabase::OpenMode::kReadOnly, std::chrono::seconds(10));
    ASSERT_TRUE(db) << db.error().message();
    auto check = (*db)->selectOne("PRAGMA integrity_check");
    ASSERT_TRUE(check && *check) << (check ? "" : check.error().message());
    EXPECT_EQ(std::get<std::string>((**check)[0]), "ok");
  }
  // Everything the rounds brought is there.
  EXPECT_EQ(run("list --json --limit 0").parsed().size(), static_cast<size_t>(kFeeds * 10 * (kRounds + 1)));
}

TEST_F(CliTest, AFeedbinAccountIsAddedSyncedReadAndOrganisedFromTheCommandLine) {
  mock::FeedbinMockServer feedbin("me@example.org", "secret");
  feedbin.addSubscription({501, 11, "Alpha", "https://a.example/feed", std::nullopt});
  auto entry = [](std::int64_t id, std::string title) {
    mock::FeedbinEntry made;
    made.id = id;
    made.feedId = 11;
    made.title = std::move(title);
    made.url = fmt::format("https://a.example/{}", id);
    const std::time_t anHourAgo = std::time(nullptr) - 3600;
    std::tm utc{};
    gmtime_r(&anHourAgo, &utc);
    made.published = fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.000000Z", utc.tm_year + 1900, utc.tm_mon + 1,
                                 utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
    made.createdAt = made.published;
    return made;
  };
  feedbin.addEntry(entry(101, "Unread"), /*unread=*/true, /*starred=*/false);
  feedbin.addEntry(entry(102, "Starred"), /*unread=*/true, /*starred=*/true);
  feedbin.addDiscoverableFeed({"https://b.example/feed", "Beta", "https://b.example/"});

  // A wrong password leaves nothing behind and says why.
  auto refused = run("account add feedbin --username me@example.org --password-stdin --endpoint " + feedbin.baseURL(),
                     "wrong\n");
  EXPECT_EQ(refused.exit, 1);
  EXPECT_THAT(refused.err, HasSubstr("Authentication failed"));
  EXPECT_THAT(refused.err, HasSubstr("Authentication required"));
  EXPECT_THAT(refused.err, Not(HasSubstr("wrong")));
  EXPECT_EQ(run("account list --json").parsed().size(), 0u);

  auto added = run("account add feedbin --username me@example.org --password-stdin --endpoint " + feedbin.baseURL(),
                   "secret\n");
  ASSERT_EQ(added.exit, 0) << added.err;
  auto synced = run("sync");
  ASSERT_EQ(synced.exit, 0) << synced.err;
  auto list = run("list --json");
  ASSERT_EQ(list.exit, 0) << list.err;
  std::map<std::string, json> byId;
  for (const auto& story : list.parsed()) byId[story["bookmark_id"].get<std::string>()] = story;
  ASSERT_EQ(byId.size(), 2u) << list.out;
  EXPECT_EQ(byId["101"]["is_archived"], false);
  EXPECT_EQ(byId["102"]["is_favorited"], true);
  EXPECT_EQ(byId["101"]["account"], "feedbin:me@example.org");

  // A mark reaches the server.
  const auto id = std::to_string(byId["101"]["id"].get<std::int64_t>());
  ASSERT_EQ(run("mark read " + id).exit, 0);
  EXPECT_FALSE(feedbin.unreadEntryIds().contains(101));

  // Subscribe into a folder, move it, unsubscribe: each goes through Feedbin.
  auto subscribed = run("subscribe https://b.example/feed --account feedbin --folder Reading");
  ASSERT_EQ(subscribed.exit, 0) << subscribed.err;
  ASSERT_EQ(feedbin.subscriptions().size(), 2u);
  std::int64_t feedRow = 0;
  for (const auto& feed : run("feeds --json").parsed()) {
    if (feed["title"] == "Beta") feedRow = feed["id"].get<std::int64_t>();
  }
  ASSERT_NE(feedRow, 0);
  ASSERT_EQ(run(fmt::format("move {} --folder Later", feedRow)).exit, 0);
  std::vector<std::string> tags;
  for (const auto& tagging : feedbin.taggings()) tags.push_back(tagging.name);
  EXPECT_EQ(tags, std::vector<std::string>{"Later"});
  EXPECT_EQ(run(fmt::format("move {}", feedRow)).exit, 2);  // a folder or --no-folder is needed
  ASSERT_EQ(run(fmt::format("unsubscribe {}", feedRow)).exit, 0);
  EXPECT_EQ(feedbin.subscriptions().size(), 1u);
}

TEST_F(CliTest, AFeverAccountSyncsAndSaysWhereItsSubscriptionsAreManaged) {
  mock::FeverMockServer fever("me", "secret", mock::FeverFlavour::kTextIds, "/api/fever.php");
  fever.seed(/*feeds=*/3, /*itemsPerFeed=*/4, /*unread=*/5, /*savedEvery=*/4);

  auto added = run("account add fever --username me --password-stdin --endpoint " + fever.endpoint(), "secret\n");
  ASSERT_EQ(added.exit, 0) << added.err;
  auto synced = run("sync");
  ASSERT_EQ(synced.exit, 0) << synced.err;
  const auto list = run("list --json --limit 0").parsed();
  ASSERT_EQ(list.size(), 12u);
  std::size_t unread = 0;
  std::string firstUnread;
  for (const auto& story : list) {
    if (story["is_archived"] == false) {
      ++unread;
      firstUnread = std::to_string(story["id"].get<std::int64_t>());
    }
  }
  EXPECT_EQ(unread, 5u);
  ASSERT_EQ(run("mark read " + firstUnread).exit, 0);
  EXPECT_EQ(fever.unreadItemIds().size(), 4u);

  // Fever manages its feeds on the server: the commands say so instead of pretending.
  auto subscribe = run("subscribe https://example.org/feed.xml --account fever");
  EXPECT_EQ(subscribe.exit, 1);
  EXPECT_THAT(subscribe.err, HasSubstr("Fever: Failed to add subscription"));
  EXPECT_THAT(subscribe.err, HasSubstr("on your Fever server"));
  const auto feedId = std::to_string(run("feeds --json").parsed()[0]["id"].get<std::int64_t>());
  EXPECT_THAT(run("move " + feedId + " --folder Later").err, HasSubstr("on your Fever server"));
  EXPECT_THAT(run("unsubscribe " + feedId).err, HasSubstr("on your Fever server"));
}

// The browser of these tests: `mock-server browse` follows the sign-in page's redirect and hands
// a "lectern://" answer to `lectern open-url`, as a desktop would.
TEST_F(CliTest, FeedlySignsInThroughTheBrowserOrWithATokenAndRefusesAnswersThatAreNotItsOwn) {
  mock::FeedlyMockServer feedly;
  feedly.seed(/*feeds=*/3, /*entriesPerFeed=*/4, /*unread=*/5, /*savedEvery=*/0);
  const std::string endpoint = " --endpoint " + feedly.endpoint();
  const auto browser = installBrowser();
  const std::string withBrowser = "BROWSER='" + browser.string() + "'";

  // No client id yet: the error says how to set one, or to use a token.
  auto unconfigured = run("account add feedly --timeout 5" + endpoint, "", withBrowser);
  EXPECT_EQ(unconfigured.exit, 1);
  EXPECT_THAT(unconfigured.err, HasSubstr("feedlyClientId"));

  const std::string client = " --client-id " + feedly.clientId() + " --client-secret " + feedly.clientSecret();
  feedly.setConsent(mock::FeedlyMockServer::Consent::kDecline);
  auto declined = run("account add feedly --timeout 20" + client + endpoint, "", withBrowser);
  EXPECT_EQ(declined.exit, 1);
  EXPECT_THAT(declined.err, HasSubstr("Feedly: sign-in declined"));
  feedly.setConsent(mock::FeedlyMockServer::Consent::kWrongState);
  auto forged = run("account add feedly --timeout 20 --redirect loopback" + endpoint, "", withBrowser);
  EXPECT_EQ(forged.exit, 1);
  EXPECT_THAT(forged.err, HasSubstr("its state differs"));
  EXPECT_TRUE(run("account list --json").parsed().empty());
  EXPECT_EQ(feedly.codeGrants(), 0);

  feedly.setConsent(mock::FeedlyMockServer::Consent::kGrant);
  auto added = run("account add feedly --timeout 20" + endpoint, "", withBrowser);
  ASSERT_EQ(added.exit, 0) << added.err;
  EXPECT_THAT(added.out, HasSubstr("/v3/auth/auth?"));  // the page, for a machine without a browser
  EXPECT_THAT(added.out, HasSubstr("feedly:" + feedly.email()));
  auto synced = run("sync");
  ASSERT_EQ(synced.exit, 0) << synced.err;
  EXPECT_THAT(synced.out, HasSubstr("5 unread"));
  ASSERT_EQ(run("account remove feedly").exit, 0);

  // Through the loopback address, then with a developer token (no browser at all).
  ASSERT_EQ(run("account add feedly --timeout 20 --redirect loopback" + endpoint, "", withBrowser).exit, 0);
  ASSERT_EQ(run("account remove feedly").exit, 0);
  auto token = run("account add feedly --token " + feedly.developerToken() + endpoint, "", "BROWSER=false");
  ASSERT_EQ(token.exit, 0) << token.err;
  EXPECT_EQ(feedly.codeGrants(), 2);
  EXPECT_THAT(run("account add feedly --token nonsense" + endpoint).err, HasSubstr("did not accept the token"));

  // The command gave up waiting; the person finishes in the browser later and the desktop hands
  // the answer over: the sign-in that began is completed.
  ASSERT_EQ(run("account remove feedly").exit, 0);
  finishInTheBrowserLater("account add feedly --no-browser --timeout 1" + endpoint, browser);
  EXPECT_EQ(feedly.codeGrants(), 3);
  const auto accounts = run("account list --json").parsed();
  ASSERT_EQ(accounts.size(), 1u);
  EXPECT_EQ(accounts[0]["account"], "feedly:" + feedly.email());

  // An answer nobody waits for and no sign-in began: refused.
  auto stray = run("open-url 'lectern://feedly/auth?code=x&state=y'");
  EXPECT_EQ(stray.exit, 1);
  EXPECT_THAT(stray.err, HasSubstr("No sign-in is waiting"));
}

TEST_F(CliTest, ANewsBlurAccountOnASelfHostedServerSyncsAndHidesTrainedAwayStoriesUnlessAsked) {
  mock::NewsBlurMockServer newsblur("me", "secret");
  newsblur.seed(/*feeds=*/3, /*storiesPerFeed=*/4, /*unread=*/5, /*starredEvery=*/4);
  mock::NewsBlurStory blocked;
  blocked.id = "https://example.org/blocked";
  blocked.feedId = *newsblur.feedIds().begin();
  blocked.title = "Trained away";
  blocked.timestamp = std::chrono::duration_cast<std::chrono::seconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count();
  blocked.intelligence.author = -1;
  newsblur.addStory(blocked);

  // A self-hosted NewsBlur for every account, by the user default.
  ASSERT_EQ(run("config set newsblurApiEndpoint " + newsblur.baseURL()).exit, 0);
  EXPECT_EQ(run("account add newsblur --username me --password-stdin", "wrong\n").exit, 1);
  auto added = run("account add newsblur --username me --password-stdin", "secret\n");
  ASSERT_EQ(added.exit, 0) << added.err;
  auto synced = run("sync");
  ASSERT_EQ(synced.exit, 0) << synced.err;
  const auto list = run("list --json --limit 0").parsed();
  EXPECT_EQ(list.size(), 12u);
  EXPECT_EQ(run("list --json --limit 0 --all").parsed().size(), 13u);
  std::string firstUnread;
  for (const auto& story : list) {
    if (story["is_archived"] == false) firstUnread = std::to_string(story["id"].get<std::int64_t>());
  }
  ASSERT_FALSE(firstUnread.empty());
  // Another process, a new session: it logs in before marking.
  ASSERT_EQ(run("mark read " + firstUnread).exit, 0);
  EXPECT_EQ(newsblur.unreadHashes().size(), 5u);  // four of the seed's and the trained-away one

  const auto folders = run("folders --json").parsed();
  std::vector<std::string> titles;
  for (const auto& folder : folders) titles.push_back(folder["title"].get<std::string>());
  EXPECT_THAT(titles, ::testing::IsSupersetOf({"Tech", "Tech - Apple"}));
  const auto feedId = std::to_string(run("feeds --json").parsed()[0]["id"].get<std::int64_t>());
  auto moved = run("move " + feedId + " --folder Later");
  ASSERT_EQ(moved.exit, 0) << moved.err;
  EXPECT_TRUE(newsblur.flatFolders().contains("Later"));
  EXPECT_EQ(newsblur.flatFolders().at("Later").size(), 1u);
}


TEST_F(CliTest, AnInstapaperAccountSignsInOnceSyncsItsFoldersAndSendsOrQueuesEachChange) {
  mock::InstapaperMockServer instapaper("reader@example.org", "secret");
  const auto reading = instapaper.addFolder("Reading", 1300000001);
  auto bookmark = [&](std::string title, std::string folder, bool starred) {
    mock::InstapaperBookmark made;
    made.title = std::move(title);
    made.folder = std::move(folder);
    made.starred = starred;
    return instapaper.addBookmark(std::move(made)).bookmarkId;
  };
  const auto first = bookmark("First", "unread", false);
  const auto second = bookmark("Second", "unread", true);
  const auto third = bookmark("Third", std::to_string(reading.folderId), false);
  const std::string add =
      "account add instapaper --username reader@example.org --password-stdin --endpoint " + instapaper.baseURL();

  // Without the consumer pair nothing is sent, and the error says how to set it.
  auto unconfigured = run(add, "secret\n");
  EXPECT_EQ(unconfigured.exit, 1);
  EXPECT_THAT(unconfigured.err, HasSubstr("lectern config set instapaperConsumerKey"));
  EXPECT_TRUE(instapaper.requests().empty());
  ASSERT_EQ(run("config set instapaperConsumerKey " + instapaper.consumerKey()).exit, 0);
  ASSERT_EQ(run("config set instapaperConsumerSecret " + instapaper.consumerSecret()).exit, 0);
  auto refused = run(add, "wrong\n");
  EXPECT_EQ(refused.exit, 1);
  EXPECT_THAT(refused.err, HasSubstr("Instapaper: Failed to login"));
  EXPECT_EQ(run("account list --json").parsed().size(), 0u);
  auto added = run(add, "secret\n");
  ASSERT_EQ(added.exit, 0) << added.err;

  auto synced = run("sync");
  ASSERT_EQ(synced.exit, 0) << synced.err << synced.out;
  std::map<std::string, json> byId;
  for (const auto& item : run("list --json --limit 0").parsed()) byId[item["bookmark_id"].get<std::string>()] = item;
  ASSERT_EQ(byId.size(), 3u);
  EXPECT_EQ(byId[std::to_string(second)]["is_favorited"], true);
  auto row = [&](std::int64_t id) { return std::to_string(byId[std::to_string(id)]["id"].get<std::int64_t>()); };
  // The article text was stored with the sync: show prints it without the network.
  auto shown = run("--offline show " + row(third));
  ASSERT_EQ(shown.exit, 0) << shown.err;
  EXPECT_THAT(shown.out, HasSubstr(fmt::format("Paragraph 1 of article {}", third)));

  // Online, each change reaches Instapaper at once.
  ASSERT_EQ(run("mark read " + row(first)).exit, 0);
  EXPECT_EQ(instapaper.bookmark(first)->folder, "archive");
  ASSERT_EQ(run("mark unread " + row(first)).exit, 0);
  EXPECT_EQ(instapaper.bookmark(first)->folder, "unread");
  ASSERT_EQ(run("mark star " + row(first)).exit, 0);
  EXPECT_TRUE(instapaper.bookmark(first)->starred);

  // Offline they wait in the queue and go first at the next sync.
  ASSERT_EQ(run("--offline mark unstar " + row(second)).exit, 0);
  ASSERT_EQ(run("--offline mark read " + row(third)).exit, 0);
  ASSERT_EQ(run("--offline delete " + row(first)).exit, 0);
  EXPECT_EQ(run("queue --json").parsed().size(), 3u);
  EXPECT_TRUE(instapaper.bookmark(second)->starred);
  synced = run("sync");
  ASSERT_EQ(synced.exit, 0) << synced.err << synced.out;
  EXPECT_EQ(run("queue --json").parsed().size(), 0u);
  EXPECT_FALSE(instapaper.bookmark(second)->starred);
  EXPECT_EQ(instapaper.bookmark(third)->folder, "archive");
  EXPECT_FALSE(instapaper.bookmark(first));
  EXPECT_EQ(run("list --json --limit 0").parsed().size(), 2u);

  // A change made at Instapaper comes back with the next sync.
  instapaper.moveBookmark(second, std::to_string(reading.folderId));
  ASSERT_EQ(run("sync").exit, 0);
  bool archived = false;
  for (const auto& item : run("list --json --limit 0").parsed()) {
    if (item["bookmark_id"] == std::to_string(third)) archived = item["is_archived"].get<bool>();
  }
  EXPECT_TRUE(archived);
}

// Pocket end to end: the browser sign-in through `lectern open-url` (the desktop's way) and the
// loopback, syncs, reading offline, and changes online and offline, each seen by the mock.
TEST_F(CliTest, APocketAccountSignsInSyncsAndSendsEveryChangeOnlineOrLater) {
  mock::PocketMockServer pocket;
  pocket.seed(/*unread=*/3, /*archived=*/1, /*favoriteEvery=*/0);
  const std::string endpoint = " --endpoint " + pocket.baseURL();
  const auto browser = installBrowser();
  const std::string withBrowser = "BROWSER='" + browser.string() + "'";

  auto keyless = run("account add pocket --timeout 5" + endpoint, "", withBrowser);
  EXPECT_EQ(keyless.exit, 1);
  EXPECT_THAT(keyless.err, HasSubstr("lectern config set pocketConsumerKey"));
  EXPECT_TRUE(pocket.requests().empty());
  ASSERT_EQ(run("config set pocketConsumerKey " + pocket.consumerKey()).exit, 0);

  pocket.setConsent(mock::PocketMockServer::Consent::kDecline);
  auto declined = run("account add pocket --timeout 20" + endpoint, "", withBrowser);
  EXPECT_EQ(declined.exit, 1);
  EXPECT_THAT(declined.err, HasSubstr("User rejected code."));
  EXPECT_TRUE(run("account list --json").parsed().empty());

  pocket.setConsent(mock::PocketMockServer::Consent::kGrant);
  ASSERT_EQ(run("account add pocket --timeout 20 --redirect loopback" + endpoint, "", withBrowser).exit, 0);
  ASSERT_EQ(run("account remove pocket").exit, 0);
  auto added = run("account add pocket --timeout 20" + endpoint, "", withBrowser);
  ASSERT_EQ(added.exit, 0) << added.err;
  EXPECT_THAT(added.out, HasSubstr("/auth/authorize?request_token="));
  EXPECT_THAT(added.out, HasSubstr("pocket:" + pocket.username()));
  EXPECT_EQ(pocket.authorizations(), 2);

  // The command gave up waiting; the person agrees in the browser later and the desktop hands the
  // answer to `open-url`, which finishes the sign-in that began.
  ASSERT_EQ(run("account remove pocket").exit, 0);
  finishInTheBrowserLater("account add pocket --no-browser --timeout 1" + endpoint, browser);
  EXPECT_EQ(pocket.authorizations(), 3);
  const auto accounts = run("account list --json").parsed();
  ASSERT_EQ(accounts.size(), 1u);
  EXPECT_EQ(accounts[0]["account"], "pocket:" + pocket.username());
  EXPECT_EQ(run("open-url lectern://pocket/auth").exit, 1);  // used once

  auto synced = run("sync");
  ASSERT_EQ(synced.exit, 0) << synced.err;
  auto listed = run("list --json");
  ASSERT_EQ(listed.exit, 0) << listed.err;
  ASSERT_EQ(listed.parsed().size(), 4u);
  std::map<std::string, std::string> rows;  // title to row id
  for (const auto& item : listed.parsed()) {
    EXPECT_EQ(item["account"], "pocket:" + pocket.username());
    rows[item["title"].get<std::string>()] = std::to_string(item["id"].get<std::int64_t>());
  }
  auto shown = run("--offline show " + rows.at("Story 1"));
  ASSERT_EQ(shown.exit, 0) << shown.err;
  EXPECT_THAT(shown.out, HasSubstr("This is the text of story-1"));

  auto idOf = [&](const std::string& title) {
    for (const auto& item : pocket.items())
      if (item.resolvedTitle == title) return item.itemId;
    return std::string();
  };
  const std::string first = idOf("Story 1");
  const std::string fourth = idOf("Story 4");
  ASSERT_EQ(run("mark read " + rows.at("Story 1")).exit, 0);
  ASSERT_EQ(run("mark star " + rows.at("Story 2")).exit, 0);
  ASSERT_EQ(run("mark unread " + rows.at("Story 4")).exit, 0);
  EXPECT_EQ(pocket.item(idOf("Story 1"))->status, 1);
  EXPECT_TRUE(pocket.item(idOf("Story 2"))->favorite);
  EXPECT_EQ(pocket.item(idOf("Story 4"))->status, 0);

  // Offline: queued, then sent by the next sync.
  const std::string third = idOf("Story 3");
  ASSERT_EQ(run("--offline mark star " + rows.at("Story 3")).exit, 0);
  ASSERT_EQ(run("--offline mark unstar " + rows.at("Story 2")).exit, 0);
  ASSERT_EQ(run("--offline delete " + rows.at("Story 1")).exit, 0);
  EXPECT_EQ(run("queue --json").parsed().size(), 3u);
  EXPECT_FALSE(pocket.item(third)->favorite);
  ASSERT_EQ(run("sync").exit, 0);
  EXPECT_EQ(run("queue --json").parsed().size(), 0u);
  EXPECT_TRUE(pocket.item(third)->favorite);
  EXPECT_FALSE(pocket.item(idOf("Story 2"))->favorite);
  EXPECT_EQ(pocket.item(first)->status, 2);
  EXPECT_EQ(run("list --json").parsed().size(), 3u);

  // A change made on Pocket reaches the library at the second sync.
  ASSERT_TRUE(pocket.setStatus(fourth, 2));
  ASSERT_EQ(run("sync").exit, 0);
  EXPECT_EQ(run("list --json").parsed().size(), 2u);
  auto deleted = run("delete " + rows.at("Story 3"));
  EXPECT_EQ(deleted.exit, 0) << deleted.err << deleted.out;
  EXPECT_EQ(pocket.item(third)->status, 2);
}

}  // namespace
}  // namespace lectern::test

namespace lectern::test {
namespace {

// Search and smart folders over stories synced from the local feed server.
class SmartCliTest : public CliTest {
 protected:
  void SetUp() override {
    serveNews({{"Crème brûlée at home", "https://example.org/1", 2h, "<p>A dessert for the weekend.</p>"},
               {"Election NEWS", "https://example.org/2", 30h, "<p>Results from the café district.</p>"},
               {"Old gardening tips", "https://example.org/3", 120h, "<p>Tomatoes and art of pruning.</p>"}});
    ASSERT_EQ(run("subscribe " + server_.url("news") + " --folder Daily").exit, 0);
    ASSERT_EQ(run("sync").exit, 0);
  }
  std::vector<std::string> titles(const ProgramRun& result) {
    std::vector<std::string> out;
    for (const auto& item : result.parsed()) out.push_back(item["title"].get<std::string>());
    return out;
  }
  std::int64_t smartId(const std::string& title) {
    for (const auto& folder : run("smart list --json").parsed()) {
      if (folder["title"] == title) return folder["id"].get<std::int64_t>();
    }
    return 0;
  }
};

TEST_F(SmartCliTest, SearchFindsWordsInTitlesAndTextIgnoringCaseAndAccents) {
  auto found = run("search 'creme OR cafe' --json");
  ASSERT_EQ(found.exit, 0) << found.err;
  EXPECT_EQ(titles(found), (std::vector<std::string>{"Crème brûlée at home", "Election NEWS"}));  // newest first
  EXPECT_EQ(titles(run("search '\"of pruning\"' --json")), (std::vector<std::string>{"Old gardening tips"}));
  EXPECT_EQ(titles(run("search 'news AND NOT dessert' --json")), (std::vector<std::string>{"Election NEWS"}));
  EXPECT_EQ(titles(run("search 'news' --limit 1 --account localrss --json")).size(), 1u);
  EXPECT_EQ(run("search 'news' --account nosuch").exit, 1);

  // Not a terminal: plain lines, the match in the text shown beside the title.
  auto plain = run("search dessert");
  ASSERT_EQ(plain.exit, 0);
  EXPECT_THAT(plain.out, HasSubstr("Crème brûlée at home"));
  EXPECT_THAT(plain.out, HasSubstr("A dessert for the weekend."));
  EXPECT_THAT(plain.out, Not(HasSubstr("\x1b[")));

  auto broken = run("search 'apple AND'");
  EXPECT_EQ(broken.exit, 2);
  EXPECT_THAT(broken.err, HasSubstr("at character"));
}

TEST_F(SmartCliTest, SmartFoldersAreAddedShownListedEditedAndRemoved) {
  auto defaults = run("smart list --json");
  ASSERT_EQ(defaults.exit, 0) << defaults.err;
  ASSERT_EQ(defaults.parsed().size(), 3u);
  EXPECT_EQ(defaults.parsed()[1]["title"], "RSS News");
  EXPECT_EQ(defaults.parsed()[1]["count"], 3);
  EXPECT_EQ(defaults.parsed()[1]["badge"], "3");

  auto added = run("smart add Recent --rule 'date_added in-last 3 days' --rule 'folders.title is-not nothing'");
  ASSERT_EQ(added.exit, 0) << added.err;
  const std::string recent = std::to_string(smartId("Recent"));
  auto shown = run("smart show " + recent);
  ASSERT_EQ(shown.exit, 0) << shown.err;
  EXPECT_THAT(shown.out, HasSubstr("date_added in-last 3 days"));
  EXPECT_THAT(shown.out, HasSubstr("folders.title is-not nothing"));
  EXPECT_THAT(shown.out, HasSubstr("2 items"));
  EXPECT_THAT(shown.out, Not(HasSubstr("Old gardening tips")));
  auto listed = run("list --smart " + recent + " --json");
  EXPECT_EQ(titles(listed), (std::vector<std::string>{"Crème brûlée at home", "Election NEWS"}));

  ASSERT_EQ(run("smart add Words --search 'brulee tomatoes'").exit, 0);
  auto words = run("smart show " + std::to_string(smartId("Words")) + " --json");
  ASSERT_EQ(words.exit, 0) << words.err;
  EXPECT_EQ(words.parsed()["count"], 2);
  EXPECT_EQ(words.parsed()["items"].size(), 2u);

  ASSERT_EQ(run("smart edit " + recent + " --title Fresh --rule 'title contains garden'").exit, 0);
  auto edited = run("smart show " + recent + " --json");
  EXPECT_EQ(edited.parsed()["title"], "Fresh");
  EXPECT_EQ(edited.parsed()["rules"], json::array({"title contains garden"}));
  EXPECT_EQ(edited.parsed()["count"], 1);

  ASSERT_EQ(run("smart remove " + recent).exit, 0);
  EXPECT_EQ(run("smart show " + recent).exit, 1);
  EXPECT_EQ(run("smart list --json").parsed().size(), 4u);
}

TEST_F(SmartCliTest, BadRulesAndConditionsAreUsageErrorsAndNothingIsAdded) {
  auto rule = run("smart add Bad --rule 'date_added in-last two weeks'");
  EXPECT_EQ(rule.exit, 2);
  EXPECT_THAT(rule.err, HasSubstr("two weeks"));
  auto where = run("smart add Bad --where 'title CONTAINS[cd'");
  EXPECT_EQ(where.exit, 2);
  EXPECT_THAT(where.err, HasSubstr("at character 15"));
  EXPECT_EQ(run("smart add Bad --rule 'tags contains a' --search x").exit, 2);
  EXPECT_EQ(run("smart add Bad").exit, 2);
  EXPECT_EQ(run("smart list --json").parsed().size(), 3u);
  EXPECT_EQ(run("smart bogus").exit, 2);
  auto help = run("smart add --help");
  EXPECT_EQ(help.exit, 0);
  EXPECT_THAT(help.out, HasSubstr("--rule"));
}

}  // namespace
}  // namespace lectern::test
