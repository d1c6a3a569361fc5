#include "store/QKAccountPreferences.h"

#include "core/UserDefaults.h"

namespace lectern {

QKAccountPreferences::QKAccountPreferences(UserDefaults& defaults, std::string identifier)
    : defaults_(defaults), identifier_(std::move(identifier)) {}

const nlohmann::json& QKAccountPreferences::initialValues() {
  static const nlohmann::json values = {
      {"groupIndex", 2},
      {"sortIndex", 0},
      {"autoSyncIntervalIndex", 0},
      {"syncOnStart", true},
      {"refreshOnFeverServer", false},
      {"syncFeverSparks", false},
      {"cacheImages", false},
      {"showOnDock", true},
  };
  return values;
}

nlohmann::json QKAccountPreferences::loadStoredPreferences() const {
  const nlohmann::json accounts = defaults_.dictionaryForKey(kAccounts);
  auto found = accounts.find(identifier_);
  if (found != accounts.end() && found->is_object()) return *found;
  return initialValues();
}

nlohmann::json QKAccountPreferences::valueForKey(std::string_view key) const {
  const nlohmann::json stored = loadStoredPreferences();
  if (auto found = stored.find(key); found != stored.end()) return *found;
  const auto& initial = initialValues();
  if (auto found = initial.find(key); found != initial.end()) return *found;
  return nullptr;
}

std::int64_t QKAccountPreferences::integerForKey(std::string_view key) const {
  const nlohmann::json value = valueForKey(key);
  if (value.is_number()) return value.get<std::int64_t>();
  if (value.is_boolean()) return value.get<bool>() ? 1 : 0;
  return 0;
}

bool QKAccountPreferences::boolForKey(std::string_view key) const {
  const nlohmann::json value = valueForKey(key);
  if (value.is_boolean()) return value.get<bool>();
  if (value.is_number()) return value.get<double>() != 0;
  return false;
}

Result<void> QKAccountPreferences::setValue(std::string_view key, nlohmann::json value) {
  nlohmann::json preferences = loadStoredPreferences();
  preferences[std::string(key)] = std::move(value);
  return store(preferences);
}

Result<void> QKAccountPreferences::save() { return store(loadStoredPreferences()); }

Result<void> QKAccountPreferences::store(const nlohmann::json& preferences) {
  nlohmann::json accounts = defaults_.dictionaryForKey(kAccounts);
  if (!accounts.is_object()) accounts = nlohmann::json::object();
  accounts[identifier_] = preferences;
  return defaults_.setObject(kAccounts, std::move(accounts));
}

Result<void> QKAccountPreferences::remove() {
  nlohmann::json accounts = defaults_.dictionaryForKey(kAccounts);
  if (!accounts.is_object() || !accounts.contains(identifier_)) return {};
  accounts.erase(identifier_);
  return defaults_.setObject(kAccounts, std::move(accounts));
}

Result<void> QKAccountPreferences::setIdentifier(std::string identifier) {
  if (identifier == identifier_) return {};
  nlohmann::json accounts = defaults_.dictionaryForKey(kAccounts);
  if (!accounts.is_object()) accounts = nlohmann::json::object();
  auto found = accounts.find(identifier_);
  if (found != accounts.end()) {
    accounts[identifier] = *found;
    accounts.erase(identifier_);
    identifier_ = std::move(identifier);
    return defaults_.setObject(kAccounts, std::move(accounts));
  }
  identifier_ = std::move(identifier);
  return {};
}

Result<void> QKAccountPreferences::migrateOldUserDefaults(ServiceType type) {
  struct OldKey {
    std::string_view oldKey;
    std::string_view key;
  };
  std::vector<OldKey> keys = {{"BookmarksGroupIndex", "groupIndex"},
                              {"BookmarksSortIndex", "sortIndex"},
                              {"AutoSyncIntervalIndex", "autoSyncIntervalIndex"},
                              {"SyncOnStart", "syncOnStart"}};
  keys.push_back({isFeedService(type) ? "CacheRSSImagesLocally" : "CacheImagesLocally", "cacheImages"});
  if (type == ServiceType::kFever) keys.push_back({"RefreshOnFeverServer", "refreshOnFeverServer"});

  nlohmann::json preferences = loadStoredPreferences();
  bool changed = false;
  for (const auto& [oldKey, key] : keys) {
    if (!defaults_.hasStoredValue(oldKey)) continue;
    preferences[std::string(key)] = defaults_.objectForKey(oldKey);
    changed = true;
  }
  return changed ? store(preferences) : Result<void>();
}

}  // namespace lectern
