#pragma once

#include <cstdint>
#include <optional>

namespace lectern {

enum class BookmarkFilter { kAll, kUnread, kStarred };

// What a list of bookmarks shows: all, unread only or starred only, newest date_added first,
// at most `limit` of them.
struct BookmarkQuery {
  BookmarkFilter filter = BookmarkFilter::kAll;
  std::optional<std::int64_t> limit;
};

}  // namespace lectern
