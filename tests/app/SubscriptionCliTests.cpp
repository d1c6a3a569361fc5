// Subscriptions, folders and OPML through the `lectern` program, in a fresh home, against the local
// feed server: what a person who organises their feeds sees.
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <map>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/ProgramRun.h"
#include "mocks/FeedbinMockServer.h"
#include "support/TestSupport.h"
#include "sync/SyncTestSupport.h"

namespace lectern::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using nlohmann::json;
using namespace std::chrono_literals;

class SubscriptionCliTest : public ::testing::Test {
 protected:
  // `lectern --home HOME <arguments>` (shell words), with `input` on stdin.
  ProgramRun run(const std::string& arguments, const std::string& input = "") {
    return runProgram(home_.path(), home(), arguments, input);
  }
  std::string home() const { return (home_.path() / "home").string(); }

  void serve(const std::string& name, const std::vector<std::string>& titles) {
    std::vector<TestEntry> entries;
    for (size_t i = 0; i < titles.size(); ++i) {
      entries.push_back({titles[i], fmt::format("https://example.org/{}/{}", name, i), std::chrono::hours(1 + i),
                         fmt::format("<p>Body of {}</p>", titles[i])});
    }
    server_.setFeed(name, entries, std::chrono::system_clock::now());
  }

  // A `--json` listing as a map from one field to another.
  std::map<std::string, json> byTitle(const std::string& arguments) {
    auto listed = run(arguments);
    EXPECT_EQ(listed.exit, 0) << listed.err;
    std::map<std::string, json> out;
    for (const auto& item : listed.parsed()) out[item["title"].is_null() ? "" : item["title"].get<std::string>()] = item;
    return out;
  }
  std::string feedId(const std::string& title) {
    return std::to_string(byTitle("feeds --json")[title]["id"].get<std::int64_t>());
  }
  std::vector<std::string> titlesOf(const std::string& arguments) {
    std::vector<std::string> titles;
    for (const auto& item : run(arguments).parsed()) titles.push_back(item["title"].get<std::string>());
    return titles;
  }

  TempDir home_;
  FeedServer server_;
};

