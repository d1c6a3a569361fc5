// The commands a reader of the built-in feed reader uses between syncs, run as the `lectern` program
// against a local feed server: marking many articles at once, deleting, extracting, preferences,
// --offline, the shape of human and JSON output, and the log.
#include <sys/wait.h>

#include <cstdlib>
#include <map>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/ProgramRun.h"
#include "support/TestSupport.h"
#include "sync/SyncTestSupport.h"

namespace lectern::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using nlohmann::json;
using namespace std::chrono_literals;

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> out;
  size_t start = 0;
  for (size_t end = text.find(separator); end != std::string::npos; end = text.find(separator, start)) {
    out.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  if (start < text.size()) out.push_back(text.substr(start));
  return out;
}

// Columns a line takes: its code points (the output holds no wide characters).
size_t displayWidth(const std::string& line) {
  size_t width = 0;
  for (const char c : line) width += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  return width;
}

class CommandsCliTest : public ::testing::Test {
 protected:
  // Runs `lectern --home HOME <arguments>` (arguments are shell words); `environment` goes first.
  ProgramRun run(const std::string& arguments, const std::string& environment = "") {
    return runProgram(home_.path(), home(), arguments, "", environment);
  }
  std::filesystem::path home() const { return home_.path() / "home"; }

  // Subscribes to `name` (in `folder` when given) and syncs it.
  void subscribe(const std::string& name, const std::vector<TestEntry>& entries, const std::string& folder = "") {
    server_.setFeed(name, entries, std::chrono::system_clock::now());
    auto subscribed = run("subscribe " + server_.url(name) + (folder.empty() ? "" : " --folder " + folder));
    ASSERT_EQ(subscribed.exit, 0) << subscribed.err;
    auto synced = run("sync");
    ASSERT_EQ(synced.exit, 0) << synced.err;
  }
  // The articles by title.
  std::map<std::string, json> listed() {
    auto list = run("list --json --limit 0");
    EXPECT_EQ(list.exit, 0) << list.err;
    std::map<std::string, json> byTitle;
    for (const auto& item : list.parsed()) byTitle[item["title"].get<std::string>()] = item;
    return byTitle;
  }
  std::int64_t feedId(const std::string& name) {
    for (const auto& feed : run("feeds --json").parsed()) {
      if (feed["url"] == server_.url(name)) return feed["id"].get<std::int64_t>();
    }
    ADD_FAILURE() << "no feed " << name;
    return 0;
  }
  static std::string idOf(const json& item) { return std::to_string(item["id"].get<std::int64_t>()); }

  TempDir home_;
  FeedServer server_;
};

TEST_F(CommandsCliTest, MarkReadByFeedFolderOrAllHonoursTheAgeAndTouchesNothingElse) {
  subscribe("tech", {{"Tech new", "https://t.example/1", 2h}, {"Tech old", "https://t.example/2", 24h * 5}},
            "Work");
  subscribe("food", {{"Food new", "https://f.example/1", 2h}, {"Food old", "https://f.example/2", 24h * 5}});

  // Only the old article of one feed.
  auto old = run(fmt::format("mark read --feed {} --older-than 3", feedId("tech")));
  ASSERT_EQ(old.exit, 0) << old.err;
  EXPECT_THAT(old.out, HasSubstr("Marked 1 article read"));
  auto items = listed();
  EXPECT_TRUE(items["Tech old"]["is_archived"].get<bool>());
  EXPECT_FALSE(items["Tech new"]["is_archived"].get<bool>());
  EXPECT_FALSE(items["Food old"]["is_archived"].get<bool>());

  // A feed folder's articles are its feeds' stories.
  std::int64_t work = 0;
  for (const auto& folder : run("folders --json").parsed()) {
    if (folder["title"] == "Work") work = folder["id"].get<std::int64_t>();
  }
  ASSERT_NE(work, 0);
  auto folder = run(fmt::format("mark read --folder {}", work));
  ASSERT_EQ(folder.exit, 0) << folder.err;
  items = listed();
  EXPECT_TRUE(items["Tech new"]["is_archived"].get<bool>());
  EXPECT_FALSE(items["Food new"]["is_archived"].get<bool>());

  ASSERT_EQ(run("mark read --all").exit, 0);
  EXPECT_TRUE(run("list --unread --json").parsed().empty());
  auto back = run(fmt::format("mark unread --feed {}", feedId("food")));
  ASSERT_EQ(back.exit, 0) << back.err;
  EXPECT_THAT(back.out, HasSubstr("Marked 2 articles unread"));
  EXPECT_EQ(run("list --unread --json").parsed().size(), 2u);
  // A sync does not undo marks made between syncs.
  ASSERT_EQ(run("sync").exit, 0);
  EXPECT_EQ(run("list --unread --json").parsed().size(), 2u);

  // Mistakes are usage errors or name the missing id, and change nothing.
  EXPECT_EQ(run("mark star --all").exit, 2);
  EXPECT_EQ(run("mark read --older-than 3").exit, 2);
  EXPECT_EQ(run("mark read").exit, 2);
  EXPECT_EQ(run("mark read --all --feed 1").exit, 2);
  auto missing = run("mark read --feed 99999");
  EXPECT_EQ(missing.exit, 1);
  EXPECT_THAT(missing.err, HasSubstr("No feed with id 99999"));
  EXPECT_EQ(run("list --unread --json").parsed().size(), 2u);
}

