#pragma once

#include "core/Error.h"

struct sqlite3;

namespace lectern {

class SqliteDatabase;

// Registers on a connection the SQL functions the library's search index and smart-folder queries
// use: lectern_fold(text) (text folded for case and diacritics, NULL stays NULL) and
// lectern_compare(op, options, left, right) (one comparison of the predicate language, 0 or 1).
Result<void> registerSearchFunctions(sqlite3* db);

// Indexes the stories the triggers noted since the last call (inserted, retitled, given a new
// preview, deleted) and clears the note. Inside the caller's transaction; nothing to do (and no
// error) for a library without the index.
Result<void> updateSearchIndex(SqliteDatabase& db);

}  // namespace lectern
