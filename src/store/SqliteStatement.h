#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "core/Error.h"
#include "store/SqlValue.h"

struct sqlite3;
struct sqlite3_stmt;

namespace lectern {

inline constexpr std::string_view kStoreErrorDomain = "com.quillhq.Lectern.Store";

// Turns a SQLite result code into an Error naming the failed action. SQLITE_BUSY and
// SQLITE_LOCKED never carry SQLite's "database is locked" text: they say the library is busy.
Error sqliteError(sqlite3* db, int code, std::string_view action);

// One prepared statement. Values are always bound, never spliced into the SQL text.
// Used by the thread that owns its connection.
class SqliteStatement {
 public:
  SqliteStatement() = default;
  SqliteStatement(sqlite3* db, sqlite3_stmt* statement) : db_(db), statement_(statement) {}
  ~SqliteStatement();
  SqliteStatement(SqliteStatement&& other) noexcept;
  SqliteStatement& operator=(SqliteStatement&& other) noexcept;
  SqliteStatement(const SqliteStatement&) = delete;
  SqliteStatement& operator=(const SqliteStatement&) = delete;

  // Parameters count from 1, as in SQL.
  SqliteStatement& bind(int index, const SqlValue& value);
  SqliteStatement& bindAll(std::span<const SqlValue> values, int firstIndex = 1);

  // True while a row is available; false when done.
  Result<bool> step();
  // Steps to the end (a statement that returns no rows).
  Result<void> run();
  // Clears the bindings and rewinds. Ends the statement's implicit read transaction.
  void reset();

  int columnCount() const;
  SqlValue column(int index) const;  // from 0
  std::int64_t columnInteger(int index) const;
  std::optional<std::string> columnText(int index) const;
  bool columnIsNull(int index) const;
  SqlRow row() const;

  std::string_view sql() const;
  bool valid() const { return statement_ != nullptr; }

 private:
  sqlite3* db_ = nullptr;
  sqlite3_stmt* statement_ = nullptr;
};

}  // namespace lectern
