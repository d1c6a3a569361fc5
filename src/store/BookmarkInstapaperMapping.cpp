// How Instapaper's bookmark objects become bookmarks, and the `have` list that tells Instapaper
// what the library holds. Values come as numbers or text, whatever the answer's form.
#include <fmt/format.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <regex>

#include "core/Log.h"
#include "core/Strings.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/EntitySchema.h"
#include "store/Folder.h"

namespace lectern {
namespace {

constexpr std::string_view kLogCategory = "Bookmark";
// What the library keeps for "no progress known".
constexpr double kNoProgress = -1;

std::optional<double> numberValue(const nlohmann::json& item, std::string_view key) {
  const auto text = safeStringValue(item, key);
  if (!text) return std::nullopt;
  const auto number = nlohmann::json::parse(trimView(*text), nullptr, /*allow_exceptions=*/false);
  if (!number.is_number()) return std::nullopt;
  const double value = number.get<double>();
  return std::isfinite(value) ? std::optional<double>(value) : std::nullopt;
}

std::optional<Date> secondsValue(const nlohmann::json& item, std::string_view key) {
  const auto seconds = numberValue(item, key);
  return seconds ? std::optional<Date>(dateFromSecondsSince1970(*seconds)) : std::nullopt;
}

std::string withoutLeadingWhiteSpace(const std::string& text) {
  static const std::regex leading("^\\s*");
  return std::regex_replace(text, leading, "", std::regex_constants::format_first_only);
}

}  // namespace

bool Bookmark::isValidForInstapaperMapping(const nlohmann::json& item) {
  if (!item.is_object()) return false;
  const auto id = safeStringValue(item, "bookmark_id");
  return id && !trimView(*id).empty();
}

void Bookmark::mapFromInstapaperDictionary(const nlohmann::json& item) {
  setBookmark_id(safeStringValue(item, "bookmark_id"));
  setBookmark_hash(safeStringValue(item, "hash"));
  const auto url = safeStringValue(item, "url");
  const std::string title = withoutLeadingWhiteSpace(safeStringValue(item, "title").value_or(""));
  setTitle(title.empty() ? url : std::optional<std::string>(title));
  setUrl(url);
  setProgress(numberValue(item, "progress").value_or(kNoProgress));
  setDate_updated(secondsValue(item, "progress_timestamp"));
  if (auto added = secondsValue(item, "time")) setDate_added(added);
  setIs_favorited(safeBoolValue(item, "starred"));
  // Archived means lying in the archive folder; the folders were set before the mapping.
  bool archived = false;
  if (auto owner = account(); owner && *owner) {
    if (auto archive = (*owner)->archiveFolder(); archive && *archive) {
      archived = isInFolder(**archive).value_or(false);
    }
  } else {
    logError(kLogCategory, "Instapaper mapping of a bookmark without an account");
  }
  setBool(BookmarkColumn::kIsArchived, archived);
}

std::string Bookmark::instapaperHaveEntry() const {
  std::string entry = bookmark_id().value_or("");
  if (const auto hash = bookmark_hash(); hash && !hash->empty()) entry += fmt::format(":{}", *hash);
  if (progress() != kNoProgress) {
    const auto seconds = date_updated() ? static_cast<std::int64_t>(secondsSince1970(*date_updated())) : 0;
    entry += fmt::format(":{:f}:{}", progress(), seconds);
  }
  return entry;
}

std::string Bookmark::instapaperHaveString(const std::vector<std::shared_ptr<Bookmark>>& bookmarks) {
  std::vector<std::string> entries;
  entries.reserve(bookmarks.size());
  for (const auto& bookmark : bookmarks) {
    if (bookmark && bookmark->bookmark_id()) entries.push_back(bookmark->instapaperHaveEntry());
  }
  return join(entries, ",");
}

}  // namespace lectern
