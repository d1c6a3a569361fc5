#include <gtest/gtest.h>

#include "AccountsTestSupport.h"
#include "accounts/AccountErrors.h"
#include "accounts/AccountLifecycle.h"
#include "store/Bookmark.h"
#include "store/ObjectContext.h"
#include "store/SmartFolder.h"

namespace lectern::test {
namespace {

class AccountLifecycleTest : public AccountsTest {
 protected:
  std::vector<std::string> serviceNames() {
    ObjectContext::FetchRequest request;
    request.orderBy = "id";
    std::vector<std::string> names;
    const auto accounts = context().fetch<Account>(request).value();
    for (const auto& account : accounts) names.push_back(account->uniqueIdentifier());
    return names;
  }
  void storePassword(std::string_view identifier, std::string_view password) {
    ASSERT_TRUE(secrets_.setPassword(kPasswordServiceName, identifier, password));
  }
  void storePreference(std::string_view identifier, std::string_view key, nlohmann::json value) {
    auto accounts = defaults_.dictionaryForKey(kAccounts);
    if (!accounts.is_object()) accounts = nlohmann::json::object();
    accounts[std::string(identifier)][std::string(key)] = std::move(value);
    ASSERT_TRUE(defaults_.setObject(kAccounts, accounts));
  }
};

TEST_F(AccountLifecycleTest, NewUsernameTakesPreferencesAndPasswordAlong) {
  auto account = makeAccount("feedbin", "ann");
  ASSERT_TRUE(account->preferences().setValue("autoSyncIntervalIndex", 3));
  ASSERT_TRUE(account->setTokenSecret("s3cret"));

  ASSERT_TRUE(setAccountUsername(*account, "bob"));
  EXPECT_EQ(account->uniqueIdentifier(), "feedbin:bob");
  EXPECT_EQ(storedPreferences("feedbin:bob")["autoSyncIntervalIndex"], 3);
  EXPECT_TRUE(storedPreferences("feedbin:ann").is_null());
  EXPECT_EQ(secret("feedbin:bob"), "s3cret");
  EXPECT_EQ(secret("feedbin:ann"), std::nullopt);
  EXPECT_EQ(account->tokenSecret().value(), "s3cret");
}

TEST_F(AccountLifecycleTest, IdentityChangeToATakenIdentifierChangesNothing) {
  auto ann = makeAccount("feedbin", "ann");
  makeAccount("feedbin", "bob");
  makeAccount("instapaper", "ann");
  ASSERT_TRUE(ann->setTokenSecret("s3cret"));
  ASSERT_TRUE(ann->preferences().setValue("sortIndex", 1));

  auto renamed = setAccountUsername(*ann, "bob");
  ASSERT_FALSE(renamed);
  EXPECT_EQ(renamed.error().code, kAccountExists);
  auto moved = setAccountService(*ann, "instapaper");
  ASSERT_FALSE(moved);
  EXPECT_EQ(moved.error().code, kAccountExists);

  EXPECT_EQ(ann->uniqueIdentifier(), "feedbin:ann");
  EXPECT_EQ(ann->getLocalFolderIds().value(), std::vector<std::string>{});  // no Instapaper folders
  EXPECT_EQ(secret("feedbin:ann"), "s3cret");
  EXPECT_EQ(storedPreferences("feedbin:ann")["sortIndex"], 1);
}

TEST_F(AccountLifecycleTest, NewServiceRebuildsTheServiceAndFollowsItsLoginRule) {
  auto account = makeAccount("feedbin", "ann");
  ASSERT_TRUE(account->setTokenSecret("s3cret"));
  ASSERT_TRUE(account->preferences().setValue("groupIndex", 0));
  auto before = account->serviceObject();

  ASSERT_TRUE(setAccountService(*account, "instapaper"));
  EXPECT_EQ(account->uniqueIdentifier(), "instapaper:ann");
  EXPECT_NE(account->serviceObject(), before);
  EXPECT_EQ(account->getLocalFolderIds().value(), (std::vector<std::string>{"unread", "starred", "archive"}));
  EXPECT_EQ(secret("instapaper:ann"), "s3cret");

  // A service that cannot log in names the account by the service alone: no colon.
  ASSERT_TRUE(setAccountService(*account, "localrss"));
  EXPECT_EQ(account->uniqueIdentifier(), "localrss");
  EXPECT_EQ(secret("localrss"), "s3cret");
  EXPECT_EQ(secret("instapaper:ann"), std::nullopt);
  EXPECT_EQ(storedPreferences("localrss")["groupIndex"], 0);

  for (std::string_view refused : {"smart-folders", "obsolete", "readability", "nonsense"}) {
    auto changed = setAccountService(*account, std::string(refused));
    ASSERT_FALSE(changed) << refused;
    EXPECT_EQ(changed.error().code, kInvalidAccountSettings);
  }
  EXPECT_EQ(account->service(), "localrss");
}

TEST_F(AccountLifecycleTest, StartUpDeletesAccountsOfRetiredAndUnknownServices) {
  EXPECT_EQ(serviceTypeWithName("readability"), ServiceType::kObsolete);
  auto readability = makeAccount("readability", "bob");
  makeAccount("obsolete", std::nullopt);
  makeAccount("delicious", "carol");
  makeAccount("mystery", "dan");
  auto feedbin = makeAccount("feedbin", "ann");
  auto bookmark = context().insertNewObject<Bookmark>();
  bookmark->setBookmark_id("kept-by-nobody");
  bookmark->setAccount(*readability);
  ASSERT_TRUE(context().save());
  // Written when the retired service could still log in, and since.
  for (std::string_view identifier : {"readability:bob", "readability", "feedbin:ann"}) {
    storePassword(identifier, "pw");
    storePreference(identifier, "sortIndex", 1);
  }

  EXPECT_EQ(deleteObsoleteServices(context()).value(), 4);
  EXPECT_EQ(serviceNames(), std::vector<std::string>{"feedbin:ann"});
  for (std::string_view identifier : {"readability:bob", "readability"}) {
    EXPECT_EQ(secret(identifier), std::nullopt) << identifier;
    EXPECT_TRUE(storedPreferences(identifier).is_null()) << identifier;
  }
  EXPECT_EQ(secret("feedbin:ann"), "pw");
  EXPECT_EQ(storedPreferences("feedbin:ann")["sortIndex"], 1);
  EXPECT_EQ(context().count(Entity::kBookmark, "1").value(), 0);
  EXPECT_EQ(deleteObsoleteServices(context()).value(), 0);
}

TEST_F(AccountLifecycleTest, SmartFoldersAccountIsMadeOnceWithItsFolders) {
  auto first = ensureSmartFoldersAccount(context());
  ASSERT_TRUE(first);
  EXPECT_EQ((*first)->title(), "Smart Folders");
  EXPECT_EQ(context().count(Entity::kSmartFolder, "1").value(), 3);
  // The user's own choice stands: a deleted default folder does not come back at the next start.
  ObjectContext::FetchRequest request;
  request.where = "title = 'RSS Starred'";
  context().deleteObject(*context().fetchFirst<SmartFolder>(request).value());
  ASSERT_TRUE(context().save());
  auto again = ensureSmartFoldersAccount(context());
  ASSERT_TRUE(again);
  EXPECT_EQ(*again, *first);
  EXPECT_EQ(context().count(Entity::kAccount, "1").value(), 1);
  EXPECT_EQ(context().count(Entity::kSmartFolder, "1").value(), 2);
}

TEST_F(AccountLifecycleTest, StartUpSeedsMissingPreferencesFromOlderSettings) {
  ASSERT_TRUE(defaults_.setInteger("BookmarksSortIndex", 1));
  ASSERT_TRUE(defaults_.setBool("SyncOnStart", false));
  ASSERT_TRUE(defaults_.setBool("CacheRSSImagesLocally", true));
  ASSERT_TRUE(defaults_.setBool("CacheImagesLocally", false));
  ASSERT_TRUE(defaults_.setBool("RefreshOnFeverServer", true));
  makeAccount("fever", "ann");
  makeAccount("pocket", "ann");
  makeAccount("feedbin", "kept");
  storePreference("feedbin:kept", "sortIndex", 0);
  makeAccount("retired-one", "x");

  ASSERT_TRUE(prepareAccountsAtStartUp(context()));
  const auto fever = storedPreferences("fever:ann");
  EXPECT_EQ(fever["sortIndex"], 1);
  EXPECT_EQ(fever["syncOnStart"], false);
  EXPECT_EQ(fever["cacheImages"], true);  // a feed service follows the feed images setting
  EXPECT_EQ(fever["refreshOnFeverServer"], true);
  EXPECT_EQ(fever["groupIndex"], 2);
  const auto pocket = storedPreferences("pocket:ann");
  EXPECT_EQ(pocket["cacheImages"], false);
  EXPECT_EQ(pocket["refreshOnFeverServer"], false);
  EXPECT_EQ(storedPreferences("feedbin:kept"), nlohmann::json({{"sortIndex", 0}}));
  EXPECT_TRUE(Account::smartFoldersAccount(context()).value());
  EXPECT_EQ(context().count(Entity::kAccount, "service = 'retired-one'").value(), 0);
}

TEST_F(AccountLifecycleTest, DeletingAnAccountCancelsItsSyncFirstAndForgetsItsSecrets) {
  auto doomed = makeAccount("pinboard", "ann");
  auto kept = makeAccount("pinboard", "bob");
  ASSERT_TRUE(doomed->setTokenSecret("pw"));
  ASSERT_TRUE(kept->setTokenSecret("pw2"));
  ASSERT_TRUE(doomed->preferences().setValue("sortIndex", 1));
  auto bookmark = context().insertNewObject<Bookmark>();
  bookmark->setBookmark_id("b1");
  bookmark->setAccount(*doomed);
  ASSERT_TRUE(context().save());

  bool cancelledWhileThere = false;
  ASSERT_TRUE(deleteAccount(*doomed, [&](Account& account) {
    cancelledWhileThere = &account == doomed.get() && !account.isDeleted() &&
                          Account::findService(context(), "pinboard", "ann").value() != nullptr;
  }));
  EXPECT_TRUE(cancelledWhileThere);
  EXPECT_EQ(Account::findService(context(), "pinboard", "ann").value(), nullptr);
  EXPECT_EQ(secret("pinboard:ann"), std::nullopt);
  EXPECT_TRUE(storedPreferences("pinboard:ann").is_null());
  EXPECT_EQ(secret("pinboard:bob"), "pw2");
  EXPECT_EQ(context().count(Entity::kBookmark, "1").value(), 0);
  EXPECT_EQ(context().count(Entity::kFolder, "account = ?", {kept->objectID().row}).value(), 4);
}

}  // namespace
}  // namespace lectern::test
