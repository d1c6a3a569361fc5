#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "core/Error.h"

namespace lectern {

// Global preference keys.
inline constexpr std::string_view kConcurrentSyncOperationsIndex = "ConcurrentSyncOperationsIndex";
inline constexpr std::string_view kDaysKeepFeedReadItemsIndex = "DaysKeepFeedReadItemsIndex";
inline constexpr std::string_view kBookmarkCountDisplayIndex = "BookmarkCountDisplayIndex";
inline constexpr std::string_view kNotificationCenterIndex = "NotificationCenterIndex";
// The desktop window's article view: "system" (follow the desktop), "light", "dark" or "sepia";
// a font family ("" for the desktop's); a font size in pixels.
inline constexpr std::string_view kArticleTheme = "articleTheme";
inline constexpr std::string_view kArticleFontFamily = "articleFontFamily";
inline constexpr std::string_view kArticleFontSize = "articleFontSize";
inline constexpr std::string_view kNewsblurApiEndpoint = "newsblurApiEndpoint";
inline constexpr std::string_view kAccounts = "Accounts";  // per-account dictionaries by identifier

// The user's preferences: stored values over registered defaults, kept in one JSON document that
// is rewritten atomically after every change. Thread-safe; observers run on the changing thread.
class UserDefaults {
 public:
  using Observer = std::function<void(std::string_view key)>;

  // An empty path keeps everything in memory. A file that is not a JSON object is moved aside
  // ("<file>.corrupt") with a log line, and the defaults are used.
  explicit UserDefaults(std::filesystem::path file = {});

  // Registered values answer for keys that hold no stored value; they are never written.
  void registerDefaults(const nlohmann::json& defaults);

  // The stored value, else the registered one, else null.
  nlohmann::json objectForKey(std::string_view key) const;
  bool hasStoredValue(std::string_view key) const;
  // Typed reads convert where it is obvious (numbers <-> booleans, numeric strings) and answer
  // 0 / false / "" / an empty object otherwise.
  bool boolForKey(std::string_view key) const;
  std::int64_t integerForKey(std::string_view key) const;
  double doubleForKey(std::string_view key) const;
  std::string stringForKey(std::string_view key) const;
  nlohmann::json dictionaryForKey(std::string_view key) const;

  // Each write is persisted before it returns; a failure to write is logged and returned.
  Result<void> setObject(std::string_view key, nlohmann::json value);
  Result<void> setBool(std::string_view key, bool value) { return setObject(key, value); }
  Result<void> setInteger(std::string_view key, std::int64_t value) { return setObject(key, value); }
  Result<void> setDouble(std::string_view key, double value) { return setObject(key, value); }
  Result<void> setString(std::string_view key, std::string_view value) { return setObject(key, std::string(value)); }
  Result<void> removeObject(std::string_view key);

  // Observes one key ("" observes every key). Returns a token for removeObserver.
  int addObserver(std::string_view key, Observer observer);
  void removeObserver(int token);

  const std::filesystem::path& file() const { return file_; }

 private:
  Result<void> persistLocked() const;
  void notify(std::string_view key);

  const std::filesystem::path file_;
  mutable std::mutex mutex_;  // guards stored_, registered_, observers_, nextToken_
  nlohmann::json stored_ = nlohmann::json::object();
  nlohmann::json registered_ = nlohmann::json::object();
  std::map<int, std::pair<std::string, Observer>> observers_;
  int nextToken_ = 1;
};

// Registers the global keys with their defaults.
void registerLecternDefaults(UserDefaults& defaults);

// What a preference key holds, for `lectern config`.
enum class DefaultKind { kIndex, kCount, kBoolean, kText, kAddress, kDictionary };
// One value of an index key and what it means ("7 days").
struct DefaultChoice {
  std::int64_t value;
  std::string_view meaning;
};
struct KnownDefault {
  std::string_view key;
  DefaultKind kind;
  std::string_view meaning;
  std::span<const DefaultChoice> choices;  // kIndex only
};

// Every preference key Lectern reads, in the order `lectern config list` shows them.
std::span<const KnownDefault> knownDefaults();
// The key's entry, or nullptr for a key Lectern does not read.
const KnownDefault* knownDefault(std::string_view key);
// What `value` means for an index key ("7 days"); "" when it is not an index or not a choice.
std::string_view defaultValueMeaning(const KnownDefault& known, const nlohmann::json& value);
// `text` (as typed on a command line) turned into the value `known` holds; the error says which
// values the key takes.
Result<nlohmann::json> parseDefaultValue(const KnownDefault& known, std::string_view text);

// Writes `contents` to `path` through a temporary file in the same folder and a rename, so a
// reader never sees half a file. `mode` sets the permissions of the new file.
Result<void> writeFileAtomically(const std::filesystem::path& path, std::string_view contents,
                                 std::filesystem::perms mode = std::filesystem::perms::owner_read |
                                                              std::filesystem::perms::owner_write |
                                                              std::filesystem::perms::group_read |
                                                              std::filesystem::perms::others_read);

}  // namespace lectern
