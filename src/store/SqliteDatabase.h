#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/Error.h"
#include "store/SqlValue.h"
#include "store/SqliteStatement.h"

struct sqlite3;

namespace lectern {

// One SQLite connection with its cache of prepared statements.
// Owned by one thread at a time (a context's thread, or a migration step).
class SqliteDatabase {
 public:
  enum class OpenMode { kReadOnly, kReadWrite, kReadWriteCreate };

  // A statement lent from the cache; reset, with its bindings cleared, when the lease ends.
  class Lease {
   public:
    Lease(SqliteStatement* cached, bool* inUse) : statement_(cached), inUse_(inUse) {}
    explicit Lease(SqliteStatement owned);
    ~Lease();
    Lease(Lease&& other) noexcept;
    Lease& operator=(Lease&&) = delete;
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;

    SqliteStatement* operator->() { return statement_; }
    SqliteStatement& operator*() { return *statement_; }

   private:
    std::unique_ptr<SqliteStatement> owned_;
    SqliteStatement* statement_ = nullptr;
    bool* inUse_ = nullptr;
  };

  // `busyTimeout` is how long a statement waits for another connection's write lock.
  static Result<std::unique_ptr<SqliteDatabase>> open(const std::filesystem::path& path, OpenMode mode,
                                                      std::chrono::milliseconds busyTimeout);
  ~SqliteDatabase();
  SqliteDatabase(const SqliteDatabase&) = delete;
  SqliteDatabase& operator=(const SqliteDatabase&) = delete;

  // Prepared once per connection and kept. A statement already lent out (a nested use of the
  // same SQL) is prepared afresh for the second user.
  Result<Lease> prepare(std::string_view sql);
  // Statements without parameters, several separated by ";" allowed (schema, pragmas).
  Result<void> execute(std::string_view sql);
  // One statement with bound values.
  Result<void> execute(std::string_view sql, std::span<const SqlValue> arguments);
  Result<std::optional<SqlRow>> selectOne(std::string_view sql, std::span<const SqlValue> arguments = {});
  Result<std::vector<SqlRow>> selectAll(std::string_view sql, std::span<const SqlValue> arguments = {});

  std::int64_t lastInsertRowId() const;
  int changes() const;
  bool isInTransaction() const;
  // BEGIN IMMEDIATE: takes the write lock now, waiting up to the busy timeout for it.
  Result<void> beginImmediate();
  Result<void> beginDeferred();
  Result<void> commit();
  void rollback();

  const std::filesystem::path& path() const { return path_; }
  sqlite3* handle() const { return db_; }

 private:
  SqliteDatabase(sqlite3* db, std::filesystem::path path) : db_(db), path_(std::move(path)) {}

  struct CachedStatement {
    SqliteStatement statement;
    bool inUse = false;
  };

  sqlite3* db_ = nullptr;
  std::filesystem::path path_;
  std::unordered_map<std::string, std::unique_ptr<CachedStatement>> cache_;
};

// A transaction that rolls back when it goes out of scope without commit().
class Transaction {
 public:
  enum class Kind { kDeferred, kImmediate };
  static Result<Transaction> begin(SqliteDatabase& db, Kind kind);
  ~Transaction();
  Transaction(Transaction&& other) noexcept;
  Transaction& operator=(Transaction&&) = delete;
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  Result<void> commit();

 private:
  explicit Transaction(SqliteDatabase& db) : db_(&db) {}
  SqliteDatabase* db_;
  bool open_ = true;
};

}  // namespace lectern
