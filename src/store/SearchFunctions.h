#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "core/Error.h"

struct sqlite3;

namespace lectern {

class SqliteDatabase;

// Registers on a connection the SQL functions the library's search index and smart-folder queries
// use: lectern_fold(text) (text folded for case and diacritics, NULL stays NULL) and
// lectern_compare(op, options, left, right) (one comparison of the predicate language, 0 or 1).
Result<void> registerSearchFunctions(sqlite3* db);

// Which of the stories the triggers noted an update of the index takes.
struct SearchIndexBatch {
  std::optional<std::int64_t> oldestCount;          // the lowest ids first, this many
  std::optional<std::vector<std::int64_t>> stories;  // only these (those not noted are skipped)

  static SearchIndexBatch all() { return {}; }
  static SearchIndexBatch oldest(std::int64_t count) { return {count, std::nullopt}; }
  static SearchIndexBatch these(std::vector<std::int64_t> ids) { return {std::nullopt, std::move(ids)}; }
};

// Indexes the stories the triggers noted (inserted, retitled, given a new preview, deleted) that
// `batch` names and clears their note. Inside the caller's transaction; answers how many notes it
// cleared (0, and no error, for a library without the index).
Result<std::int64_t> updateSearchIndex(SqliteDatabase& db, const SearchIndexBatch& batch = SearchIndexBatch::all());

// How many stories wait to be indexed (0 for a library without the index).
Result<std::int64_t> storiesAwaitingSearchIndex(SqliteDatabase& db);

}  // namespace lectern
