#include "app/cli/Presentation.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>

#include <fmt/format.h>

#include "app/text/ArticleText.h"
#include "core/Dates.h"
#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/Feed.h"
#include "store/FeedFolder.h"
#include "store/FeedStory.h"
#include "store/Folder.h"
#include "store/OfflineOperation.h"

namespace lectern::cli {

using nlohmann::json;

namespace {

json optionalString(const std::optional<std::string>& value) { return value ? json(*value) : json(nullptr); }

}  // namespace

json jsonDate(const std::optional<Date>& date) { return date ? json(rfc3339String(*date)) : json(nullptr); }

std::string shortLocalDate(const std::optional<Date>& date) {
  if (!date) return {};
  const std::time_t seconds = std::chrono::system_clock::to_time_t(*date);
  std::tm local{};
  localtime_r(&seconds, &local);
  char buffer[32];
  std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M %z", &local);
  return buffer;
}

Result<json> bookmarkJson(Bookmark& bookmark, bool withContent) {
  json out = {
      {"id", bookmark.objectID().row},
      {"bookmark_id", optionalString(bookmark.bookmark_id())},
      {"bookmark_hash", optionalString(bookmark.bookmark_hash())},
      {"title", optionalString(bookmark.title())},
      {"url", optionalString(bookmark.url())},
      {"tags", optionalString(bookmark.tags())},
      {"date_added", jsonDate(bookmark.date_added())},
      {"date_updated", jsonDate(bookmark.date_updated())},
      {"is_archived", bookmark.is_archived()},
      {"is_favorited", bookmark.is_favorited()},
      {"is_shared", bookmark.is_shared()},
      {"is_opened", bookmark.is_opened()},
      {"progress", bookmark.progress()},
      {"author", nullptr},
      {"permalink", nullptr},
      {"feed", nullptr},
  };
  auto account = bookmark.account();
  if (!account) return fail(account.error());
  out["account"] = *account ? json((*account)->uniqueIdentifier()) : json(nullptr);
  if (auto* story = dynamic_cast<FeedStory*>(&bookmark)) {
    out["author"] = optionalString(story->author());
    out["permalink"] = optionalString(story->permalink());
    auto feed = story->feed();
    if (!feed) return fail(feed.error());
    if (*feed) out["feed"] = optionalString((*feed)->title());
  }
  if (withContent) {
    auto html = bookmark.html();
    if (!html) return fail(html.error());
    auto preview = bookmark.preview_text();
    if (!preview) return fail(preview.error());
    out["html"] = optionalString(*html);
    out["preview_text"] = optionalString(*preview);
  }
  return out;
}

Result<void> printBookmarksJson(const std::vector<std::shared_ptr<Bookmark>>& items) {
  json out = json::array();
  for (const auto& item : items) {
    auto object = bookmarkJson(*item, /*withContent=*/false);
    if (!object) return fail(object.error());
    out.push_back(std::move(*object));
  }
  fmt::print("{}\n", out.dump(2));
  return {};
}

Result<json> feedJson(Feed& feed) {
  auto unread = feed.unreadCount();
  if (!unread) return fail(unread.error());
  auto folder = feed.firstFolder();
  if (!folder) return fail(folder.error());
  auto account = feed.account();
  if (!account) return fail(account.error());
  return json{
      {"id", feed.objectID().row},
      {"title", optionalString(feed.title())},
      {"url", optionalString(feed.URL())},
      {"feed_link", optionalString(feed.feed_link())},
      {"folder_id", optionalString(feed.folder_id())},
      {"folder", *folder ? optionalString((*folder)->title()) : json(nullptr)},
      {"account", *account ? json((*account)->uniqueIdentifier()) : json(nullptr)},
      {"unread", *unread},
      {"date_updated", jsonDate(feed.date_updated())},
      {"last_refresh", jsonDate(feed.last_refresh())},
      {"last_error", optionalString(feed.last_error())},
      {"failing_since", jsonDate(feed.failing_since())},
  };
}

Result<json> folderJson(Folder& folder) {
  auto unread = folder.readerUnreadCount();
  if (!unread) return fail(unread.error());
  auto account = folder.account();
  if (!account) return fail(account.error());
  return json{
      {"id", folder.objectID().row},
      {"title", optionalString(folder.title())},
      {"folder_id", optionalString(folder.folder_id())},
      {"kind", folder.folderTypeIdentifier()},
      {"pos", folder.pos()},
      {"account", *account ? json((*account)->uniqueIdentifier()) : json(nullptr)},
      {"unread", *unread},
  };
}

json accountJson(Account& account) {
  json out = {
      {"id", account.objectID().row},
      {"account", account.uniqueIdentifier()},
      {"service", optionalString(account.service())},
      {"username", optionalString(account.username())},
      {"title", optionalString(account.title())},
      {"api_endpoint", optionalString(account.api_endpoint())},
      {"last_sync", jsonDate(account.last_sync())},
      {"sync_error", nullptr},
  };
  if (const auto& error = account.syncError()) {
    out["sync_error"] = {{"description", error->description}, {"recovery_suggestion", error->recoverySuggestion}};
  }
  return out;
}

std::string offlineOperationName(int code) {
  switch (static_cast<OfflineOperationType>(code)) {
    case OfflineOperationType::kStar: return "star";
    case OfflineOperationType::kUnstar: return "unstar";
    case OfflineOperationType::kMarkRead: return "read";
    case OfflineOperationType::kMarkUnread: return "unread";
    case OfflineOperationType::kDelete: return "delete";
    default: return fmt::format("code {}", code);
  }
}

json offlineOperationJson(OfflineOperation& operation, Account& account) {
  return json{
      {"id", operation.objectID().row},
      {"type", static_cast<int>(operation.type())},
      {"operation", offlineOperationName(static_cast<int>(operation.type()))},
      {"bookmark_id", optionalString(operation.bookmark_id())},
      {"feed_id", optionalString(operation.feed_id())},
      {"created_at", jsonDate(operation.created_at())},
      {"account", account.uniqueIdentifier()},
  };
}

namespace {

// Widths of the list columns: the feed gets a fifth of what is left after id, date and marks,
// the title the rest.
struct ListColumns {
  size_t feed;
  size_t title;
};

ListColumns listColumns() {
  constexpr size_t kFixed = 7 + 2 + 10 + 2 + 2 + 2 + 2;  // id, date, marks and the gaps
  const size_t rest = std::max<size_t>(terminalColumns(), kFixed + 30) - kFixed;
  const size_t feed = std::clamp<size_t>(rest / 5, 8, 24);
  return {feed, rest - feed};
}

}  // namespace

std::string bookmarkLine(Bookmark& bookmark) {
  std::string source;
  if (auto* story = dynamic_cast<FeedStory*>(&bookmark)) {
    if (auto feed = story->feed(); feed && *feed) source = (*feed)->title().value_or("");
  }
  const std::string flags = std::string(bookmark.is_archived() ? " " : "•") + (bookmark.is_favorited() ? "★" : " ");
  const ListColumns columns = listColumns();
  return fmt::format("{:>7}  {:10}  {}  {:{}}  {}", bookmark.objectID().row, relativeDate(bookmark.date_added()),
                     flags, fitColumn(source, columns.feed), columns.feed,
                     fitColumn(bookmark.title().value_or("(untitled)"), columns.title));
}

std::string bookmarkHeader() {
  const ListColumns columns = listColumns();
  return fmt::format("{:>7}  {:10}  {}  {:{}}  {}", "ID", "ADDED", "  ", "FEED", columns.feed, "TITLE");
}

size_t terminalColumns() {
  if (const char* columns = std::getenv("COLUMNS"); columns != nullptr) {
    const long value = std::strtol(columns, nullptr, 10);
    if (value >= 20 && value <= 1000) return static_cast<size_t>(value);
  }
  winsize size{};
  if (::isatty(STDOUT_FILENO) == 1 && ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col >= 20) {
    return size.ws_col;
  }
  return 80;
}

size_t displayColumns(std::string_view text) { return displayWidth(text); }

std::string fitColumn(const std::string& text, size_t width) {
  std::string flat = text;
  std::replace_if(flat.begin(), flat.end(), [](char c) { return c == '\n' || c == '\t' || c == '\r'; }, ' ');
  return fitToWidth(flat, width);
}

}  // namespace lectern::cli
