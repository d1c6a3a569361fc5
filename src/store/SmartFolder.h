#pragma once

#include <optional>
#include <string>

#include "store/Folder.h"

namespace lectern {

// A saved query over the library, its predicate kept as predicate-format text (evaluated by the
// smart-folder module). Lives in one context.
class SmartFolder final : public Folder {
 public:
  static constexpr Entity kEntity = Entity::kSmartFolder;
  SmartFolder(Key key, ObjectContext& context, ObjectId id) : Folder(key, context, id) {}

  std::optional<std::string> predicate() const;
  void setPredicate(std::optional<std::string> predicate);
  bool showNotification() const;
  void setShowNotification(bool show);
  std::int64_t badgeIndex() const;
  void setBadgeIndex(std::int64_t index);
  std::int64_t groupIndex() const;
  void setGroupIndex(std::int64_t index);
  std::int64_t sortIndex() const;
  void setSortIndex(std::int64_t index);

  std::string folderTypeIdentifier() const override { return "SmartFolder"; }
  std::string iconName() const override { return "smartFolderTemplate"; }
};

}  // namespace lectern