TEST_F(CommandsCliTest, DeleteChecksEveryIdBeforeDeletingAny) {
  subscribe("news", {{"One", "https://n.example/1", 1h}, {"Two", "https://n.example/2", 2h}});
  const std::string one = idOf(listed()["One"]);
  auto refused = run("delete " + one + " 999999");
  EXPECT_EQ(refused.exit, 1);
  EXPECT_THAT(refused.err, HasSubstr("No article with id 999999"));
  EXPECT_EQ(listed().size(), 2u);  // the valid id was not deleted either
  ASSERT_EQ(run("delete " + one).exit, 0);
  EXPECT_EQ(listed().count("One"), 0u);
}

TEST_F(CommandsCliTest, ExtractGivesTextHtmlOrJsonFromAFileOrAStoredArticleAndOfflineRefusesTheNetwork) {
  const auto page = home_.path() / "page.html";
  writeFile(page,
            "<html><head><title>T</title><style>p{}</style></head><body><article><h1>Heading</h1>"
            "<p>First   paragraph with <b>bold</b>\ntext that is long enough to be the article of this page, "
            "and more words to pass the thresholds of the extractor, a sentence, another sentence.</p>"
            "<ul><li>one</li><li>two</li></ul><pre>a  b\n  c</pre>"
            "<p>Second paragraph, also with enough words and commas, to count, as content, here.</p>"
            "</article></body></html>");
  auto text = run("extract " + page.string());
  ASSERT_EQ(text.exit, 0) << text.err;
  EXPECT_THAT(text.out, HasSubstr("First paragraph with bold text"));  // whitespace collapsed, tags gone
  EXPECT_THAT(text.out, HasSubstr("\n\n  * one\n  * two\n\n"));
  EXPECT_THAT(text.out, HasSubstr("a  b\n  c"));  // preformatted text kept as it is
  EXPECT_THAT(text.out, Not(HasSubstr("<p")));
  EXPECT_THAT(text.out, Not(HasSubstr("p{}")));
  auto html = run("extract --html " + page.string());
  ASSERT_EQ(html.exit, 0) << html.err;
  EXPECT_THAT(html.out, HasSubstr("<p"));

  subscribe("news", {{"Stored", "https://n.example/1", 1h, "<p>Stored <i>body</i></p><p>Next</p>"},
                     {"Empty", server_.url("page"), 1h, ""}});
  const auto items = listed();
  auto stored = run("--offline extract " + idOf(items.at("Stored")));
  ASSERT_EQ(stored.exit, 0) << stored.err;
  EXPECT_EQ(stored.out, "Stored body\n\nNext\n");
  auto asJson = run("extract --json " + idOf(items.at("Stored")));
  ASSERT_EQ(asJson.exit, 0) << asJson.err;
  EXPECT_EQ(asJson.parsed()["title"], "Stored");

  // Without stored content the article's page is needed: offline says so instead of trying.
  server_.setBody("page", readFile(page));
  const int before = server_.requests("page");
  auto offline = run("--offline extract " + idOf(items.at("Empty")));
  EXPECT_EQ(offline.exit, 1);
  EXPECT_THAT(offline.err, HasSubstr("needs the network"));
  EXPECT_EQ(server_.requests("page"), before);
  auto online = run("extract " + idOf(items.at("Empty")));
  ASSERT_EQ(online.exit, 0) << online.err;
  EXPECT_THAT(online.out, HasSubstr("Second paragraph"));

  for (const std::string& command : {"discover " + server_.url("news"), "feed parse " + server_.url("news"),
                                     "extract " + server_.url("page")}) {
    const int requests = server_.requests("news") + server_.requests("page");
    auto refused = run(command, "LECTERN_OFFLINE=1");
    EXPECT_EQ(refused.exit, 1) << command;
    EXPECT_THAT(refused.err, HasSubstr("needs the network")) << command;
    EXPECT_EQ(server_.requests("news") + server_.requests("page"), requests) << command;
  }
  EXPECT_EQ(run("extract 99999").exit, 1);
}

