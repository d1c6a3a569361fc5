#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "core/Error.h"
#include "store/ServiceIdentifiers.h"

namespace lectern {

class UserDefaults;

// One account's preferences: a dictionary in the "Accounts" user default under its unique identifier,
// read and written straight through, so every context's copy agrees. Used on the main thread.
class QKAccountPreferences {
 public:
  // initWithAccount: the account's unique identifier.
  QKAccountPreferences(UserDefaults& defaults, std::string identifier);

  static const nlohmann::json& initialValues();

  const std::string& identifier() const { return identifier_; }
  // The stored dictionary, else a copy of the initial values.
  nlohmann::json loadStoredPreferences() const;

  // valueForUndefinedKey: the stored value, else the initial value, else null.
  nlohmann::json valueForKey(std::string_view key) const;
  std::int64_t integerForKey(std::string_view key) const;
  bool boolForKey(std::string_view key) const;
  // setValue:forUndefinedKey: stores the value and saves at once.
  Result<void> setValue(std::string_view key, nlohmann::json value);

  Result<void> save();
  Result<void> remove();
  // Moves the stored entry to `identifier` (the account's service or username changed).
  Result<void> setIdentifier(std::string identifier);
  // Seeds the preferences from the global keys of older versions, when they exist.
  Result<void> migrateOldUserDefaults(ServiceType type);

 private:
  Result<void> store(const nlohmann::json& preferences);

  UserDefaults& defaults_;
  std::string identifier_;
};

}  // namespace lectern