TEST_F(SubscriptionCliTest, FeedFoldersCountAndListTheirFeedsStoriesAndAreOrganisedByIdOrName) {
  serve("a", {"A1", "A2"});
  serve("b", {"B1"});
  serve("c", {"C1"});
  ASSERT_EQ(run("subscribe " + server_.url("a") + " --folder Tech").exit, 0);
  ASSERT_EQ(run("subscribe " + server_.url("b") + " --folder Tech").exit, 0);
  ASSERT_EQ(run("subscribe " + server_.url("c")).exit, 0);
  ASSERT_EQ(run("sync").exit, 0);

  // The folder's stories are its feeds' stories, and its count theirs.
  auto folders = byTitle("folders --json");
  ASSERT_TRUE(folders.contains("Tech"));
  EXPECT_EQ(folders["Tech"]["unread"], 3);
  const std::string tech = std::to_string(folders["Tech"]["id"].get<std::int64_t>());
  EXPECT_THAT(titlesOf("list --json --folder " + tech), ::testing::UnorderedElementsAre("A1", "B1", "A2"));
  auto text = run("folders");
  EXPECT_THAT(text.out, ::testing::ContainsRegex(tech + " +3 +Tech"));
  ASSERT_EQ(run("mark read " + std::to_string(byTitle("list --json")["B1"]["id"].get<std::int64_t>())).exit, 0);
  EXPECT_EQ(byTitle("folders --json")["Tech"]["unread"], 2);
  EXPECT_THAT(titlesOf("list --json --unread --folder " + tech), ::testing::ElementsAre("A1", "A2"));  // newest first

  // Rename a feed; move one in and out of the folder.
  const std::string a = feedId("a");
  auto renamed = run("rename " + a + " 'Alpha news'");
  ASSERT_EQ(renamed.exit, 0) << renamed.err;
  EXPECT_THAT(renamed.out, HasSubstr("Renamed feed " + a));
  EXPECT_EQ(byTitle("feeds --json")["Alpha news"]["folder"], "Tech");
  ASSERT_EQ(run("sync").exit, 0);  // a refresh keeps the name given
  EXPECT_TRUE(byTitle("feeds --json").contains("Alpha news"));
  EXPECT_EQ(run("rename " + a + " '  '").exit, 1);
  const std::string c = feedId("c");
  ASSERT_EQ(run("move " + c + " --folder Tech").exit, 0);
  EXPECT_EQ(byTitle("folders --json")["Tech"]["unread"], 3);
  auto out = run("move " + c + " --no-folder");
  ASSERT_EQ(out.exit, 0) << out.err;
  EXPECT_THAT(out.out, HasSubstr("in no folder"));
  EXPECT_EQ(byTitle("folders --json")["Tech"]["unread"], 2);

  // Folders by name or id; a name already taken is refused.
  ASSERT_EQ(run("move " + c + " --folder Other").exit, 0);
  auto taken = run("folder rename Tech Other");
  EXPECT_EQ(taken.exit, 1);
  EXPECT_THAT(taken.err, HasSubstr("already a folder \"Other\""));
  auto byName = run("folder rename Tech News");
  ASSERT_EQ(byName.exit, 0) << byName.err;
  EXPECT_THAT(byName.out, HasSubstr("Renamed folder \"Tech\" to \"News\""));
  EXPECT_EQ(byTitle("folders --json")["News"]["id"].get<std::int64_t>(), std::stoll(tech));
  EXPECT_EQ(run("folder delete Missing").exit, 1);

  auto deleted = run("folder delete " + tech);
  ASSERT_EQ(deleted.exit, 0) << deleted.err;
  EXPECT_THAT(deleted.out, HasSubstr("Deleted folder \"News\""));
  EXPECT_THAT(deleted.out, HasSubstr("In no folder now: 2 of 2"));
  auto feeds = byTitle("feeds --json");
  EXPECT_EQ(feeds.size(), 3u);
  EXPECT_TRUE(feeds["Alpha news"]["folder"].is_null());
  EXPECT_EQ(feeds["c"]["folder"], "Other");
  EXPECT_FALSE(byTitle("folders --json").contains("News"));
  EXPECT_EQ(run("list --json --limit 0").parsed().size(), 4u);  // no story went with the folder
}

TEST_F(SubscriptionCliTest, SubscribingAgainSaysWhereTheFeedIsAndNeverMovesIt) {
  serve("a", {"A1"});
  serve("A", {"Other A"});
  ASSERT_EQ(run("subscribe " + server_.url("a") + " --folder Tech").exit, 0);
  const int fetches = server_.requests("a");

  auto again = run("subscribe " + server_.url("a"));
  ASSERT_EQ(again.exit, 0) << again.err;
  EXPECT_THAT(again.out, HasSubstr("Already subscribed to a (" + server_.url("a") + "), in folder Tech; its id is"));
  // Scheme and host compare without case; the feed stays in its folder, and no folder is made.
  std::string shouting = server_.url("a");
  shouting.replace(0, 4, "HTTP");
  auto moved = run("subscribe '" + shouting + "' --folder Later");
  ASSERT_EQ(moved.exit, 0) << moved.err;
  EXPECT_THAT(moved.out, HasSubstr("Already subscribed to a"));
  EXPECT_THAT(moved.out, HasSubstr("It stays where it is; move it with: lectern move"));
  EXPECT_EQ(server_.requests("a"), fetches);  // known without asking the server
  EXPECT_EQ(byTitle("feeds --json")["a"]["folder"], "Tech");
  EXPECT_FALSE(byTitle("folders --json").contains("Later"));

  // A path differs by case: another feed.
  auto other = run("subscribe " + server_.url("A"));
  ASSERT_EQ(other.exit, 0) << other.err;
  EXPECT_THAT(other.out, HasSubstr("Subscribed to A"));
  auto loose = run("subscribe " + server_.url("A"));
  EXPECT_THAT(loose.out, HasSubstr("), in no folder; its id is"));
}

