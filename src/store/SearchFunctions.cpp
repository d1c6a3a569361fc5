#include "store/SearchFunctions.h"

#include <sqlite3.h>

#include "store/SqliteDatabase.h"

#include "smart/PredicateEvaluator.h"
#include "smart/SqlCompiler.h"
#include "smart/TextMatching.h"

namespace lectern {

namespace {

std::string_view textOfValue(sqlite3_value* value) {
  const auto* bytes = reinterpret_cast<const char*>(sqlite3_value_text(value));
  return bytes == nullptr ? std::string_view() : std::string_view(bytes, static_cast<size_t>(sqlite3_value_bytes(value)));
}

Value predicateValueOf(sqlite3_value* value) {
  switch (sqlite3_value_type(value)) {
    case SQLITE_NULL: return Value();
    case SQLITE_INTEGER: return static_cast<double>(sqlite3_value_int64(value));
    case SQLITE_FLOAT: return sqlite3_value_double(value);
    default: return std::string(textOfValue(value));
  }
}

void foldFunction(sqlite3_context* context, int, sqlite3_value** argv) {
  if (sqlite3_value_type(argv[0]) == SQLITE_NULL) {
    sqlite3_result_null(context);
    return;
  }
  const std::string folded = foldForSearch(textOfValue(argv[0]));
  sqlite3_result_text(context, folded.data(), static_cast<int>(folded.size()), SQLITE_TRANSIENT);
}

void compareFunction(sqlite3_context* context, int, sqlite3_value** argv) {
  const auto op = operatorFromCode(sqlite3_value_int(argv[0]));
  if (!op) {
    sqlite3_result_error(context, "lectern_compare: unknown operator", -1);
    return;
  }
  const ComparisonOptions options = optionsFromCode(sqlite3_value_int(argv[1]));
  sqlite3_result_int(context, compareValues(*op, options, predicateValueOf(argv[2]), predicateValueOf(argv[3])) ? 1 : 0);
}

}  // namespace

Result<void> registerSearchFunctions(sqlite3* db) {
  constexpr int kFlags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
  int rc = sqlite3_create_function_v2(db, std::string(kFoldFunction).c_str(), 1, kFlags, nullptr, foldFunction,
                                      nullptr, nullptr, nullptr);
  if (rc == SQLITE_OK) {
    rc = sqlite3_create_function_v2(db, std::string(kCompareFunction).c_str(), 4, kFlags, nullptr, compareFunction,
                                    nullptr, nullptr, nullptr);
  }
  if (rc != SQLITE_OK) {
    return fail(kLecternErrorDomain, rc, "Failed to prepare the library's search functions", sqlite3_errmsg(db));
  }
  return {};
}

Result<void> updateSearchIndex(SqliteDatabase& db) {
  auto present = db.selectOne("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'StorySearchPending'");
  if (!present) return fail(present.error());
  if (!*present) return {};
  auto pending = db.selectOne("SELECT 1 FROM StorySearchPending LIMIT 1");
  if (!pending) return fail(pending.error());
  if (!*pending) return {};
  for (std::string_view sql : {
           "DELETE FROM StorySearch WHERE rowid IN (SELECT id FROM StorySearchPending)",
           "INSERT INTO StorySearch(rowid, title, preview_text)"
           " SELECT Bookmark.id, lectern_fold(Bookmark.title), lectern_fold(Content.preview_text)"
           " FROM StorySearchPending JOIN Bookmark ON Bookmark.id = StorySearchPending.id"
           " LEFT JOIN Content ON Content.bookmark = Bookmark.id",
           "DELETE FROM StorySearchPending",
       }) {
    if (auto done = db.execute(sql); !done) return done;
  }
  return {};
}

}  // namespace lectern
