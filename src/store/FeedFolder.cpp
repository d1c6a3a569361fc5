#include "store/FeedFolder.h"

#include <fmt/format.h>

#include "core/Log.h"
#include "core/Strings.h"
#include "store/Feed.h"
#include "store/Bookmark.h"
#include "store/ObjectContext.h"
#include "store/ListCounts.h"
#include "store/StoreQueries.h"

namespace lectern {

bool FeedFolder::is_expanded() const { return boolValue(FolderColumn::kIsExpanded); }
void FeedFolder::setIs_expanded(bool expanded) { setBool(FolderColumn::kIsExpanded, expanded); }

Result<std::vector<std::shared_ptr<Feed>>> FeedFolder::feeds() const {
  ObjectContext::FetchRequest request;
  request.where = "id IN (SELECT feed FROM FeedFolder_feeds WHERE feedfolder = ?)";
  request.arguments = {objectID().row};
  request.orderBy = "pos, title COLLATE NOCASE, id";
  return managedObjectContext().fetch<Feed>(std::move(request));
}

void FeedFolder::addFeed(const Feed& feed) {
  const SqlValue rows[] = {objectID().row, feed.objectID().row};
  managedObjectContext().writeRelationship(
      "INSERT OR IGNORE INTO FeedFolder_feeds (feedfolder, feed) VALUES (?, ?)", rows, objectID(),
      feed.objectID());
}

void FeedFolder::removeFeed(const Feed& feed) {
  const SqlValue rows[] = {objectID().row, feed.objectID().row};
  managedObjectContext().writeRelationship("DELETE FROM FeedFolder_feeds WHERE feedfolder = ? AND feed = ?",
                                           rows, objectID(), feed.objectID());
}

namespace {
// The stories of the folder's feeds, and whatever a service filed in the folder itself.
constexpr std::string_view kFolderItems =
    "(feed IN (SELECT feed FROM FeedFolder_feeds WHERE feedfolder = ?) OR id IN (SELECT bookmark FROM "
    "Folder_bookmarks WHERE folder = ?))";

ObjectContext::FetchRequest folderItemsRequest(std::int64_t folder, const BookmarkQuery& query) {
  ObjectContext::FetchRequest request;
  request.where = std::string(kFolderItems);
  request.arguments = {folder, folder};
  applyBookmarkQuery(request, query);
  return request;
}
}  // namespace

Result<std::vector<std::shared_ptr<Bookmark>>> FeedFolder::readerItems(const BookmarkQuery& query) const {
  // A feed is a folder of feeds too, but its stories point at it directly.
  if (entity() != Entity::kFeedFolder) return Folder::readerItems(query);
  return managedObjectContext().fetch<Bookmark>(folderItemsRequest(objectID().row, query));
}

Result<std::int64_t> countReaderItems(const Folder& folder, const BookmarkQuery& query) {
  // As readerItems: a folder of feeds holds its feeds' stories, any other folder its members.
  if (folder.entity() != Entity::kFeedFolder) return countFolderBookmarks(folder, query);
  return countOf(folder.managedObjectContext(), folderItemsRequest(folder.objectID().row, query));
}

Result<std::int64_t> FeedFolder::readerUnreadCount() const {
  if (entity() != Entity::kFeedFolder) return Folder::readerUnreadCount();
  return managedObjectContext().count(Entity::kBookmark, fmt::format("is_archived = 0 AND {}", kFolderItems),
                                      {objectID().row, objectID().row});
}

std::vector<std::string> FeedFolder::titlePath() const {
  const std::string whole = title().value_or("");
  if (whole.empty()) return {};
  return split(whole, kPathSeparator);
}

std::string FeedFolder::titleOfLastComponent() const {
  const std::string whole = title().value_or("");
  const auto cut = whole.rfind(kPathSeparator);
  return cut == std::string::npos ? whole : whole.substr(cut + kPathSeparator.size());
}

std::optional<std::string> FeedFolder::titleOfParentComponent() const {
  const std::string whole = title().value_or("");
  const auto cut = whole.rfind(kPathSeparator);
  if (cut == std::string::npos) return std::nullopt;
  return whole.substr(0, cut);
}

std::string FeedFolder::appendTitleToPath(std::string_view child) const {
  return title().value_or("") + std::string(kPathSeparator) + std::string(child);
}

Result<void> FeedFolder::deleteFolder(FeedFolder& folder) {
  auto& context = folder.managedObjectContext();
  context.deleteObject(folder);
  auto saved = context.save();
  if (!saved) logError("FeedFolder", "Cannot delete folder. Error description: {}", saved.error().message());
  return saved;
}

}  // namespace lectern
