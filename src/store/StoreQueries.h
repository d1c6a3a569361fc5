#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "store/BookmarkQuery.h"
#include "store/ObjectContext.h"

namespace lectern {

// Narrows a bookmark fetch as a list asks: unread or starred only, newest date_added first, a limit.
inline void applyBookmarkQuery(ObjectContext::FetchRequest& request, const BookmarkQuery& query) {
  if (query.filter == BookmarkFilter::kUnread) request.where += " AND is_archived = 0";
  if (query.filter == BookmarkFilter::kStarred) request.where += " AND is_favorited = 1";
  if (!query.includeBlocked) request.where += " AND (score IS NULL OR score >= 0)";
  request.orderBy = "date_added DESC, id DESC";
  request.limit = query.limit;
}

// How many rows `request` would fetch without its limit, counted in SQL: a list that says how much
// it leaves out need not load every match.
inline Result<std::int64_t> countOf(ObjectContext& context, const ObjectContext::FetchRequest& request) {
  return context.count(request.entity, request.where, request.arguments);
}

// A list bound as one value and read back in SQL with "IN (SELECT value FROM json_each(?))".
template <class T>
SqlValue jsonList(const std::vector<T>& items) {
  return nlohmann::json(items).dump();
}

}  // namespace lectern
