#include "app/cli/Presentation.h"

#include <ctime>

#include <fmt/format.h>

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
  std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M", &local);
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
      {"syncError", nullptr},
  };
  if (const auto& error = account.syncError()) {
    out["syncError"] = {{"description", error->description}, {"recoverySuggestion", error->recoverySuggestion}};
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

std::string bookmarkLine(Bookmark& bookmark) {
  std::string source;
  if (auto* story = dynamic_cast<FeedStory*>(&bookmark)) {
    if (auto feed = story->feed(); feed && *feed) source = (*feed)->title().value_or("");
  }
  const std::string flags = std::string(bookmark.is_archived() ? " " : "•") + (bookmark.is_favorited() ? "★" : " ");
  return fmt::format("{:>7}  {:16}  {}  {:20}  {}", bookmark.objectID().row, shortLocalDate(bookmark.date_added()),
                     flags, fitColumn(source, 20), bookmark.title().value_or("(untitled)"));
}

std::string fitColumn(const std::string& text, size_t width) {
  std::string out;
  size_t columns = 0;
  for (size_t i = 0; i < text.size();) {
    const auto c = static_cast<unsigned char>(text[i]);
    const size_t length = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 1;
    if (columns + 1 > width || (columns + 1 == width && i + length < text.size())) {
      out += "…";
      return out;
    }
    const char ch = text[i];
    out.append(text, i, length);
    if (ch == '\n' || ch == '\t' || ch == '\r') out.back() = ' ';
    ++columns;
    i += length;
  }
  return out;
}

}  // namespace lectern::cli
