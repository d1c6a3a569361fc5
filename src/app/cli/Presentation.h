#pragma once

// How the `lectern` program shows library objects: terminal lines and --json objects.

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/Clock.h"
#include "core/Error.h"

namespace lectern {
class Account;
class Bookmark;
class Feed;
class Folder;
class ObjectContext;
class OfflineOperation;
}  // namespace lectern

namespace lectern::cli {

// RFC 3339 in UTC, or null.
nlohmann::json jsonDate(const std::optional<Date>& date);
// "2026-11-22 10:01 +0100": local time with its offset, or "" for no date.
std::string shortLocalDate(const std::optional<Date>& date);

// Persisted attribute names as keys, plus `id` (the local id other commands take), `feed`
// (its title) and `account` (its unique identifier).
Result<nlohmann::json> bookmarkJson(Bookmark& bookmark, bool withContent);
// The items as one JSON array (without their content), printed to stdout.
Result<void> printBookmarksJson(const std::vector<std::shared_ptr<Bookmark>>& items);
Result<nlohmann::json> feedJson(Feed& feed);
Result<nlohmann::json> folderJson(Folder& folder);
nlohmann::json accountJson(Account& account);
nlohmann::json offlineOperationJson(OfflineOperation& operation, Account& account);

// The name of a queued operation's code: "star", "unstar", "read", "unread", "delete".
std::string offlineOperationName(int code);

// One line of a list: id, date added, unread and starred marks, feed, title, fitted to the
// terminal's width; bookmarkHeader() names its columns.
std::string bookmarkLine(Bookmark& bookmark);
std::string bookmarkHeader();

// The width lines are fitted to: $COLUMNS when set, else the terminal's, else 80.
size_t terminalColumns();

// Display columns of UTF-8 text (wide characters count two).
size_t displayColumns(std::string_view text);
// Truncates to `width` display columns, with "…" when cut; line breaks and tabs become spaces.
std::string fitColumn(const std::string& text, size_t width);

}  // namespace lectern::cli
