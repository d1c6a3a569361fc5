#include <gtest/gtest.h>

#include <sys/stat.h>

#include "core/Log.h"
#include "core/UserDefaults.h"
#include "support/TestSupport.h"

namespace lectern {
namespace {

TEST(UserDefaults, StoredValuesWinOverRegisteredOnesAndSurviveARestart) {
  test::TempDir dir;
  const auto file = dir / "defaults.json";
  {
    UserDefaults defaults(file);
    registerLecternDefaults(defaults);
    EXPECT_EQ(defaults.integerForKey(kDaysKeepFeedReadItemsIndex), 0);
    EXPECT_EQ(defaults.stringForKey(kNewsblurApiEndpoint), "https://newsblur.com");
    EXPECT_TRUE(defaults.dictionaryForKey(kAccounts).empty());
    ASSERT_TRUE(defaults.setInteger(kDaysKeepFeedReadItemsIndex, 5));
    ASSERT_TRUE(defaults.setObject(kAccounts, {{"localrss", {{"groupIndex", 1}}}}));
    // Registered values are never written.
    EXPECT_EQ(test::readFile(file).find(kNewsblurApiEndpoint), std::string::npos);
  }
  UserDefaults reopened(file);
  registerLecternDefaults(reopened);
  EXPECT_EQ(reopened.integerForKey(kDaysKeepFeedReadItemsIndex), 5);
  EXPECT_EQ(reopened.dictionaryForKey(kAccounts)["localrss"]["groupIndex"], 1);
  ASSERT_TRUE(reopened.removeObject(kDaysKeepFeedReadItemsIndex));
  EXPECT_EQ(reopened.integerForKey(kDaysKeepFeedReadItemsIndex), 0);
}

TEST(UserDefaults, TypedReadsConvertSensibly) {
  UserDefaults defaults;
  defaults.registerDefaults({{"b", true}, {"n", "12"}, {"d", 2.5}, {"s", 7}});
  EXPECT_TRUE(defaults.boolForKey("b"));
  EXPECT_EQ(defaults.integerForKey("b"), 1);
  EXPECT_EQ(defaults.integerForKey("n"), 12);
  EXPECT_EQ(defaults.integerForKey("d"), 2);
  EXPECT_DOUBLE_EQ(defaults.doubleForKey("d"), 2.5);
  EXPECT_EQ(defaults.stringForKey("s"), "7");
  EXPECT_FALSE(defaults.boolForKey("missing"));
  EXPECT_EQ(defaults.stringForKey("missing"), "");
}

TEST(UserDefaults, CorruptFileIsMovedAsideAndDefaultsAreUsed) {
  test::TempDir dir;
  const auto file = dir / "defaults.json";
  test::writeFile(file, "{\"DaysKeepFeedReadItemsIndex\": 4,");  // truncated
  ScopedLogCapture log;
  UserDefaults defaults(file);
  registerLecternDefaults(defaults);
  EXPECT_EQ(defaults.integerForKey(kDaysKeepFeedReadItemsIndex), 0);
  EXPECT_TRUE(std::filesystem::exists(file.string() + ".corrupt"));
  EXPECT_TRUE(log.contains("moved it to"));
  // The next write makes a good file again.
  ASSERT_TRUE(defaults.setInteger(kDaysKeepFeedReadItemsIndex, 2));
  EXPECT_EQ(UserDefaults(file).integerForKey(kDaysKeepFeedReadItemsIndex), 2);
}

TEST(UserDefaults, ObserversHearTheirKeyOrEveryKey) {
  UserDefaults defaults;
  std::vector<std::string> heard;
  const int one = defaults.addObserver(kConcurrentSyncOperationsIndex, [&](std::string_view k) { heard.emplace_back(k); });
  const int all = defaults.addObserver("", [&](std::string_view k) { heard.push_back("*" + std::string(k)); });
  ASSERT_TRUE(defaults.setInteger(kConcurrentSyncOperationsIndex, 2));
  ASSERT_TRUE(defaults.setBool("other", true));
  defaults.removeObserver(one);
  defaults.removeObserver(all);
  ASSERT_TRUE(defaults.setInteger(kConcurrentSyncOperationsIndex, 1));
  EXPECT_EQ(heard, (std::vector<std::string>{"ConcurrentSyncOperationsIndex", "*ConcurrentSyncOperationsIndex", "*other"}));
}

TEST(AtomicWrite, ReplacesTheFileWholeWithTheAskedMode) {
  test::TempDir dir;
  const auto file = dir / "secret.json";
  ASSERT_TRUE(writeFileAtomically(file, "first", std::filesystem::perms::owner_read | std::filesystem::perms::owner_write));
  ASSERT_TRUE(writeFileAtomically(file, "second", std::filesystem::perms::owner_read | std::filesystem::perms::owner_write));
  EXPECT_EQ(test::readFile(file), "second");
  struct stat st {};
  ASSERT_EQ(::stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_FALSE(writeFileAtomically("/proc/definitely/not/here", "x"));
}

TEST(KnownDefaults, ValuesAreCheckedByKindAndIndexValuesExplained) {
  // Typed text becomes the stored kind; what would break the key is refused with its choices.
  const auto* keep = knownDefault("DaysKeepFeedReadItemsIndex");
  ASSERT_NE(keep, nullptr);
  EXPECT_EQ(parseDefaultValue(*keep, "99").value(), 99);
  EXPECT_EQ(defaultValueMeaning(*keep, 2), "2 days");
  EXPECT_EQ(defaultValueMeaning(*keep, 0), "7 days");
  for (std::string_view bad : {"8", "-1", "4x", "", "seven"}) {
    auto refused = parseDefaultValue(*keep, bad);
    ASSERT_FALSE(refused) << bad;
    EXPECT_NE(refused.error().recoverySuggestion.find("99 (70 days)"), std::string::npos);
  }
  const auto* accounts = knownDefault("Accounts");
  ASSERT_NE(accounts, nullptr);
  EXPECT_FALSE(parseDefaultValue(*accounts, "3"));
  EXPECT_FALSE(parseDefaultValue(*accounts, "[]"));
  EXPECT_TRUE(parseDefaultValue(*accounts, "{}"));
  // A client key made of digits stays text.
  EXPECT_EQ(parseDefaultValue(*knownDefault("feedwranglerClientKey"), "0123").value(), "0123");
  EXPECT_EQ(parseDefaultValue(*knownDefault("pinboardSharedByDefault"), "no").value(), false);
  EXPECT_EQ(knownDefault("NoSuchKey"), nullptr);
  // Every registered key is known, so `config list` shows it.
  UserDefaults defaults;
  registerLecternDefaults(defaults);
  for (const auto& known : knownDefaults()) EXPECT_NE(knownDefault(known.key), nullptr);
  for (auto key : {kConcurrentSyncOperationsIndex, kDaysKeepFeedReadItemsIndex, kBookmarkCountDisplayIndex,
                   kNotificationCenterIndex, kNewsblurApiEndpoint, kAccounts}) {
    EXPECT_NE(knownDefault(key), nullptr) << key;
  }
}

}  // namespace
}  // namespace lectern
