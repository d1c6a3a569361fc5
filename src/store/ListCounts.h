#pragma once

#include <cstdint>

#include "core/Error.h"
#include "store/BookmarkQuery.h"

namespace lectern {

class Account;
class Feed;
class Folder;

// How many items a list of `query` holds without its limit, counted in SQL: a list that says how
// much it leaves out ("50 of 599") loads one page, not every match. Each agrees with its list
// (`Account::bookmarks`, `Feed::stories`, `Folder::readerItems`), unsaved changes included.
Result<std::int64_t> countBookmarks(Account& account, const BookmarkQuery& query);
Result<std::int64_t> countStories(const Feed& feed, const BookmarkQuery& query);
Result<std::int64_t> countReaderItems(const Folder& folder, const BookmarkQuery& query);
// A folder's own members (`Folder::bookmarks`).
Result<std::int64_t> countFolderBookmarks(const Folder& folder, const BookmarkQuery& query);

}  // namespace lectern
