// The built-in reader's refresh through the `lectern` program: entries found whatever order a feed
// lists them in, deleted articles staying deleted, what the refresh left out said, 304 answers,
// relative links made absolute, and "up to date" only when every feed was read.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <set>

#include "core/Dates.h"
#include "app/ProgramRun.h"
#include "support/TestSupport.h"
#include "sync/SyncTestSupport.h"

namespace lectern::test {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::Not;
using namespace std::chrono_literals;

class RefreshCliTest : public ::testing::Test {
 protected:
  // Runs `lectern --home HOME <arguments>` (arguments are shell words).
  ProgramRun run(const std::string& arguments) {
    return runProgram(home_.path(), home_.path() / "home", arguments);
  }
  void serve(const std::string& name, const std::vector<TestEntry>& entries) {
    server_.setFeed(name, entries, std::chrono::system_clock::now());
  }
  // The titles of the stories `list --json` shows, and their addresses by title.
  std::set<std::string> titles() {
    std::set<std::string> out;
    for (const auto& item : list()) out.insert(item["title"].get<std::string>());
    return out;
  }
  json list() {
    auto listed = run("list --json");
    EXPECT_EQ(listed.exit, 0) << listed.err;
    return listed.parsed();
  }
  std::string idOf(const std::string& title) {
    for (const auto& item : list()) {
      if (item["title"] == title) return std::to_string(item["id"].get<std::int64_t>());
    }
    ADD_FAILURE() << "no story " << title;
    return "0";
  }

  TempDir home_;
  FeedServer server_;
};

constexpr std::string_view kNote =
    "2 older articles not kept (keep period 7 days; `lectern config set DaysKeepFeedReadItemsIndex \u2026`)";

TEST_F(RefreshCliTest, ARefreshMissesNothingBringsNothingBackAndSaysWhatItLeftOut) {
  server_.answerConditionally();
  // A pinned post of last month above fresh ones; a feed listed oldest first; one only of old posts.
  serve("sticky", {{"Pinned", "https://example.org/pinned", 24h * 30},
                   {"Fresh 1", "https://example.org/f1", 1h},
                   {"Fresh 2", "https://example.org/f2", 2h},
                   {"Fresh 3", "https://example.org/f3", 3h}});
  serve("ascending", {{"Up 1", "https://example.org/u1", 48h}, {"Up 2", "https://example.org/u2", 24h}});
  serve("old",
        {{"Old 1", "https://example.org/o1", 24h * 10}, {"Old 2", "https://example.org/o2", 24h * 12}});
  server_.setBody(
      "relative",
      R"(<?xml version="1.0"?><feed xmlns="http://www.w3.org/2005/Atom" xml:base="/site/">
      <title>Relative</title><entry><title>Linked
        here</title><link href="posts/1"/><updated>)" +
          rfc3339String(std::chrono::system_clock::now() - 1h) +
          R"(</updated><content type="html">&lt;a href="../about"&gt;a&lt;/a&gt;</content></entry></feed>)");
  for (auto name : {"sticky", "ascending", "old", "relative"}) {
    ASSERT_EQ(run("subscribe " + server_.url(name)).exit, 0) << name;
  }

  auto first = run("sync");
  ASSERT_EQ(first.exit, 0) << first.err;
  EXPECT_THAT(first.out, HasSubstr("up to date"));
  EXPECT_THAT(first.out, HasSubstr("old: " + std::string(kNote)));
  EXPECT_EQ(titles(),
            (std::set<std::string>{"Fresh 1", "Fresh 2", "Fresh 3", "Up 1", "Up 2", "Linked here"}));
  const std::string address = server_.url("relative");
  const std::string origin = address.substr(0, address.find("/feeds/"));
  int linked = 0;
  for (const auto& item : list()) {
    if (item["title"] != "Linked here") continue;
    EXPECT_EQ(item["url"], origin + "/site/posts/1");
    ++linked;
  }
  EXPECT_EQ(linked, 1);

  // `feeds` keeps saying it.
  auto feeds = run("feeds");
  EXPECT_THAT(feeds.out, HasSubstr(kNote));
  for (const auto& feed : run("feeds --json").parsed()) {
    EXPECT_EQ(feed["older_not_kept"], feed["title"] == "old" ? 2 : 0) << feed.dump();
  }

  // Deleted online and offline: neither comes back while the feeds still list them, and later
  // posts of the oldest-first feed arrive at its bottom.
  ASSERT_EQ(run("delete " + idOf("Fresh 1")).exit, 0);
  ASSERT_EQ(run("--offline delete " + idOf("Up 2")).exit, 0);
  serve("sticky", {{"Pinned", "https://example.org/pinned", 24h * 30},
                   {"Fresh 0", "https://example.org/f0", 1h},
                   {"Fresh 1", "https://example.org/f1", 2h},
                   {"Fresh 2", "https://example.org/f2", 3h}});
  serve("ascending", {{"Up 1", "https://example.org/u1", 48h},
                      {"Up 2", "https://example.org/u2", 24h},
                      {"Up 3", "https://example.org/u3", 1h}});
  auto second = run("sync");
  ASSERT_EQ(second.exit, 0) << second.err;
  EXPECT_THAT(second.out, Not(HasSubstr("not kept")));  // said once, at the first refresh
  EXPECT_EQ(titles(),
            (std::set<std::string>{"Fresh 0", "Fresh 2", "Fresh 3", "Up 1", "Up 3", "Linked here"}));
  // The unchanged feeds answered 304, the changed ones in full.
  EXPECT_EQ(server_.notModified("old"), 1);
  EXPECT_EQ(server_.notModified("relative"), 1);
  EXPECT_EQ(server_.notModified("sticky") + server_.notModified("ascending"), 0);

  // A feed that fails: the account is not "up to date".
  server_.setBody("old", "broken", 500);
  auto failing = run("sync");
  EXPECT_EQ(failing.exit, 0) << failing.err;
  EXPECT_THAT(failing.out, HasSubstr("Built-in RSS Reader: 1 feed failed"));
  EXPECT_THAT(failing.out, Not(HasSubstr("up to date")));
  EXPECT_THAT(failing.err, HasSubstr(server_.url("old")));
}

}  // namespace
}  // namespace lectern::test