TEST_F(CommandsCliTest, ConfigListsEveryPreferenceAndSetRefusesWhatWouldBreakOne) {
  ASSERT_EQ(run("config set DaysKeepFeedReadItemsIndex 5").exit, 0);
  auto list = run("config list --json");
  ASSERT_EQ(list.exit, 0) << list.err;
  std::map<std::string, json> byKey;
  for (const auto& entry : list.parsed()) byKey[entry["key"].get<std::string>()] = entry;
  ASSERT_EQ(byKey.count("DaysKeepFeedReadItemsIndex"), 1u);
  EXPECT_EQ(byKey["DaysKeepFeedReadItemsIndex"]["value"], 5);
  EXPECT_EQ(byKey["DaysKeepFeedReadItemsIndex"]["value_meaning"], "14 days");
  EXPECT_TRUE(byKey["DaysKeepFeedReadItemsIndex"]["is_set"].get<bool>());
  EXPECT_EQ(byKey["ConcurrentSyncOperationsIndex"]["value_meaning"], "1 account at a time");
  EXPECT_FALSE(byKey["ConcurrentSyncOperationsIndex"]["is_set"].get<bool>());
  EXPECT_TRUE(byKey["Accounts"]["value"].is_object());
  EXPECT_TRUE(byKey["feedlyClientId"]["value"].is_null());  // unset, and no default

  auto human = run("config list", "COLUMNS=100");
  ASSERT_EQ(human.exit, 0) << human.err;
  EXPECT_THAT(human.out, HasSubstr("KEY"));
  EXPECT_THAT(human.out, HasSubstr("5 (14 days)"));
  for (const auto& line : split(human.out, '\n')) EXPECT_LE(displayWidth(line), 100u) << line;

  const std::pair<std::string, std::string> refused[] = {
      {"config set NoSuchKey 1", "No preference NoSuchKey"},
      {"config set DaysKeepFeedReadItemsIndex 8", "7 (70 days)"},  // the message lists the choices
      {"config set DaysKeepFeedReadItemsIndex seven", "DaysKeepFeedReadItemsIndex takes one of"},
      {"config set Accounts 3", "a JSON object"},
      {"config set pinboardCallInterval -1", "0 or more"},
      {"config set newsblurApiEndpoint ftp://x", "http"},
  };
  for (const auto& [command, message] : refused) {
    auto r = run(command);
    EXPECT_EQ(r.exit, 2) << command;
    EXPECT_THAT(r.err, HasSubstr(message)) << command;
  }
  EXPECT_EQ(run("config get DaysKeepFeedReadItemsIndex").out, "5\n");
  EXPECT_TRUE(json::parse(run("config get Accounts").out).is_object());
  EXPECT_EQ(run("config set pinboardSharedByDefault yes").exit, 0);
  EXPECT_EQ(run("config get pinboardSharedByDefault").out, "true\n");

  auto emptyHome = run("--home '' list");
  EXPECT_EQ(emptyHome.exit, 2);
  EXPECT_THAT(emptyHome.err, HasSubstr("--home"));
}

