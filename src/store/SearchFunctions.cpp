#include "store/SearchFunctions.h"

#include <sqlite3.h>

#include <nlohmann/json.hpp>

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

namespace {

Result<bool> hasSearchIndex(SqliteDatabase& db) {
  auto present = db.selectOne("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'StorySearchPending'");
  if (!present) return fail(present.error());
  return present->has_value();
}

}  // namespace

Result<std::int64_t> storiesAwaitingSearchIndex(SqliteDatabase& db) {
  auto present = hasSearchIndex(db);
  if (!present) return fail(present.error());
  if (!*present) return 0;
  auto count = db.selectOne("SELECT count(*) FROM StorySearchPending");
  if (!count) return fail(count.error());
  return *count ? integerOf((**count)[0]).value_or(0) : 0;
}

Result<std::int64_t> updateSearchIndex(SqliteDatabase& db, const SearchIndexBatch& batch) {
  auto present = hasSearchIndex(db);
  if (!present) return fail(present.error());
  if (!*present) return 0;
  if (batch.stories && batch.stories->empty()) return 0;
  auto pending = db.selectOne("SELECT 1 FROM StorySearchPending LIMIT 1");
  if (!pending) return fail(pending.error());
  if (!*pending) return 0;
  // The batch is copied once, so that the three statements agree on it.
  if (auto done = db.execute("CREATE TEMP TABLE IF NOT EXISTS SearchBatch (id INTEGER PRIMARY KEY)"); !done) {
    return fail(done.error());
  }
  if (auto done = db.execute("DELETE FROM temp.SearchBatch"); !done) return fail(done.error());
  Result<void> chosen;
  if (batch.stories) {
    const SqlValue ids[] = {nlohmann::json(*batch.stories).dump()};
    chosen = db.execute(
        "INSERT OR IGNORE INTO temp.SearchBatch SELECT id FROM StorySearchPending"
        " WHERE id IN (SELECT value FROM json_each(?))",
        ids);
  } else if (batch.oldestCount) {
    const SqlValue count[] = {*batch.oldestCount};
    chosen = db.execute("INSERT INTO temp.SearchBatch SELECT id FROM StorySearchPending ORDER BY id LIMIT ?", count);
  } else {
    chosen = db.execute("INSERT INTO temp.SearchBatch SELECT id FROM StorySearchPending");
  }
  if (!chosen) return fail(chosen.error());
  for (std::string_view sql : {
           "DELETE FROM StorySearch WHERE rowid IN (SELECT id FROM temp.SearchBatch)",
           "INSERT INTO StorySearch(rowid, title, preview_text)"
           " SELECT Bookmark.id, lectern_fold(Bookmark.title), lectern_fold(Content.preview_text)"
           " FROM temp.SearchBatch JOIN Bookmark ON Bookmark.id = SearchBatch.id"
           " LEFT JOIN Content ON Content.bookmark = Bookmark.id",
           "DELETE FROM StorySearchPending WHERE id IN (SELECT id FROM temp.SearchBatch)",
       }) {
    if (auto done = db.execute(sql); !done) return fail(done.error());
  }
  auto cleared = db.selectOne("SELECT count(*) FROM temp.SearchBatch");
  if (!cleared) return fail(cleared.error());
  const std::int64_t count = *cleared ? integerOf((**cleared)[0]).value_or(0) : 0;
  if (auto done = db.execute("DELETE FROM temp.SearchBatch"); !done) return fail(done.error());
  return count;
}

}  // namespace lectern
