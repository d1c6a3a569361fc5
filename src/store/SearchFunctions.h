#pragma once

#include "core/Error.h"

struct sqlite3;

namespace lectern {

// Registers on a connection the SQL functions the library's search index and smart-folder queries
// use: lectern_fold(text) (text folded for case and diacritics, NULL stays NULL) and
// lectern_compare(op, options, left, right) (one comparison of the predicate language, 0 or 1).
Result<void> registerSearchFunctions(sqlite3* db);

}  // namespace lectern
