#include <gtest/gtest.h>

#include "core/UserDefaults.h"
#include "store/QKAccountPreferences.h"
#include "store/ServiceIdentifiers.h"

namespace lectern {
namespace {

TEST(ServiceIdentifiers, NamesAndTypesConvertBothWays) {
  const std::pair<std::string_view, int> known[] = {
      {"smart-folders", 0}, {"instapaper", 1}, {"pocket", 2},       {"pinboard", 4}, {"newsblur", 6},
      {"localrss", 7},      {"fever", 8},      {"feedwrangler", 9}, {"feedbin", 10}, {"feedly", 11}};
  for (auto [name, type] : known) {
    EXPECT_EQ(static_cast<int>(serviceTypeWithName(name)), type) << name;
    EXPECT_EQ(serviceNameWithType(static_cast<ServiceType>(type)).value_or("?"), name) << type;
  }
}

TEST(ServiceIdentifiers, RetiredAndUnknownServices) {
  for (auto retired : {"readability", "delicious", "obsolete"}) {
    EXPECT_EQ(serviceTypeWithName(retired), ServiceType::kObsolete) << retired;
  }
  EXPECT_EQ(serviceTypeWithName("myspace"), ServiceType::kUnknown);
  EXPECT_EQ(serviceTypeWithName("Feedbin"), ServiceType::kUnknown);  // identifiers are exact
  for (int retired : {3, 5, 999}) {
    EXPECT_EQ(serviceNameWithType(static_cast<ServiceType>(retired)).value_or("?"), "obsolete") << retired;
  }
  auto unknown = serviceNameWithType(static_cast<ServiceType>(12));
  ASSERT_FALSE(unknown);
  EXPECT_EQ(unknown.error().description, "Unknown service: 12");
}

TEST(ServiceIdentifiers, CapabilitiesFollowTheKindOfService) {
  struct Row {
    ServiceType type;
    bool feed, readLater, bookmark, login, tags, smart;
  };
  const Row rows[] = {
      {ServiceType::kLocalRSS, true, false, false, false, false, false},
      {ServiceType::kFeedbin, true, false, false, true, false, false},
      {ServiceType::kNewsBlur, true, false, false, true, false, false},
      {ServiceType::kInstapaper, false, true, false, true, false, false},
      {ServiceType::kPocket, false, true, false, true, true, false},
      {ServiceType::kPinboard, false, false, true, true, true, false},
      {ServiceType::kSmartFolders, false, false, false, false, false, true},
      {ServiceType::kObsolete, false, false, false, false, false, false},
      {ServiceType::kUnknown, false, false, false, false, false, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(static_cast<int>(row.type));
    EXPECT_EQ(isFeedService(row.type), row.feed);
    EXPECT_EQ(isReadLaterService(row.type), row.readLater);
    EXPECT_EQ(isBookmarkService(row.type), row.bookmark);
    EXPECT_EQ(canLogin(row.type), row.login);
    EXPECT_EQ(isTagAccount(row.type), row.tags);
    EXPECT_EQ(isSmartFolderAccount(row.type), row.smart);
  }
  EXPECT_EQ(serviceDescriptionName(ServiceType::kLocalRSS), "Built-in RSS Reader");
  EXPECT_EQ(builtInFolders(ServiceType::kPocket).size(), 6u);
  EXPECT_TRUE(builtInFolders(ServiceType::kFeedbin).empty());
}

class AccountPreferencesTest : public ::testing::Test {
 protected:
  UserDefaults defaults_;
};

TEST_F(AccountPreferencesTest, UnstoredKeysAnswerTheirInitialValues) {
  QKAccountPreferences preferences(defaults_, "feedbin:ann");
  EXPECT_EQ(preferences.integerForKey("groupIndex"), 2);
  EXPECT_TRUE(preferences.boolForKey("syncOnStart"));
  EXPECT_TRUE(preferences.valueForKey("noSuchKey").is_null());
  ASSERT_TRUE(preferences.setValue("sortIndex", 3));
  // Writing one key stores the whole dictionary, the other keys at their initial values.
  const auto stored = defaults_.dictionaryForKey(kAccounts)["feedbin:ann"];
  EXPECT_EQ(stored["sortIndex"], 3);
  EXPECT_EQ(stored["showOnDock"], true);
  ASSERT_TRUE(preferences.setValue("customKey", "x"));
  EXPECT_EQ(QKAccountPreferences(defaults_, "feedbin:ann").valueForKey("customKey"), "x");
}

TEST_F(AccountPreferencesTest, ANewIdentifierTakesTheStoredValuesAlong) {
  QKAccountPreferences preferences(defaults_, "feedbin:ann");
  ASSERT_TRUE(preferences.setValue("autoSyncIntervalIndex", 4));
  ASSERT_TRUE(preferences.setIdentifier("feedbin:bob"));
  const auto accounts = defaults_.dictionaryForKey(kAccounts);
  EXPECT_FALSE(accounts.contains("feedbin:ann"));
  EXPECT_EQ(accounts["feedbin:bob"]["autoSyncIntervalIndex"], 4);
  ASSERT_TRUE(preferences.remove());
  EXPECT_FALSE(defaults_.dictionaryForKey(kAccounts).contains("feedbin:bob"));
}

TEST_F(AccountPreferencesTest, OldGlobalSettingsSeedTheAccount) {
  ASSERT_TRUE(defaults_.setInteger("BookmarksSortIndex", 1));
  ASSERT_TRUE(defaults_.setBool("CacheRSSImagesLocally", true));
  ASSERT_TRUE(defaults_.setBool("CacheImagesLocally", false));
  ASSERT_TRUE(defaults_.setBool("RefreshOnFeverServer", true));
  QKAccountPreferences fever(defaults_, "fever:ann");
  ASSERT_TRUE(fever.migrateOldUserDefaults(ServiceType::kFever));
  EXPECT_EQ(fever.integerForKey("sortIndex"), 1);
  EXPECT_TRUE(fever.boolForKey("cacheImages"));  // the feed services' key
  EXPECT_TRUE(fever.boolForKey("refreshOnFeverServer"));
  QKAccountPreferences pocket(defaults_, "pocket:ann");
  ASSERT_TRUE(pocket.migrateOldUserDefaults(ServiceType::kPocket));
  EXPECT_FALSE(pocket.boolForKey("cacheImages"));
  EXPECT_FALSE(pocket.boolForKey("refreshOnFeverServer"));  // Fever only
  EXPECT_EQ(pocket.integerForKey("groupIndex"), 2);         // no old key: untouched
}

}  // namespace
}  // namespace lectern
