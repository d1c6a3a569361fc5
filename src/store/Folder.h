#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/Error.h"
#include "store/BookmarkQuery.h"
#include "store/ManagedObject.h"

namespace lectern {

class Account;
class Bookmark;

// A sidebar container of an account (built-in folders such as "unread", service folders), and
// the base of FeedFolder, Feed and SmartFolder. Lives in one context.
class Folder : public ManagedObject {
 public:
  static constexpr Entity kEntity = Entity::kFolder;
  Folder(Key, ObjectContext& context, ObjectId id) : ManagedObject(context, id) {}

  std::optional<std::string> title() const;
  void setTitle(std::optional<std::string> title);
  std::int64_t pos() const;
  void setPos(std::int64_t pos);
  std::optional<std::string> folder_id() const;
  void setFolder_id(std::optional<std::string> folderId);
  std::optional<std::string> ext_id() const;
  void setExt_id(std::optional<std::string> extId);

  std::optional<ObjectId> accountID() const;
  Result<std::shared_ptr<Account>> account() const;
  void setAccount(const Account& account);

  // Memberships (many-to-many: removing detaches, never deletes).
  Result<std::vector<std::shared_ptr<Bookmark>>> bookmarks(const BookmarkQuery& query = {}) const;
  void addBookmark(const Bookmark& bookmark);
  void removeBookmark(const Bookmark& bookmark);
  Result<bool> containsBookmark(const Bookmark& bookmark) const;
  // What a reader shows for the folder, and how many of those are unread: its members here; a
  // folder of feeds adds its feeds' stories, which belong to their feed and not to the folder.
  virtual Result<std::vector<std::shared_ptr<Bookmark>>> readerItems(const BookmarkQuery& query = {}) const;
  virtual Result<std::int64_t> readerUnreadCount() const;

  // Bookmarks with is_archived == NO (a feed counts its stories).
  virtual Result<std::int64_t> unreadCount() const;
  // The count shown on the badge: the unread count, cached; feeds adjust it as stories change.
  Result<std::int64_t> bookmarkCount();
  void adjustBookmarkCount(std::int64_t delta);

  // "Folder", "FeedFolder", "Feed"; smart folders answer their own.
  virtual std::string folderTypeIdentifier() const { return "Folder"; }
  // "<folder_id>Template" for the built-in ids, else "folderTemplate".
  virtual std::string iconName() const;

 protected:
  void didRefresh() override { bookmarkCount_.reset(); }

 private:
  std::optional<std::int64_t> bookmarkCount_;
};

}  // namespace lectern
