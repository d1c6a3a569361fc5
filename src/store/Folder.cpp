#include "store/Folder.h"

#include <fmt/format.h>

#include <array>

#include "store/Account.h"
#include "store/Bookmark.h"
#include "store/ObjectContext.h"
#include "store/ListCounts.h"
#include "store/StoreQueries.h"

namespace lectern {

using namespace FolderColumn;

std::optional<std::string> Folder::title() const { return textValue(kTitle); }
void Folder::setTitle(std::optional<std::string> title) { setText(kTitle, std::move(title)); }
std::int64_t Folder::pos() const { return integerValue(kPos); }
void Folder::setPos(std::int64_t pos) { setInteger(kPos, pos); }
std::optional<std::string> Folder::folder_id() const { return textValue(kFolderId); }
void Folder::setFolder_id(std::optional<std::string> folderId) { setText(kFolderId, std::move(folderId)); }
std::optional<std::string> Folder::ext_id() const { return textValue(kExtId); }
void Folder::setExt_id(std::optional<std::string> extId) { setText(kExtId, std::move(extId)); }

std::optional<ObjectId> Folder::accountID() const {
  const auto row = referenceValue(kAccount);
  return row ? std::optional<ObjectId>(ObjectId{Entity::kAccount, *row}) : std::nullopt;
}

Result<std::shared_ptr<Account>> Folder::account() const {
  const auto id = accountID();
  if (!id) return std::shared_ptr<Account>();
  return managedObjectContext().existingObject<Account>(*id);
}

void Folder::setAccount(const Account& account) { setReference(kAccount, account.objectID().row); }

namespace {
ObjectContext::FetchRequest folderBookmarksRequest(std::int64_t folder, const BookmarkQuery& query) {
  ObjectContext::FetchRequest request;
  request.where = "id IN (SELECT bookmark FROM Folder_bookmarks WHERE folder = ?)";
  request.arguments = {folder};
  applyBookmarkQuery(request, query);
  return request;
}
}  // namespace

Result<std::vector<std::shared_ptr<Bookmark>>> Folder::bookmarks(const BookmarkQuery& query) const {
  return managedObjectContext().fetch<Bookmark>(folderBookmarksRequest(objectID().row, query));
}

void Folder::addBookmark(const Bookmark& bookmark) {
  const SqlValue rows[] = {objectID().row, bookmark.objectID().row};
  managedObjectContext().writeRelationship(
      "INSERT OR IGNORE INTO Folder_bookmarks (folder, bookmark) VALUES (?, ?)", rows, objectID(),
      bookmark.objectID());
  bookmarkCount_.reset();
}

void Folder::removeBookmark(const Bookmark& bookmark) {
  const SqlValue rows[] = {objectID().row, bookmark.objectID().row};
  managedObjectContext().writeRelationship("DELETE FROM Folder_bookmarks WHERE folder = ? AND bookmark = ?",
                                           rows, objectID(), bookmark.objectID());
  bookmarkCount_.reset();
}

Result<bool> Folder::containsBookmark(const Bookmark& bookmark) const {
  const SqlValue rows[] = {objectID().row, bookmark.objectID().row};
  auto found =
      managedObjectContext().select("SELECT 1 FROM Folder_bookmarks WHERE folder = ? AND bookmark = ?", rows);
  if (!found) return fail(found.error());
  return !found->empty();
}

Result<std::vector<std::shared_ptr<Bookmark>>> Folder::readerItems(const BookmarkQuery& query) const {
  return bookmarks(query);
}

Result<std::int64_t> countFolderBookmarks(const Folder& folder, const BookmarkQuery& query) {
  return countOf(folder.managedObjectContext(), folderBookmarksRequest(folder.objectID().row, query));
}

Result<std::int64_t> Folder::readerUnreadCount() const { return unreadCount(); }

Result<std::int64_t> Folder::unreadCount() const {
  return managedObjectContext().count(
      Entity::kBookmark, "is_archived = 0 AND id IN (SELECT bookmark FROM Folder_bookmarks WHERE folder = ?)",
      {objectID().row});
}

Result<std::int64_t> Folder::bookmarkCount() {
  if (!bookmarkCount_) {
    auto counted = unreadCount();
    if (!counted) return counted;
    bookmarkCount_ = *counted;
  }
  return *bookmarkCount_;
}

void Folder::adjustBookmarkCount(std::int64_t delta) {
  if (bookmarkCount_) bookmarkCount_ = std::max<std::int64_t>(0, *bookmarkCount_ + delta);
}

std::string Folder::iconName() const {
  static constexpr std::array<std::string_view, 11> kIconIds = {
      "smart-stream", "sparks",  "hot",     "private", "shared", "unread",
      "archive",      "starred", "article", "video",   "image"};
  const auto id = folder_id();
  for (auto known : kIconIds) {
    if (id && *id == known) return fmt::format("{}Template", known);
  }
  return "folderTemplate";
}

}  // namespace lectern
