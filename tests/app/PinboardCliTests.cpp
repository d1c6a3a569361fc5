// A Pinboard account through the `lectern` program, against the mock in this process: added,
// synced twice, read offline, changed online and offline, each change seen by the server.
#include <sys/wait.h>

#include <cstdlib>
#include <map>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/ProgramRun.h"
#include "mocks/PinboardMockServer.h"
#include "support/TestSupport.h"

namespace lectern::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using nlohmann::json;

class PinboardCliTest : public ::testing::Test {
 protected:
  // Runs `lectern --home HOME <arguments>` (arguments are shell words) with `input` on stdin.
  ProgramRun run(const std::string& arguments, const std::string& input = "") {
    return runProgram(home_.path(), home_.path() / "home", arguments, input);
  }
  // The account's items by title.
  std::map<std::string, json> listed() {
    auto list = run("list --json");
    EXPECT_EQ(list.exit, 0) << list.err;
    std::map<std::string, json> byTitle;
    for (const auto& item : list.parsed()) byTitle[item["title"].get<std::string>()] = item;
    return byTitle;
  }
  std::string idOf(const json& item) { return std::to_string(item["id"].get<std::int64_t>()); }

  TempDir home_;
  mock::PinboardMockServer pinboard_{"maria", "secret"};
};

TEST_F(PinboardCliTest, AnAccountIsAddedSyncedReadAndChangedOnlineAndOffline) {
  pinboard_.seed(/*count=*/4, /*unread=*/3, /*sharedEvery=*/2);
  // Both sides keep no pace, except where the test asks for one.
  ASSERT_EQ(run("config set pinboardCallInterval 0").exit, 0);
  ASSERT_EQ(run("config set pinboardAllPostsInterval 0").exit, 0);

  const std::string add = "account add pinboard --username maria --password-stdin --endpoint " + pinboard_.baseURL();
  auto refused = run(add, "wrong\n");
  EXPECT_EQ(refused.exit, 1);
  EXPECT_THAT(refused.err, HasSubstr("Pinboard: Failed to login"));
  EXPECT_THAT(refused.err, Not(HasSubstr("wrong")));
  EXPECT_EQ(run("account list --json").parsed().size(), 0u);

  auto added = run(add, "secret\n");
  ASSERT_EQ(added.exit, 0) << added.err;
  auto synced = run("sync");
  ASSERT_EQ(synced.exit, 0) << synced.err;
  auto items = listed();
  ASSERT_EQ(items.size(), 4u);
  EXPECT_EQ(items["Article 1"]["account"], "pinboard:maria");
  EXPECT_EQ(items["Article 1"]["tags"], "reading,later");
  EXPECT_EQ(items["Article 4"]["is_archived"], true);
  EXPECT_EQ(items["Article 2"]["is_shared"], true);

  // The article text was stored at the sync: shown offline, from the library.
  auto shown = run("--offline show " + idOf(items["Article 2"]));
  ASSERT_EQ(shown.exit, 0) << shown.err;
  EXPECT_THAT(shown.out, HasSubstr("Paragraph 2 of article 2"));

  // Online: archive, unarchive, star (Lectern's own), delete.
  const std::string first = pinboard_.baseURL() + "articles/1";
  ASSERT_EQ(run("mark read " + idOf(items["Article 1"])).exit, 0);
  EXPECT_FALSE(pinboard_.post(first)->toread);
  ASSERT_EQ(run("mark unread " + idOf(items["Article 1"])).exit, 0);
  EXPECT_TRUE(pinboard_.post(first)->toread);
  ASSERT_EQ(run("mark star " + idOf(items["Article 1"])).exit, 0);
  EXPECT_EQ(run("list --starred --json").parsed().size(), 1u);
  auto deleted = run("delete " + idOf(items["Article 3"]));
  ASSERT_EQ(deleted.exit, 0) << deleted.err;
  EXPECT_FALSE(pinboard_.post(pinboard_.baseURL() + "articles/3"));

  // Offline: queued, then replayed at the next sync, which the server sees.
  ASSERT_EQ(run("--offline mark read " + idOf(items["Article 2"])).exit, 0);
  ASSERT_EQ(run("--offline delete " + idOf(items["Article 4"])).exit, 0);
  EXPECT_EQ(run("queue --json").parsed().size(), 2u);
  EXPECT_TRUE(pinboard_.post(pinboard_.baseURL() + "articles/4"));
  // A post edited elsewhere meanwhile comes in changed.
  ASSERT_TRUE(pinboard_.editPost(first, [](mock::PinboardPost& post) { post.description = "Article one, renamed"; }));
  synced = run("sync");
  ASSERT_EQ(synced.exit, 0) << synced.err;
  EXPECT_EQ(run("queue --json").parsed().size(), 0u);
  EXPECT_FALSE(pinboard_.post(pinboard_.baseURL() + "articles/2")->toread);
  EXPECT_FALSE(pinboard_.post(pinboard_.baseURL() + "articles/4"));
  items = listed();
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items["Article 2"]["is_archived"], true);
  EXPECT_EQ(items["Article one, renamed"]["is_favorited"], true);  // the star stayed

  // With Pinboard's own pace the next full list is minutes away: the sync says when, and the
  // server is not asked.
  ASSERT_EQ(run("config set pinboardAllPostsInterval 300").exit, 0);
  const auto fullLists = pinboard_.requests("posts/all").size();
  auto tooSoon = run("sync");
  EXPECT_EQ(tooSoon.exit, 1);
  EXPECT_THAT(tooSoon.err, HasSubstr("try again in"));
  EXPECT_EQ(pinboard_.requests("posts/all").size(), fullLists);
}

}  // namespace
}  // namespace lectern::test
