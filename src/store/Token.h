#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/Error.h"
#include "store/ManagedObject.h"

namespace lectern {

class Account;
class Bookmark;

// A tag of a tag-capable account (Pinboard, Pocket), linked to the bookmarks that carry it.
// Lives in one context.
class Token final : public ManagedObject {
 public:
  static constexpr Entity kEntity = Entity::kToken;
  static constexpr std::string_view kFolderId = "01-tag-generic";
  static constexpr std::string_view kIconName = "tagTemplate";
  Token(Key, ObjectContext& context, ObjectId id) : ManagedObject(context, id) {}

  std::optional<std::string> title() const;
  void setTitle(std::optional<std::string> title);
  std::optional<ObjectId> accountID() const;
  void setAccount(const Account& account);

  Result<std::vector<std::shared_ptr<Bookmark>>> bookmarks() const;
  void addBookmark(const Bookmark& bookmark);
  void removeBookmark(const Bookmark& bookmark);
  Result<std::int64_t> bookmarkCount() const;

  std::string folder_id() const { return std::string(kFolderId); }
  std::string icon() const { return std::string(kIconName); }
};

}  // namespace lectern
