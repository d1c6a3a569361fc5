#include "store/SqliteDatabase.h"

#include <sqlite3.h>

#include <utility>

#include "store/SearchFunctions.h"

namespace lectern {

SqliteDatabase::Lease::Lease(SqliteStatement owned)
    : owned_(std::make_unique<SqliteStatement>(std::move(owned))), statement_(owned_.get()) {}

SqliteDatabase::Lease::~Lease() {
  if (statement_ == nullptr) return;
  statement_->reset();
  if (inUse_ != nullptr) *inUse_ = false;
}

SqliteDatabase::Lease::Lease(Lease&& other) noexcept
    : owned_(std::move(other.owned_)),
      statement_(std::exchange(other.statement_, nullptr)),
      inUse_(std::exchange(other.inUse_, nullptr)) {}

Result<std::unique_ptr<SqliteDatabase>> SqliteDatabase::open(const std::filesystem::path& path, OpenMode mode,
                                                             std::chrono::milliseconds busyTimeout) {
  int flags = SQLITE_OPEN_NOMUTEX;  // each connection stays on one thread at a time
  switch (mode) {
    case OpenMode::kReadOnly:
      flags |= SQLITE_OPEN_READONLY;
      break;
    case OpenMode::kReadWrite:
      flags |= SQLITE_OPEN_READWRITE;
      break;
    case OpenMode::kReadWriteCreate:
      flags |= SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
      break;
  }
  sqlite3* db = nullptr;
  const int rc = sqlite3_open_v2(path.c_str(), &db, flags, nullptr);
  if (rc != SQLITE_OK) {
    Error error = sqliteError(db, rc, "Failed to open the library (" + path.string() + ")");
    sqlite3_close_v2(db);
    return fail(std::move(error));
  }
  sqlite3_extended_result_codes(db, 1);
  sqlite3_busy_timeout(db, static_cast<int>(busyTimeout.count()));
  // The search index's triggers and smart-folder queries call these on every connection.
  if (auto registered = registerSearchFunctions(db); !registered) {
    sqlite3_close_v2(db);
    return fail(registered.error());
  }
  return std::unique_ptr<SqliteDatabase>(new SqliteDatabase(db, path));
}

SqliteDatabase::~SqliteDatabase() {
  cache_.clear();  // statements are finalised before the connection closes
  if (db_ != nullptr) {
    if (sqlite3_get_autocommit(db_) == 0) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close_v2(db_);
  }
}

Result<SqliteDatabase::Lease> SqliteDatabase::prepare(std::string_view sql) {
  auto found = cache_.find(std::string(sql));
  if (found != cache_.end() && !found->second->inUse) {
    found->second->inUse = true;
    return Lease(&found->second->statement, &found->second->inUse);
  }
  sqlite3_stmt* raw = nullptr;
  const int rc = sqlite3_prepare_v3(db_, sql.data(), static_cast<int>(sql.size()),
                                    found == cache_.end() ? SQLITE_PREPARE_PERSISTENT : 0, &raw, nullptr);
  if (rc != SQLITE_OK) {
    Error error = sqliteError(db_, rc, "Failed to prepare a library query");
    error.userInfo["sql"] = std::string(sql);
    return fail(std::move(error));
  }
  SqliteStatement statement(db_, raw);
  if (found != cache_.end()) return Lease(std::move(statement));  // nested use: a private copy
  auto entry = std::make_unique<CachedStatement>();
  entry->statement = std::move(statement);
  entry->inUse = true;
  auto* cached = entry.get();
  cache_.emplace(std::string(sql), std::move(entry));
  return Lease(&cached->statement, &cached->inUse);
}

Result<void> SqliteDatabase::execute(std::string_view sql) {
  char* message = nullptr;
  const std::string text(sql);
  const int rc = sqlite3_exec(db_, text.c_str(), nullptr, nullptr, &message);
  if (rc == SQLITE_OK) return {};
  Error error = sqliteError(db_, rc, "Failed to update the library");
  if (message != nullptr) sqlite3_free(message);
  error.userInfo["sql"] = text;
  return fail(std::move(error));
}

Result<void> SqliteDatabase::execute(std::string_view sql, std::span<const SqlValue> arguments) {
  auto statement = prepare(sql);
  if (!statement) return fail(statement.error());
  (*statement)->bindAll(arguments);
  return (*statement)->run();
}

Result<std::optional<SqlRow>> SqliteDatabase::selectOne(std::string_view sql,
                                                        std::span<const SqlValue> arguments) {
  auto statement = prepare(sql);
  if (!statement) return fail(statement.error());
  (*statement)->bindAll(arguments);
  auto row = (*statement)->step();
  if (!row) return fail(row.error());
  if (!*row) return std::optional<SqlRow>();
  return std::optional<SqlRow>((*statement)->row());
}

Result<std::vector<SqlRow>> SqliteDatabase::selectAll(std::string_view sql,
                                                      std::span<const SqlValue> arguments) {
  auto statement = prepare(sql);
  if (!statement) return fail(statement.error());
  (*statement)->bindAll(arguments);
  std::vector<SqlRow> rows;
  for (;;) {
    auto row = (*statement)->step();
    if (!row) return fail(row.error());
    if (!*row) break;
    rows.push_back((*statement)->row());
  }
  return rows;
}

std::int64_t SqliteDatabase::lastInsertRowId() const { return sqlite3_last_insert_rowid(db_); }

int SqliteDatabase::changes() const { return sqlite3_changes(db_); }

bool SqliteDatabase::isInTransaction() const { return sqlite3_get_autocommit(db_) == 0; }

Result<void> SqliteDatabase::beginImmediate() { return execute("BEGIN IMMEDIATE"); }

Result<void> SqliteDatabase::beginDeferred() { return execute("BEGIN DEFERRED"); }

Result<void> SqliteDatabase::commit() { return execute("COMMIT"); }

void SqliteDatabase::rollback() {
  if (isInTransaction()) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
}

Result<Transaction> Transaction::begin(SqliteDatabase& db, Kind kind) {
  auto begun = kind == Kind::kImmediate ? db.beginImmediate() : db.beginDeferred();
  if (!begun) return fail(begun.error());
  return Transaction(db);
}

Transaction::~Transaction() {
  if (open_ && db_ != nullptr) db_->rollback();
}

Transaction::Transaction(Transaction&& other) noexcept
    : db_(std::exchange(other.db_, nullptr)), open_(std::exchange(other.open_, false)) {}

Result<void> Transaction::commit() {
  auto committed = db_->commit();
  if (committed) open_ = false;
  return committed;
}

}  // namespace lectern
