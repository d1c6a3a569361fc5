#include <gtest/gtest.h>

#include "AccountsTestSupport.h"
#include "accounts/AccountCommands.h"
#include "accounts/AccountErrors.h"
#include "store/ObjectContext.h"

namespace lectern::test {
namespace {

class AccountCommandsTest : public AccountsTest {
 protected:
  std::shared_ptr<Account> create(std::string service, std::optional<std::string> username = std::nullopt,
                                  std::optional<std::string> password = std::nullopt) {
    NewAccount request;
    request.service = std::move(service);
    request.username = std::move(username);
    request.password = std::move(password);
    auto account = createAccount(context(), request);
    if (!account) throw std::runtime_error(account.error().message());
    return *account;
  }
};

TEST_F(AccountCommandsTest, CreatedAccountHasItsSecretEndpointPreferencesAndPlace) {
  create("localrss");
  NewAccount request;
  request.service = "fever";
  request.username = " ann ";
  request.password = "pw";
  request.endpoint = "https://fever.example.org/fever/";
  auto fever = createAccount(context(), request);
  ASSERT_TRUE(fever) << fever.error().message();
  EXPECT_EQ((*fever)->uniqueIdentifier(), "fever:ann");
  EXPECT_EQ((*fever)->title(), "Fever");
  EXPECT_EQ((*fever)->api_endpoint(), "https://fever.example.org/fever/");
  EXPECT_EQ(secret("fever:ann"), "pw");
  EXPECT_EQ(storedPreferences("fever:ann")["syncOnStart"], true);
  EXPECT_EQ((*fever)->getLocalFolderIds().value(), std::vector<std::string>{"sparks"});

  // Listed in sidebar order, without the smart-folders account, with the sync state.
  makeAccount("smart-folders", std::nullopt);
  (*fever)->setLast_sync(clock_.now());
  (*fever)->setSyncError(Error::make("com.quillhq.com", 401, "Fever: Failed to sign in", "Wrong password"));
  const auto listed = listAccounts(context()).value();
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed[0].uniqueIdentifier, "localrss");
  EXPECT_EQ(listed[0].title, "Built-in RSS Reader");
  EXPECT_EQ(listed[0].syncError, std::nullopt);
  EXPECT_EQ(listed[1].uniqueIdentifier, "fever:ann");
  EXPECT_EQ(listed[1].last_sync, clock_.now());
  EXPECT_EQ(listed[1].syncError, "Fever: Failed to sign in: Wrong password");
}

TEST_F(AccountCommandsTest, RefusedAccountsLeaveNoTrace) {
  create("feedbin", "ann");
  struct Case {
    NewAccount request;
    int code;
  };
  const Case cases[] = {
      {{"nonsense", "x", {}, {}, {}}, kInvalidAccountSettings},
      {{"smart-folders", {}, {}, {}, {}}, kInvalidAccountSettings},
      {{"obsolete", {}, {}, {}, {}}, kInvalidAccountSettings},
      {{"readability", "bob", {}, {}, {}}, kInvalidAccountSettings},
      {{"pocket", {}, "pw", {}, {}}, kInvalidAccountSettings},
      {{"pocket", "  ", "pw", {}, {}}, kInvalidAccountSettings},
      {{"localrss", "ann", {}, {}, {}}, kInvalidAccountSettings},
      {{"localrss", {}, "pw", {}, {}}, kInvalidAccountSettings},
      {{"fever", "ann", "pw", "ftp://fever.example.org", {}}, kInvalidAccountSettings},
      {{"fever", "ann", "pw", "not an address", {}}, kInvalidAccountSettings},
      {{"feedbin", "ann", "other", {}, {}}, kAccountExists},
  };
  for (const auto& [request, code] : cases) {
    SCOPED_TRACE(request.service + " " + request.username.value_or("-"));
    auto created = createAccount(context(), request);
    ASSERT_FALSE(created);
    EXPECT_EQ(created.error().code, code);
    EXPECT_EQ(created.error().description, "Failed to add account");
    EXPECT_FALSE(created.error().recoverySuggestion.empty());
  }
  EXPECT_EQ(listAccounts(context()).value().size(), 1u);
  EXPECT_EQ(secret("pocket:"), std::nullopt);
  EXPECT_EQ(secret("feedbin:ann"), std::nullopt);  // the duplicate did not overwrite anything
  EXPECT_EQ(context().count(Entity::kFolder, "1").value(), 0);
  create("localrss");
  auto second = createAccount(context(), NewAccount{"localrss", {}, {}, {}, {}});
  ASSERT_FALSE(second);
  EXPECT_EQ(second.error().code, kAccountExists);
}

TEST_F(AccountCommandsTest, AccountsAreFoundByIdentifierOrByAnUnambiguousService) {
  auto ann = create("feedbin", "ann");
  auto bob = create("feedbin", "bob");
  auto pocket = create("pocket", "ann");
  create("localrss");
  EXPECT_EQ(findAccount(context(), "feedbin:bob").value(), bob);
  EXPECT_EQ(findAccount(context(), "pocket").value(), pocket);
  EXPECT_EQ(findAccount(context(), "localrss").value()->service(), "localrss");

  auto ambiguous = findAccount(context(), "feedbin");
  ASSERT_FALSE(ambiguous);
  EXPECT_EQ(ambiguous.error().code, kAmbiguousAccount);
  EXPECT_NE(ambiguous.error().recoverySuggestion.find("feedbin:ann, feedbin:bob"), std::string::npos);
  for (std::string_view missing : {"instapaper", "feedbin:carol", "", "smart-folders"}) {
    auto found = findAccount(context(), missing);
    ASSERT_FALSE(found) << missing;
    EXPECT_EQ(found.error().code, kNoSuchAccount);
  }

  int cancelled = 0;
  ASSERT_TRUE(removeAccount(context(), "feedbin:ann", [&](Account&) { ++cancelled; }));
  EXPECT_EQ(cancelled, 1);
  EXPECT_EQ(findAccount(context(), "feedbin").value(), bob);  // no longer ambiguous
  EXPECT_FALSE(removeAccount(context(), "feedbin:ann"));
}

TEST_F(AccountCommandsTest, PreferencesTakeTheTypeOfTheirKey) {
  auto account = create("feedbin", "ann");
  const std::pair<std::string_view, std::string_view> accepted[] = {
      {"syncOnStart", "no"}, {"showOnDock", "TRUE"}, {"cacheImages", "1"}, {"autoSyncIntervalIndex", " 3"},
      {"groupIndex", "-1"},  {"myFlag", "yes"},      {"myCount", "12"},    {"myText", "hello world"}};
  for (auto [key, value] : accepted) ASSERT_TRUE(setAccountPreference(*account, key, value)) << key;
  EXPECT_EQ(storedPreferences("feedbin:ann"), nlohmann::json({{"syncOnStart", false},
                                                              {"showOnDock", true},
                                                              {"cacheImages", true},
                                                              {"autoSyncIntervalIndex", 3},
                                                              {"groupIndex", -1},
                                                              {"sortIndex", 0},
                                                              {"refreshOnFeverServer", false},
                                                              {"syncFeverSparks", false},
                                                              {"myFlag", true},
                                                              {"myCount", 12},
                                                              {"myText", "hello world"}}));
  EXPECT_EQ(account->nextSyncDate(), clock_.now());  // the index is a number the account reads

  const std::pair<std::string_view, std::string_view> refused[] = {
      {"syncOnStart", "maybe"}, {"sortIndex", "1.5"}, {"sortIndex", "two"}, {"groupIndex", ""}, {" ", "1"}};
  for (auto [key, value] : refused) {
    auto stored = setAccountPreference(*account, key, value);
    ASSERT_FALSE(stored) << key << "=" << value;
    EXPECT_EQ(stored.error().code, kInvalidPreferenceValue);
  }
  EXPECT_EQ(storedPreferences("feedbin:ann")["sortIndex"], 0);
}

}  // namespace
}  // namespace lectern::test