TEST_F(SubscriptionCliTest, DiscoveryFromAnArticlePageResolvesLinksAsABrowserDoes) {
  serve("news", {"N1"});
  const std::string feed = server_.url("news");
  const std::string hostRelative = feed.substr(feed.find("//"));  // "//127.0.0.1:port/feeds/news"
  auto page = [](const std::string& head) {
    return "<html><head><title>Post</title>" + head + "</head><body><p>Text</p></body></html>";
  };
  // The address discovery always built ("/feeds/news" under the page's own path) answers 404 here.
  server_.setPage("blog/2026/post.html",
                  page(R"(<link rel="alternate" type="application/rss+xml" title="Site" href="/feeds/news">)"));
  server_.setPage("blog/based.html", page(fmt::format(R"(<base href="{}"><link rel="alternate" )"
                                                      R"(type="application/atom+xml" title="Based" href="news">)",
                                                      server_.url(""))));
  server_.setPage("blog/slashes.html",
                  page(fmt::format(R"(<link rel="alternate" type="application/rss+xml" href="{}">)", hostRelative)));
  // Where that address is a feed, it stays first.
  server_.setPage("blog/index/feed.xml", "<rss version=\"2.0\"><channel><title>Local</title></channel></rss>",
                  "application/rss+xml");
  server_.setPage("blog/index", page(R"(<link rel="alternate" type="application/rss+xml" href="/feed.xml">)"));

  auto listed = run("discover " + server_.pageUrl("blog/2026/post.html") + " --json");
  ASSERT_EQ(listed.exit, 0) << listed.err;
  EXPECT_EQ(listed.parsed(), json::parse(fmt::format(R"([{{"title": "Site", "url": "{}"}}])", feed)));
  for (const std::string path : {"blog/based.html", "blog/slashes.html"}) {
    auto found = run("discover " + server_.pageUrl(path));
    ASSERT_EQ(found.exit, 0) << path << found.err;
    EXPECT_THAT(found.out, HasSubstr("   " + feed + "\n")) << path;
  }
  auto kept = run("discover " + server_.pageUrl("blog/index") + " --json");
  ASSERT_EQ(kept.exit, 0) << kept.err;
  EXPECT_EQ(kept.parsed()[0]["url"], server_.pageUrl("blog/index/feed.xml"));

  auto subscribed = run("subscribe " + server_.pageUrl("blog/based.html"));
  ASSERT_EQ(subscribed.exit, 0) << subscribed.err;
  const json news = byTitle("feeds --json")["news"];
  EXPECT_EQ(news.contains("url") ? news["url"] : news["feed_link"], feed);
  auto again = run("subscribe " + server_.pageUrl("blog/2026/post.html"));
  ASSERT_EQ(again.exit, 0) << again.err;
  EXPECT_THAT(again.out, HasSubstr("Already subscribed to news"));
}

