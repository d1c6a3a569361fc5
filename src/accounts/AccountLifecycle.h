#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "core/Error.h"

namespace lectern {

class Account;
class ObjectContext;

// What the program does to accounts at start-up and when one changes identity or goes, beyond
// what the store's Account does by itself. Main context, main thread, unless said otherwise.

// The "smart-folders" account with its three default smart folders, created and saved when missing.
Result<std::shared_ptr<Account>> ensureSmartFoldersAccount(ObjectContext& mainContext);

// Deletes every account of a retired ("obsolete", "readability", "delicious") or unknown service,
// with its keychain item and preferences entry (under both the bare service name and
// "service:username", the name it had when the service could log in), and saves.
// Answers how many accounts went.
Result<int> deleteObsoleteServices(ObjectContext& mainContext);

// Gives every account without a stored preferences entry one, seeded from the global settings of
// older versions where they exist (migrateOldUserDefaults).
Result<void> migrateAccountPreferences(ObjectContext& mainContext);

// The start-up steps above, in order: smart-folders account, retired services, preferences.
Result<void> prepareAccountsAtStartUp(ObjectContext& mainContext);

// setUsername: and setService: that take the keychain item along to the new identifier (the store
// moves the preferences entry and, for a service, rebuilds the service object and default folders).
// The client is reset so that the next request uses the new credentials. Refused, changing
// nothing, when another account has the new identifier.
Result<void> setAccountUsername(Account& account, std::optional<std::string> username);
Result<void> setAccountService(Account& account, const std::string& service);

// Cancels the account's sync operation and returns once it has ended (given by the sync engine).
using CancelAccountSync = std::function<void(Account& account)>;

// Deletes an account and everything it owns: its sync is cancelled and waited for, its client's
// requests cancelled, then the account, its keychain item and its preferences go and the context is
// saved. When saving fails the keychain item and preferences are put back. Main context only.
Result<void> deleteAccount(Account& account, const CancelAccountSync& cancelSync = {});

}  // namespace lectern
