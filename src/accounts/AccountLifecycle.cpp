#include "accounts/AccountLifecycle.h"

#include <fmt/format.h>

#include "accounts/AccountErrors.h"
#include "accounts/ServiceBase.h"
#include "accounts/ServiceFactory.h"
#include "core/Log.h"
#include "core/SecretStore.h"
#include "core/UserDefaults.h"
#include "services/smartfolders/SmartFolderService.h"
#include "store/Account.h"
#include "store/ObjectContext.h"
#include "store/QKAccountPreferences.h"
#include "store/StoreEnvironment.h"

namespace lectern {

namespace {

constexpr std::string_view kLogCategory = "Account";
constexpr std::string_view kSmartFoldersTitle = "Smart Folders";

void requireMainContext(const ObjectContext& context, std::string_view what) {
  if (!context.isMainContext()) throw InternalInconsistency(fmt::format("{} needs the main context", what));
}

Error storeError(std::string_view action, const Error& error) {
  return Error::make(kAccountErrorDomain, kStoreFailed, action, error.message());
}

bool hasStoredPreferences(const UserDefaults& defaults, const std::string& identifier) {
  const auto accounts = defaults.dictionaryForKey(kAccounts);
  return accounts.is_object() && accounts.contains(identifier);
}

// Removes the keychain item and preferences entry stored under `identifier`.
void forgetIdentifier(StoreEnvironment& environment, const std::string& identifier) {
  if (auto* secrets = environment.secretStore()) {
    if (auto deleted = secrets->deletePassword(kPasswordServiceName, identifier); !deleted) {
      logError(kLogCategory, "Failed to delete the password of {}: {}", identifier,
               deleted.error().message());
    }
  }
  if (auto removed = QKAccountPreferences(environment.defaults(), identifier).remove(); !removed) {
    logError(kLogCategory, "Failed to remove the preferences of {}: {}", identifier,
             removed.error().message());
  }
}

Result<std::vector<std::shared_ptr<Account>>> allAccounts(ObjectContext& context) {
  ObjectContext::FetchRequest request;
  request.orderBy = "pos, id";
  return context.fetch<Account>(std::move(request));
}

// Another account of the context already goes by `identifier`.
Result<bool> identifierTaken(Account& account, const std::string& identifier) {
  auto accounts = allAccounts(account.managedObjectContext());
  if (!accounts) return fail(accounts.error());
  for (const auto& other : *accounts) {
    if (other.get() != &account && other->uniqueIdentifier() == identifier) return true;
  }
  return false;
}

void resetClient(Account& account) {
  if (auto service = serviceObjectOf(account)) service->resetApiClient();
}

// The identifier an account of `service` with `username` goes by (the store's uniqueIdentifier rule).
std::string identifierOf(std::string_view service, const std::optional<std::string>& username) {
  if (!canLogin(serviceTypeWithName(service))) return std::string(service);
  return fmt::format("{}:{}", service, username.value_or(""));
}

// Runs `change`, which gives the account `newIdentifier`, and takes the keychain item along;
// `undo` puts the account back when the item cannot follow.
Result<void> changeIdentity(Account& account, std::string_view action, std::string_view what,
                            const std::string& newIdentifier, const std::function<void()>& change,
                            const std::function<void()>& undo) {
  auto& environment = account.managedObjectContext().environment();
  const std::string oldIdentifier = account.uniqueIdentifier();
  auto secret = account.tokenSecret();
  if (!secret) return fail(storeError(action, secret.error()));
  if (newIdentifier != oldIdentifier) {
    auto taken = identifierTaken(account, newIdentifier);
    if (!taken) return fail(storeError(action, taken.error()));
    if (*taken) {
      return fail(kAccountErrorDomain, kAccountExists, action,
                  fmt::format("An account {} exists already; {} was not changed.", newIdentifier, what));
    }
  }

  change();
  if (account.uniqueIdentifier() == oldIdentifier) return {};
  if (*secret) {
    if (auto moved = account.setTokenSecret(*secret); !moved) {
      undo();
      return fail(storeError(action, moved.error()));
    }
    if (auto* secrets = environment.secretStore()) {
      if (auto deleted = secrets->deletePassword(kPasswordServiceName, oldIdentifier); !deleted) {
        logError(kLogCategory, "Failed to delete the password of {}: {}", oldIdentifier,
                 deleted.error().message());
      }
    }
  }
  resetClient(account);
  return {};
}

}  // namespace

Result<std::shared_ptr<Account>> ensureSmartFoldersAccount(ObjectContext& mainContext) {
  auto found = Account::smartFoldersAccount(mainContext);
  if (!found) return fail(storeError("Failed to look for the smart folders", found.error()));
  if (*found) return *found;
  auto account =
      Account::create(mainContext, kSmartFoldersServiceName, std::nullopt, std::string(kSmartFoldersTitle));
  // The registered service object has made them already; without it they are made here.
  SmartFolderService::addDefaultSmartFolders(*account);
  if (auto saved = mainContext.save(); !saved) {
    return fail(storeError("Failed to create the smart folders", saved.error()));
  }
  logInfo(kLogCategory, "Created the smart folders account");
  return account;
}

Result<int> deleteObsoleteServices(ObjectContext& mainContext) {
  requireMainContext(mainContext, "Deleting obsolete services");
  auto accounts = allAccounts(mainContext);
  if (!accounts) return fail(storeError("Failed to delete obsolete services", accounts.error()));
  int deleted = 0;
  for (const auto& account : *accounts) {
    if (ServiceFactory::hasServiceClass(account->serviceType())) continue;
    const std::string service = account->service().value_or("");
    logInfo(kLogCategory, "Deleting the account of the retired service \"{}\"", service);
    // Its identifier lost the username when its service stopped logging in; it had it before.
    if (const auto username = account->username(); username && !username->empty()) {
      forgetIdentifier(mainContext.environment(), fmt::format("{}:{}", service, *username));
    }
    mainContext.deleteObject(*account);  // the store forgets the bare identifier
    ++deleted;
  }
  if (deleted > 0) {
    if (auto saved = mainContext.save(); !saved) {
      return fail(storeError("Failed to delete obsolete services", saved.error()));
    }
  }
  return deleted;
}

Result<void> migrateAccountPreferences(ObjectContext& mainContext) {
  auto accounts = Account::services(mainContext);
  if (!accounts) return fail(storeError("Failed to prepare the account preferences", accounts.error()));
  auto& defaults = mainContext.environment().defaults();
  for (const auto& account : *accounts) {
    auto& preferences = account->preferences();
    if (hasStoredPreferences(defaults, preferences.identifier())) continue;
    auto migrated = preferences.migrateOldUserDefaults(account->serviceType());
    if (migrated) migrated = preferences.save();
    if (!migrated) return fail(storeError("Failed to prepare the account preferences", migrated.error()));
  }
  return {};
}

Result<void> prepareAccountsAtStartUp(ObjectContext& mainContext) {
  if (auto smart = ensureSmartFoldersAccount(mainContext); !smart) return fail(smart.error());
  if (auto obsolete = deleteObsoleteServices(mainContext); !obsolete) return fail(obsolete.error());
  return migrateAccountPreferences(mainContext);
}

Result<void> setAccountUsername(Account& account, std::optional<std::string> username) {
  const auto oldUsername = account.username();
  const std::string identifier = identifierOf(account.service().value_or(""), username);
  return changeIdentity(
      account, "Failed to change the username", "the username", identifier,
      [&] { account.setUsername(username); }, [&] { account.setUsername(oldUsername); });
}

Result<void> setAccountService(Account& account, const std::string& service) {
  const ServiceType type = serviceTypeWithName(service);
  if (!ServiceFactory::hasServiceClass(type) || type == ServiceType::kSmartFolders) {
    return fail(kAccountErrorDomain, kInvalidAccountSettings, "Failed to change the service",
                fmt::format("\"{}\" is not a service an account can use.", service));
  }
  const auto oldService = account.service();
  return changeIdentity(
      account, "Failed to change the service", "the service", identifierOf(service, account.username()),
      [&] { account.setService(service); }, [&] { account.setService(oldService); });
}

Result<void> deleteAccount(Account& account, const CancelAccountSync& cancelSync) {
  auto& context = account.managedObjectContext();
  requireMainContext(context, "Deleting an account");
  const std::string identifier = account.uniqueIdentifier();
  auto& defaults = context.environment().defaults();
  // Kept to be put back should the library refuse the deletion.
  auto secret = account.tokenSecret();
  if (!secret) return fail(storeError("Failed to delete the account", secret.error()));
  const bool hadPreferences = hasStoredPreferences(defaults, identifier);
  const auto preferences = account.preferences().loadStoredPreferences();

  if (cancelSync) cancelSync(account);
  account.clearAllRequest();
  context.deleteObject(account);
  if (auto saved = context.save(); !saved) {
    logError(kLogCategory, "Failed to delete the account {}: {}", identifier, saved.error().message());
    if (*secret) {
      if (auto* secrets = context.environment().secretStore()) {
        if (auto restored = secrets->setPassword(kPasswordServiceName, identifier, **secret); !restored) {
          logError(kLogCategory, "Failed to put back the password of {}: {}", identifier,
                   restored.error().message());
        }
      }
    }
    if (hadPreferences) {
      auto accounts = defaults.dictionaryForKey(kAccounts);
      if (!accounts.is_object()) accounts = nlohmann::json::object();
      accounts[identifier] = preferences;
      if (auto restored = defaults.setObject(kAccounts, std::move(accounts)); !restored) {
        logError(kLogCategory, "Failed to put back the preferences of {}: {}", identifier,
                 restored.error().message());
      }
    }
    return fail(storeError("Failed to delete the account", saved.error()));
  }
  logInfo(kLogCategory, "Deleted the account {}", identifier);
  return {};
}

}  // namespace lectern