TEST_F(SubscriptionCliTest, OpmlImportSetsUpTheReaderSkipsKnownFeedsAndEmptyOutlinesAndExportNeverClobbers) {
  serve("a", {"A1"});
  serve("b", {"B1"});
  serve("c", {"C1"});
  const auto opml = home_.path() / "list.opml";
  auto outline = [](const std::string& title, const std::string& url) {
    return fmt::format(R"(<outline text="{0}" title="{0}" type="rss" xmlUrl="{1}"/>)", title, url);
  };
  writeFile(opml, fmt::format(R"(<?xml version="1.0"?><opml version="1.0"><head/><body>)"
                              R"(<outline text="Tech">{}{}</outline>{})"
                              R"(<outline text="Empty"/><outline text="A note, no feed"></outline>)"
                              R"(<outline text="Deep"><outline text="Inner">{}</outline></outline></body></opml>)",
                              outline("Alpha", server_.url("a")), outline("Beta", server_.url("b")),
                              outline("Alpha again", server_.url("a")), outline("Gamma", server_.url("c"))));
  auto imported = run("opml import '" + opml.string() + "'");  // a fresh home: no account yet
  ASSERT_EQ(imported.exit, 0) << imported.err;
  EXPECT_THAT(imported.out, HasSubstr("Folders: 3 added"));
  EXPECT_THAT(imported.out, HasSubstr("Feeds: 3 added, 1 skipped (already subscribed"));
  EXPECT_THAT(imported.out, HasSubstr("2 outlines of other kinds or empty ignored"));
  EXPECT_EQ(run("account list --json").parsed()[0]["account"], "localrss");
  auto folders = byTitle("folders --json");
  EXPECT_TRUE(folders.contains("Tech"));
  EXPECT_TRUE(folders.contains("Deep - Inner"));
  EXPECT_FALSE(folders.contains("Empty"));
  EXPECT_FALSE(folders.contains("A note, no feed"));
  EXPECT_EQ(byTitle("feeds --json")["Alpha"]["folder"], "Tech");

  // A feed subscribed elsewhere stays there.
  const auto other = home_.path() / "other.opml";
  writeFile(other, fmt::format(R"(<opml version="1.0"><body><outline text="Later">{}</outline></body></opml>)",
                               outline("Beta", "HTTP://127.0.0.1" + server_.url("b").substr(16))));
  auto second = run("opml import '" + other.string() + "'");
  ASSERT_EQ(second.exit, 0) << second.err;
  EXPECT_THAT(second.out, HasSubstr("Feeds: 0 added, 1 skipped"));
  auto feeds = byTitle("feeds --json");
  EXPECT_EQ(feeds.size(), 3u);
  EXPECT_EQ(feeds["Beta"]["folder"], "Tech");

  // Export: OPML and empty files are replaced; other files only with --force; no folder is made.
  const auto notes = home_.path() / "notes.txt";
  writeFile(notes, "my notes\n");
  auto refused = run("opml export '" + notes.string() + "'");
  EXPECT_EQ(refused.exit, 1);
  EXPECT_THAT(refused.err, HasSubstr("is not an OPML file"));
  EXPECT_EQ(readFile(notes), "my notes\n");
  auto forced = run("opml export --force '" + notes.string() + "'");
  ASSERT_EQ(forced.exit, 0) << forced.err;
  EXPECT_THAT(readFile(notes), HasSubstr(server_.url("a")));
  ASSERT_EQ(run("opml export '" + notes.string() + "'").exit, 0);  // OPML now
  const auto missing = home_.path() / "missing" / "list.opml";
  auto nowhere = run("opml export '" + missing.string() + "'");
  EXPECT_EQ(nowhere.exit, 1);
  EXPECT_THAT(nowhere.err, HasSubstr("does not exist"));
  EXPECT_FALSE(std::filesystem::exists(missing.parent_path()));
}