TEST_F(CommandsCliTest, HumanOutputHasHeadersFitsTheWidthAndSaysHowMuchAListLeavesOut) {
  std::vector<TestEntry> entries;
  for (int i = 0; i < 7; ++i) {
    entries.push_back({fmt::format("Story {} with a title long enough to be cut at a narrow width, surely", i),
                       fmt::format("https://n.example/{}", i), std::chrono::hours(i + 1)});
  }
  subscribe("news", entries);
  auto list = run("list --limit 5", "COLUMNS=60");
  ASSERT_EQ(list.exit, 0) << list.err;
  const auto lines = split(list.out, '\n');
  ASSERT_GE(lines.size(), 7u);
  EXPECT_THAT(lines[0], HasSubstr("TITLE"));
  EXPECT_THAT(lines[1], HasSubstr(" h ago"));
  EXPECT_THAT(list.out, HasSubstr("5 of 7"));
  for (const auto& line : lines) EXPECT_LE(displayWidth(line), 60u) << line;
  auto all = run("list --limit 0");
  EXPECT_THAT(all.out, Not(HasSubstr(" of 7")));

  auto feeds = run("feeds");
  ASSERT_EQ(feeds.exit, 0) << feeds.err;
  EXPECT_THAT(feeds.out, HasSubstr("UNREAD"));
  EXPECT_THAT(feeds.out, HasSubstr("refreshed just now"));

  // JSON: snake_case keys, the feed's address under "url", dates in UTC.
  const auto feed = run("feeds --json").parsed().at(0);
  EXPECT_EQ(feed["url"], server_.url("news"));
  EXPECT_TRUE(feed["last_refresh"].get<std::string>().ends_with("Z"));
  const auto account = run("account list --json").parsed().at(0);
  EXPECT_TRUE(account.contains("sync_error"));
  auto parsed = run("feed parse --json " + server_.url("news"));
  ASSERT_EQ(parsed.exit, 0) << parsed.err;
  std::function<void(const json&)> snakeOnly = [&](const json& value) {
    if (value.is_array()) {
      for (const auto& item : value) snakeOnly(item);
    } else if (value.is_object()) {
      for (const auto& [key, item] : value.items()) {
        EXPECT_EQ(key.find_first_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ"), std::string::npos) << key;
        snakeOnly(item);
      }
    }
  };
  snakeOnly(parsed.parsed());
}

TEST_F(CommandsCliTest, TheLogKeepsOneLinePerEntryAndDebugLinesOnlyWithVerbose) {
  // A title with line breaks reaches the log through the feed's failure message.
  server_.setBody("broken", "<rss><channel><title>Two\nlines</title><item>", 500);
  ASSERT_EQ(run("subscribe " + server_.url("broken")).exit, 1);
  ASSERT_EQ(run("list").exit, 0);
  const auto logFile = home() / "state" / "Lectern.log";
  ASSERT_TRUE(std::filesystem::exists(logFile));
  const std::string quiet = readFile(logFile);
  EXPECT_THAT(quiet, Not(HasSubstr(" debug ")));
  EXPECT_THAT(quiet, Not(HasSubstr("No Secret Service answers")));  // no password was needed
  for (const auto& line : split(quiet, '\n')) {
    EXPECT_TRUE(line.empty() || line.starts_with("20")) << "an entry spans lines: " << line;
  }
  auto verbose = run("--verbose sync");
  EXPECT_EQ(verbose.exit, 0) << verbose.err;
  EXPECT_THAT(readFile(logFile), HasSubstr(" debug "));
}

}  // namespace
}  // namespace lectern::test
