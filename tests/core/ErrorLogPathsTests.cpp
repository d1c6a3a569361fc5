#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "core/Error.h"
#include "core/Log.h"
#include "core/Paths.h"
#include "support/TestSupport.h"

namespace lectern {
namespace {

TEST(Error, MessageJoinsDescriptionAndSuggestion) {
  EXPECT_EQ(Error::make("d", 1, "Failed to fetch feed: x", "The request timed out.").message(),
            "Failed to fetch feed: x: The request timed out.");
  EXPECT_EQ(Error::make("d", 1, "Only a title").message(), "Only a title");
  EXPECT_EQ(Error::make("d", 1, "", "Only advice").message(), "Only advice");
  Result<int> r = fail("QKFeedParserClient", 1, "Invalid feed", "Couldn't find the root element of feed");
  ASSERT_FALSE(r);
  EXPECT_EQ(r.error().domain, "QKFeedParserClient");
  EXPECT_EQ(r.error().code, 1);
}

class LogFileTest : public ::testing::Test {
 protected:
  void TearDown() override {
    Log::configure({});
    Log::setDebugEnabled(true);
  }
  test::TempDir dir_;
};

TEST_F(LogFileTest, RotatesPastTheSizeLimitAndKeepsABoundedNumberOfFiles) {
  const auto file = dir_ / "Lectern.log";
  Log::configure(LogSettings{.file = file, .maxBytes = 400, .keepFiles = 2});
  for (int i = 0; i < 60; ++i) logInfo("Test", "line number {} with some padding text", i);
  EXPECT_TRUE(std::filesystem::exists(file));
  EXPECT_TRUE(std::filesystem::exists(file.string() + ".1"));
  EXPECT_TRUE(std::filesystem::exists(file.string() + ".2"));
  EXPECT_FALSE(std::filesystem::exists(file.string() + ".3"));
  EXPECT_LE(std::filesystem::file_size(file), 400u);
  // The newest line is in the live file.
  EXPECT_NE(test::readFile(file).find("line number 59"), std::string::npos);
}

TEST_F(LogFileTest, DebugLinesReachTheFileOnlyWhenAskedAndEveryEntryIsOneLine) {
  const auto file = dir_ / "Lectern.log";
  Log::configure(LogSettings{.file = file});
  ScopedLogCapture capture;
  logDebugMessage("Test", "quiet detail");
  logInfo("Test", "title: {}", "Two\nlines\r and a bell\a");
  EXPECT_TRUE(capture.contains("quiet detail"));  // observers see everything
  Log::configure(LogSettings{.file = file, .minimumLevel = LogLevel::kDebug});
  logDebugMessage("Test", "loud detail");
  const std::string text = test::readFile(file);
  EXPECT_EQ(text.find("quiet detail"), std::string::npos);
  EXPECT_NE(text.find("loud detail"), std::string::npos);
  EXPECT_NE(text.find("title: Two\\nlines\\r and a bell\\u0007\n"), std::string::npos) << text;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
}

TEST_F(LogFileTest, ClassLevelSwitchSilencesOneCategoryOnly) {
  ScopedLogCapture capture;
  Log::setDebugEnabled("FeedSyncOperation", false);
  logDebugMessage("FeedSyncOperation", "hidden");
  logDebugMessage("QKSyncManager", "shown");
  logError("FeedSyncOperation", "errors are never silenced");
  Log::setDebugEnabled(false);
  logDebugMessage("QKSyncManager", "hidden too");
  Log::setDebugEnabled("QKSyncManager", true);
  logDebugMessage("QKSyncManager", "its own switch wins");
  EXPECT_EQ(capture.messages(),
            (std::vector<std::string>{"shown", "errors are never silenced", "its own switch wins"}));
  Log::setDebugEnabled("FeedSyncOperation", true);
  Log::setDebugEnabled("QKSyncManager", true);
}

TEST(Paths, FollowsXdgAndLetsLecternHomeOrHomeOptionTakeEverything) {
  std::map<std::string, std::string> env{{"HOME", "/home/u"}, {"XDG_CONFIG_HOME", "/cfg"},
                                         {"XDG_DATA_HOME", "relative/ignored"}};
  auto getenv = [&](const char* name) -> const char* {
    auto it = env.find(name);
    return it == env.end() ? nullptr : it->second.c_str();
  };
  Paths p = Paths::resolve(std::nullopt, getenv);
  EXPECT_EQ(p.configFolder, "/cfg/lectern");
  EXPECT_EQ(p.applicationFolder, "/home/u/.local/share/lectern");  // relative XDG values are invalid
  EXPECT_EQ(p.stateFolder, "/home/u/.local/state/lectern");
  EXPECT_EQ(p.storeFile(), "/home/u/.local/share/lectern/Lectern.storedata");
  EXPECT_EQ(p.imageCacheFolder(), "/home/u/.cache/lectern/Images");

  env["LECTERN_HOME"] = "/portable";
  p = Paths::resolve(std::nullopt, getenv);
  EXPECT_EQ(p.applicationFolder, "/portable/data");
  EXPECT_EQ(p.configFolder, "/portable/config");
  EXPECT_EQ(p.logFile(), "/portable/state/Lectern.log");

  p = Paths::resolve(std::filesystem::path("/option"), getenv);  // --home beats LECTERN_HOME
  EXPECT_EQ(p.applicationFolder, "/option/data");
}

}  // namespace
}  // namespace lectern