TEST_F(SubscriptionCliTest, UnsubscribingAndRemovingAnAccountKeepStarredArticlesUnlessToldOtherwise) {
  serve("news", {"N1", "N2", "N3"});
  serve("other", {"O1", "O2"});
  ASSERT_EQ(run("subscribe " + server_.url("news")).exit, 0);
  ASSERT_EQ(run("subscribe " + server_.url("other")).exit, 0);
  ASSERT_EQ(run("sync").exit, 0);
  auto stories = byTitle("list --json");
  auto idOf = [&](const std::string& title) { return std::to_string(stories[title]["id"].get<std::int64_t>()); };
  ASSERT_EQ(run("mark star " + idOf("N1") + " " + idOf("N3") + " " + idOf("O1")).exit, 0);
  ASSERT_EQ(run("mark read " + idOf("N3")).exit, 0);

  auto gone = run("unsubscribe " + feedId("news"));
  ASSERT_EQ(gone.exit, 0) << gone.err;
  EXPECT_THAT(gone.out, HasSubstr("Unsubscribed: 1 article gone; 2 starred articles kept in the folder \"Kept\""));
  auto folders = byTitle("folders --json");
  ASSERT_TRUE(folders.contains("Kept"));
  EXPECT_EQ(folders["Kept"]["unread"], 1);
  const std::string kept = std::to_string(folders["Kept"]["id"].get<std::int64_t>());
  auto keptStories = byTitle("list --json --folder " + kept);
  ASSERT_EQ(keptStories.size(), 2u);
  EXPECT_EQ(keptStories["N1"]["is_favorited"], true);
  EXPECT_EQ(keptStories["N3"]["is_archived"], true);
  EXPECT_EQ(keptStories["N1"]["url"], "https://example.org/news/0");
  auto shown = run("show " + std::to_string(keptStories["N1"]["id"].get<std::int64_t>()));
  EXPECT_THAT(shown.out, HasSubstr("Body of N1"));
  ASSERT_EQ(run("sync").exit, 0);  // a refresh leaves them be
  EXPECT_EQ(run("list --json --folder " + kept).parsed().size(), 2u);

  auto all = run("unsubscribe --with-starred " + feedId("other"));
  ASSERT_EQ(all.exit, 0) << all.err;
  EXPECT_THAT(all.out, HasSubstr("Unsubscribed: 2 articles gone."));
  EXPECT_EQ(run("list --json --limit 0").parsed().size(), 2u);  // the kept ones

  // A hosted account's starred article comes over to the built-in reader.
  mock::FeedbinMockServer feedbin("me@example.org", "secret");
  feedbin.addSubscription({501, 11, "Alpha", "https://a.example/feed", std::nullopt});
  for (std::int64_t id : {101, 102}) {
    mock::FeedbinEntry entry;
    entry.id = id;
    entry.feedId = 11;
    entry.title = fmt::format("Hosted {}", id);
    entry.url = fmt::format("https://a.example/{}", id);
    entry.content = "<p>Hosted body</p>";
    const std::time_t anHourAgo = std::time(nullptr) - 3600;
    std::tm utc{};
    gmtime_r(&anHourAgo, &utc);
    entry.published = fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.000000Z", utc.tm_year + 1900, utc.tm_mon + 1,
                                  utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
    entry.createdAt = entry.published;
    feedbin.addEntry(entry, /*unread=*/true, /*starred=*/id == 102);
  }
  ASSERT_EQ(run("account add feedbin --username me@example.org --password-stdin --endpoint " + feedbin.baseURL(),
                "secret\n")
                .exit,
            0);
  ASSERT_EQ(run("sync").exit, 0);
  auto removed = run("account remove feedbin");
  ASSERT_EQ(removed.exit, 0) << removed.err;
  EXPECT_THAT(removed.out, HasSubstr("1 article gone; 1 starred article kept in the folder \"Kept\""));
  keptStories = byTitle("list --json --folder " + kept);
  ASSERT_EQ(keptStories.size(), 3u);
  EXPECT_EQ(keptStories["Hosted 102"]["account"], "localrss");
  EXPECT_THAT(run("show " + std::to_string(keptStories["Hosted 102"]["id"].get<std::int64_t>())).out,
              HasSubstr("Hosted body"));

  // The built-in reader cannot keep its own starred articles.
  auto refused = run("account remove localrss");
  EXPECT_EQ(refused.exit, 1);
  EXPECT_THAT(refused.err, HasSubstr("--with-starred"));
  EXPECT_EQ(run("list --json --limit 0").parsed().size(), 3u);
  auto everything = run("account remove localrss --with-starred");
  ASSERT_EQ(everything.exit, 0) << everything.err;
  EXPECT_THAT(everything.out, HasSubstr("3 articles gone."));
}

}  // namespace
}  // namespace lectern::test
