#include "accounts/AccountCommands.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "accounts/AccountErrors.h"
#include "accounts/ServiceBase.h"
#include "accounts/ServiceFactory.h"
#include "core/MainQueue.h"
#include "core/Log.h"
#include "core/SecretStore.h"
#include "core/Strings.h"
#include "net/URL.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/ObjectContext.h"
#include "store/QKAccountPreferences.h"
#include "store/StoreEnvironment.h"

namespace lectern {

namespace {

constexpr std::string_view kLogCategory = "Account";
constexpr std::string_view kAddAccountFailed = "Failed to add account";

// The services an account can be created for, by type.
std::string creatableServices() {
  std::vector<std::string> names;
  for (int type = 0; type <= static_cast<int>(ServiceType::kFeedly); ++type) {
    const auto serviceType = static_cast<ServiceType>(type);
    if (!ServiceFactory::hasServiceClass(serviceType) || serviceType == ServiceType::kSmartFolders) continue;
    names.push_back(serviceNameWithType(serviceType).value());
  }
  return join(names, ", ");
}

std::unexpected<Error> refuse(int code, std::string_view reason) {
  return fail(kAccountErrorDomain, code, kAddAccountFailed, reason);
}

std::optional<std::string> nonEmpty(const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  std::string trimmed = trim(*text);
  if (trimmed.empty()) return std::nullopt;
  return trimmed;
}

bool isWebAddress(std::string_view text) {
  const auto url = URL::parse(text);
  if (!url || !url->isAbsolute() || !url->hasAuthority() || url->host().empty()) return false;
  const std::string scheme = toLowerASCII(url->scheme());
  return scheme == "http" || scheme == "https";
}

std::optional<bool> parseFlag(std::string_view text) {
  const std::string word = toLowerASCII(trim(text));
  if (word == "yes" || word == "true" || word == "on" || word == "1") return true;
  if (word == "no" || word == "false" || word == "off" || word == "0") return false;
  return std::nullopt;
}

std::optional<std::int64_t> parseInteger(std::string_view text) {
  const std::string trimmed = trim(text);
  std::int64_t number = 0;
  const char* end = trimmed.data() + trimmed.size();
  const auto [stop, error] = std::from_chars(trimmed.data(), end, number);
  if (trimmed.empty() || error != std::errc() || stop != end) return std::nullopt;
  return number;
}

}  // namespace

Result<std::shared_ptr<Account>> createAccount(ObjectContext& mainContext, const NewAccount& request) {
  if (!mainContext.isMainContext()) throw InternalInconsistency("Accounts are created on the main context");
  const std::string service = trim(request.service);
  const ServiceType type = serviceTypeWithName(service);
  if (type == ServiceType::kSmartFolders) {
    return refuse(kInvalidAccountSettings, "The smart folders account is made by Lectern itself.");
  }
  if (!ServiceFactory::hasServiceClass(type)) {
    return refuse(kInvalidAccountSettings,
                  fmt::format("Unknown service: \"{}\". Services: {}.", service, creatableServices()));
  }
  const std::string_view name = serviceDescriptionName(type);
  const auto username = nonEmpty(request.username);
  if (canLogin(type) && !username)
    return refuse(kInvalidAccountSettings, fmt::format("{} needs a username.", name));
  if (!canLogin(type) && username)
    return refuse(kInvalidAccountSettings, fmt::format("{} takes no username.", name));
  if (!canLogin(type) && request.password) {
    return refuse(kInvalidAccountSettings, fmt::format("{} takes no password.", name));
  }
  const auto endpoint = nonEmpty(request.endpoint);
  if (endpoint && !isWebAddress(*endpoint)) {
    return refuse(kInvalidAccountSettings, fmt::format("\"{}\" is not an http or https address.", *endpoint));
  }

  auto accounts = Account::services(mainContext);
  if (!accounts) return refuse(kStoreFailed, accounts.error().message());
  const std::string identifier = canLogin(type) ? fmt::format("{}:{}", service, *username) : service;
  std::int64_t pos = 0;
  for (const auto& account : *accounts) {
    if (account->uniqueIdentifier() == identifier) {
      return refuse(kAccountExists, fmt::format("The account {} exists already.", identifier));
    }
    pos = std::max(pos, account->pos() + 1);
  }

  auto account =
      Account::create(mainContext, service, username, nonEmpty(request.title).value_or(std::string(name)));
  account->setPos(pos);
  account->setApi_endpoint(endpoint);
  if (request.refreshToken) account->setToken(request.refreshToken);
  if (request.tokenExpire) account->setToken_expire(request.tokenExpire);
  if (request.password) {
    if (auto stored = account->setTokenSecret(*request.password); !stored) {
      mainContext.rollback();
      return refuse(kStoreFailed, stored.error().message());
    }
  }
  // Stored now, so that start-up never seeds it from an older version's settings.
  auto preferences = account->preferences().save();
  auto saved = preferences ? mainContext.save() : Result<void>(fail(preferences.error()));
  if (!saved) {
    mainContext.rollback();
    if (auto* secrets = mainContext.environment().secretStore(); secrets && request.password) {
      (void)secrets->deletePassword(kPasswordServiceName, identifier);
    }
    (void)QKAccountPreferences(mainContext.environment().defaults(), identifier).remove();
    return refuse(kStoreFailed, saved.error().message());
  }
  logInfo(kLogCategory, "Added the account {}", identifier);
  return account;
}

void addAccount(ObjectContext& mainContext, const NewAccount& request,
                std::function<void(Result<std::shared_ptr<Account>>)> onCompleted) {
  auto& mainQueue = mainContext.environment().mainQueue();
  auto account = createAccount(mainContext, request);
  if (!account) {
    if (onCompleted) mainQueue.post([onCompleted, error = account.error()] { onCompleted(fail(error)); });
    return;
  }
  auto service = serviceObjectOf<ServiceBase>(**account);
  if (!service) {
    if (onCompleted) mainQueue.post([onCompleted, added = *account] { onCompleted(added); });
    return;
  }
  service->authenticate([added = *account, onCompleted](std::optional<Error> error) {
    if (error) {
      // A wrong password leaves nothing behind: no account, no stored password, no preferences.
      if (auto removed = deleteAccount(*added); !removed) {
        logError(kLogCategory, "Failed to remove the account {} again: {}", added->uniqueIdentifier(),
                 removed.error().message());
      }
      if (onCompleted) onCompleted(fail(*error));
      return;
    }
    if (onCompleted) onCompleted(added);
  });
}

Result<std::vector<AccountSummary>> listAccounts(ObjectContext& context) {
  auto accounts = Account::services(context);
  if (!accounts) return fail(accounts.error());
  std::vector<AccountSummary> summaries;
  summaries.reserve(accounts->size());
  for (const auto& account : *accounts) {
    AccountSummary summary;
    summary.localId = account->objectID().row;
    summary.uniqueIdentifier = account->uniqueIdentifier();
    summary.service = account->service().value_or("");
    summary.title = account->title().value_or("");
    summary.username = account->username();
    summary.last_sync = account->last_sync();
    if (account->hasError()) summary.syncError = account->syncErrorDescription();
    summaries.push_back(std::move(summary));
  }
  return summaries;
}

Result<std::shared_ptr<Account>> findAccount(ObjectContext& context, std::string_view name) {
  auto accounts = Account::services(context);
  if (!accounts)
    return fail(kAccountErrorDomain, kStoreFailed, "Failed to find the account", accounts.error().message());
  std::vector<std::shared_ptr<Account>> ofService;
  for (const auto& account : *accounts) {
    if (account->uniqueIdentifier() == name) return account;
    if (account->service() == name) ofService.push_back(account);
  }
  if (ofService.size() == 1) return ofService.front();
  if (ofService.empty()) {
    return fail(kAccountErrorDomain, kNoSuchAccount, "Failed to find the account",
                fmt::format("No account is called \"{}\".", name));
  }
  std::vector<std::string> identifiers;
  for (const auto& account : ofService) identifiers.push_back(account->uniqueIdentifier());
  return fail(kAccountErrorDomain, kAmbiguousAccount, "Failed to find the account",
              fmt::format("Several accounts use {}: {}. Name one of them.", name, join(identifiers, ", ")));
}

Result<void> removeAccount(ObjectContext& mainContext, std::string_view name,
                           const CancelAccountSync& cancelSync) {
  auto account = findAccount(mainContext, name);
  if (!account) return fail(account.error());
  return deleteAccount(**account, cancelSync);
}

Result<KeptArticles> removeAccount(ObjectContext& mainContext, std::string_view name, StarredArticles starred,
                                   const CancelAccountSync& cancelSync) {
  auto account = findAccount(mainContext, name);
  if (!account) return fail(account.error());
  auto articles = (*account)->bookmarks();
  if (!articles) return fail(kAccountErrorDomain, kStoreFailed, "Failed to remove the account", articles.error().message());
  if (starred == StarredArticles::kKeep && (*account)->serviceType() == ServiceType::kLocalRSS) {
    const auto count = std::count_if(articles->begin(), articles->end(),
                                     [](const auto& article) { return article->is_favorited(); });
    if (count > 0) {
      return fail(kAccountErrorDomain, kStarredWouldBeLost, "Failed to remove the account",
                  fmt::format("The built-in reader keeps the starred articles of removed feeds and accounts, and "
                              "it holds {} starred article{} itself. Remove them with it with --with-starred.",
                              count, count == 1 ? "" : "s"));
    }
  }
  auto kept = keepStarredArticles(mainContext, *articles, starred);
  if (!kept) return fail(kAccountErrorDomain, kStoreFailed, "Failed to remove the account", kept.error().message());
  // One save takes the account and brings the kept copies: a failing one keeps the library as it was.
  if (auto removed = deleteAccount(**account, cancelSync); !removed) {
    discardKeptArticles(mainContext, *kept);
    return fail(removed.error());
  }
  return kept;
}

Result<nlohmann::json> setAccountPreference(Account& account, std::string_view key, std::string_view value) {
  const std::string name = trim(key);
  if (name.empty()) {
    return fail(kAccountErrorDomain, kInvalidPreferenceValue, "Failed to set the preference",
                "A preference needs a name.");
  }
  nlohmann::json stored;
  const auto& initial = QKAccountPreferences::initialValues();
  if (auto known = initial.find(name); known != initial.end()) {
    if (known->is_boolean()) {
      const auto flag = parseFlag(value);
      if (!flag) {
        return fail(kAccountErrorDomain, kInvalidPreferenceValue, "Failed to set the preference",
                    fmt::format("\"{}\" takes yes or no, not \"{}\".", name, value));
      }
      stored = *flag;
    } else {
      const auto number = parseInteger(value);
      if (!number) {
        return fail(kAccountErrorDomain, kInvalidPreferenceValue, "Failed to set the preference",
                    fmt::format("\"{}\" takes a whole number, not \"{}\".", name, value));
      }
      stored = *number;
    }
  } else if (const auto number = parseInteger(value)) {
    stored = *number;
  } else if (const auto flag = parseFlag(value)) {
    stored = *flag;
  } else {
    stored = std::string(value);
  }
  if (auto saved = account.preferences().setValue(name, stored); !saved) {
    return fail(kAccountErrorDomain, kStoreFailed, "Failed to set the preference", saved.error().message());
  }
  return stored;
}

}  // namespace lectern
