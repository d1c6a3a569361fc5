#pragma once

#include <cstdint>
#include <optional>

namespace lectern {

enum class BookmarkFilter { kAll, kUnread, kStarred };

// What a list of bookmarks shows: all, unread only or starred only, newest date_added first,
// at most `limit` of them; without `includeBlocked`, none of the stories the person trained
// away at their service (a negative intelligence score).
struct BookmarkQuery {
  BookmarkFilter filter = BookmarkFilter::kAll;
  std::optional<std::int64_t> limit;
  bool includeBlocked = true;
};

}  // namespace lectern
