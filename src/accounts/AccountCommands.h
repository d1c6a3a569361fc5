#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "accounts/AccountLifecycle.h"
#include "accounts/KeptArticles.h"
#include "core/Clock.h"
#include "core/Error.h"

namespace lectern {

class Account;
class ObjectContext;

// What the `lectern` account commands do, as library calls: create, list, find and remove accounts
// and set their preferences. Main context, main thread.

struct NewAccount {
  std::string service;                  // a service identifier: "feedbin", "localrss" ...
  std::optional<std::string> username;  // required by services that log in, refused by the others
  std::optional<std::string> password;  // kept in the keychain as the account's tokenSecret
  std::optional<std::string> endpoint;  // api_endpoint: an http(s) address (self-hosted servers)
  std::optional<std::string> title;     // the service's display name when absent
  // An OAuth service's refresh token (the account's `token`) and the access token's expiry.
  std::optional<std::string> refreshToken = std::nullopt;
  std::optional<Date> tokenExpire = std::nullopt;
};

// Creates and saves the account with its default folders, keychain item and preferences entry;
// it goes last in the sidebar. Saves the main context, or rolls its unsaved changes back on failure.
// Refused (kInvalidAccountSettings, kAccountExists) for a service
// without class, the smart-folders account, a missing or unwanted username, a password for a
// service without login, an endpoint that is not http(s), or an identifier already in use.
Result<std::shared_ptr<Account>> createAccount(ObjectContext& mainContext, const NewAccount& request);

// createAccount, then the service checks the credentials with its server (authenticate). When it
// refuses them, or cannot be reached, the account is deleted again (nothing is left in the
// library, the secret store or the preferences) and `onCompleted` gets the service's error.
// Completes on the main queue.
void addAccount(ObjectContext& mainContext, const NewAccount& request,
                std::function<void(Result<std::shared_ptr<Account>>)> onCompleted);

struct AccountSummary {
  std::int64_t localId = 0;  // the account's row
  std::string uniqueIdentifier;
  std::string service;
  std::string title;
  std::optional<std::string> username;
  std::optional<Date> last_sync;
  std::optional<std::string> syncError;  // the last sync's error, "description: suggestion"
};

// Every account but the smart-folders one, in sidebar order.
Result<std::vector<AccountSummary>> listAccounts(ObjectContext& context);

// The account whose uniqueIdentifier is `name`, else the only account of the service `name`.
// kNoSuchAccount when none matches, kAmbiguousAccount (naming the candidates) for several.
Result<std::shared_ptr<Account>> findAccount(ObjectContext& context, std::string_view name);

// findAccount, then deleteAccount.
Result<void> removeAccount(ObjectContext& mainContext, std::string_view name,
                           const CancelAccountSync& cancelSync = {});
// The same, keeping the account's starred articles in the built-in reader's "Kept" folder unless
// `starred` says otherwise (see keepStarredArticles). The built-in reader itself cannot keep its
// own: removing it while it holds starred articles fails with kStarredWouldBeLost, changing
// nothing, unless they go too.
Result<KeptArticles> removeAccount(ObjectContext& mainContext, std::string_view name, StarredArticles starred,
                                   const CancelAccountSync& cancelSync = {});

// Stores one preference of the account. A known key takes its initial value's type: yes/no,
// true/false, on/off or 1/0 for the flags, a whole number for the indexes (else
// kInvalidPreferenceValue). Another key stores a flag or a whole number when the text reads as
// one, else the text. Answers the value stored.
Result<nlohmann::json> setAccountPreference(Account& account, std::string_view key, std::string_view value);

}  // namespace lectern
