#pragma once

#include <optional>
#include <string>

#include "store/ManagedObject.h"

namespace lectern {

// The large text of a bookmark, kept apart so that lists load small rows only. Deleted with its
// bookmark. Lives in one context.
class Content final : public ManagedObject {
 public:
  static constexpr Entity kEntity = Entity::kContent;
  Content(Key, ObjectContext& context, ObjectId id) : ManagedObject(context, id) {}

  std::optional<std::string> html() const;
  void setHtml(std::optional<std::string> html);
  std::optional<std::string> preview_text() const;
  void setPreview_text(std::optional<std::string> previewText);
  std::optional<ObjectId> bookmarkID() const;
  void setBookmarkRow(std::int64_t bookmarkRow);
};

}  // namespace lectern
