#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "store/ManagedObject.h"

namespace lectern {

// A media file attached to a feed story. Deleted with its story. Lives in one context.
class FeedEnclosure final : public ManagedObject {
 public:
  static constexpr Entity kEntity = Entity::kFeedEnclosure;
  FeedEnclosure(Key, ObjectContext& context, ObjectId id) : ManagedObject(context, id) {}

  std::optional<std::string> url() const;
  void setUrl(std::optional<std::string> url);
  std::optional<std::string> type() const;
  void setType(std::optional<std::string> type);
  std::optional<std::int64_t> length() const;
  void setLength(std::optional<std::int64_t> length);
  std::optional<ObjectId> feedstoryID() const;
  void setFeedstoryRow(std::int64_t storyRow);
};

}  // namespace lectern
