#include "store/SqliteStatement.h"
#include "core/Strings.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <utility>

namespace lectern {

std::optional<std::string> textOf(const SqlValue& value) {
  if (const auto* text = std::get_if<std::string>(&value)) return *text;
  if (const auto* integer = std::get_if<std::int64_t>(&value)) return std::to_string(*integer);
  if (const auto* real = std::get_if<double>(&value)) return fmt::format("{}", *real);
  return std::nullopt;
}

std::optional<std::int64_t> integerOf(const SqlValue& value) {
  if (const auto* integer = std::get_if<std::int64_t>(&value)) return *integer;
  if (const auto* real = std::get_if<double>(&value)) {
    if (!std::isfinite(*real)) return std::nullopt;
    return static_cast<std::int64_t>(*real);
  }
  if (const auto* text = std::get_if<std::string>(&value)) {
    std::int64_t parsed = 0;
    const auto* end = text->data() + text->size();
    if (std::from_chars(text->data(), end, parsed).ptr == end && !text->empty()) return parsed;
  }
  return std::nullopt;
}

std::optional<double> realOf(const SqlValue& value) {
  if (const auto* real = std::get_if<double>(&value)) return *real;
  if (const auto* integer = std::get_if<std::int64_t>(&value)) return static_cast<double>(*integer);
  if (const auto* text = std::get_if<std::string>(&value)) {
    double parsed = 0;
    const auto* end = text->data() + text->size();
    if (fromChars(text->data(), end, parsed).ptr == end && !text->empty()) return parsed;
  }
  return std::nullopt;
}

std::optional<Date> dateOf(const SqlValue& value) {
  const auto seconds = realOf(value);
  if (!seconds) return std::nullopt;
  return dateFromSecondsSince1970(*seconds);
}

Error sqliteError(sqlite3* db, int code, std::string_view action) {
  // Read first: the failed call's errno, which sqlite3_system_errno does not always keep.
  const int lastErrno = errno;
  const int primary = code & 0xff;
  std::string reason;
  // SQLite says "disk I/O error" for a write refused by a size limit (EFBIG) and "unable to open
  // database file" for a library in a read-only folder: say what a person can act on.
  int systemError = 0;
  if (db != nullptr && (primary == SQLITE_IOERR || primary == SQLITE_CANTOPEN)) {
    systemError = sqlite3_system_errno(db);
    if (systemError == 0) systemError = lastErrno;
  }
  if (primary == SQLITE_BUSY || primary == SQLITE_LOCKED) {
    reason = "the library is busy with another task; try again";
  } else if (primary == SQLITE_FULL || systemError == ENOSPC || systemError == EFBIG || systemError == EDQUOT) {
    reason = "the disk is full (or the library reached the file size limit); free some space and try again";
  } else if (primary == SQLITE_READONLY || systemError == EROFS || systemError == EACCES || systemError == EPERM) {
    reason = "the library can't be written (its file or folder is read-only); check their permissions";
  } else if (db != nullptr && sqlite3_errcode(db) == code) {
    reason = sqlite3_errmsg(db);
  } else {
    reason = sqlite3_errstr(code);
  }
  return Error::make(kStoreErrorDomain, code, fmt::format("{}: {}", action, reason));
}

SqliteStatement::~SqliteStatement() {
  if (statement_ != nullptr) sqlite3_finalize(statement_);
}

SqliteStatement::SqliteStatement(SqliteStatement&& other) noexcept
    : db_(std::exchange(other.db_, nullptr)), statement_(std::exchange(other.statement_, nullptr)) {}

SqliteStatement& SqliteStatement::operator=(SqliteStatement&& other) noexcept {
  if (this != &other) {
    if (statement_ != nullptr) sqlite3_finalize(statement_);
    db_ = std::exchange(other.db_, nullptr);
    statement_ = std::exchange(other.statement_, nullptr);
  }
  return *this;
}

SqliteStatement& SqliteStatement::bind(int index, const SqlValue& value) {
  if (const auto* integer = std::get_if<std::int64_t>(&value)) {
    sqlite3_bind_int64(statement_, index, *integer);
  } else if (const auto* real = std::get_if<double>(&value)) {
    sqlite3_bind_double(statement_, index, *real);
  } else if (const auto* text = std::get_if<std::string>(&value)) {
    sqlite3_bind_text64(statement_, index, text->data(), text->size(), SQLITE_TRANSIENT, SQLITE_UTF8);
  } else {
    sqlite3_bind_null(statement_, index);
  }
  return *this;
}

SqliteStatement& SqliteStatement::bindAll(std::span<const SqlValue> values, int firstIndex) {
  for (size_t i = 0; i < values.size(); ++i) bind(firstIndex + static_cast<int>(i), values[i]);
  return *this;
}

Result<bool> SqliteStatement::step() {
  const int rc = sqlite3_step(statement_);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  Error error = sqliteError(db_, rc, "Failed to run a library query");
  error.userInfo["sql"] = std::string(sql());
  sqlite3_reset(statement_);
  return fail(std::move(error));
}

Result<void> SqliteStatement::run() {
  for (;;) {
    auto more = step();
    if (!more) return fail(more.error());
    if (!*more) return {};
  }
}

void SqliteStatement::reset() {
  if (statement_ == nullptr) return;
  sqlite3_reset(statement_);
  sqlite3_clear_bindings(statement_);
}

int SqliteStatement::columnCount() const { return sqlite3_column_count(statement_); }

SqlValue SqliteStatement::column(int index) const {
  switch (sqlite3_column_type(statement_, index)) {
    case SQLITE_INTEGER:
      return static_cast<std::int64_t>(sqlite3_column_int64(statement_, index));
    case SQLITE_FLOAT:
      return sqlite3_column_double(statement_, index);
    case SQLITE_TEXT:
    case SQLITE_BLOB: {
      const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement_, index));
      const int size = sqlite3_column_bytes(statement_, index);
      return std::string(bytes == nullptr ? "" : std::string_view(bytes, static_cast<size_t>(size)));
    }
    default:
      return SqlValue();
  }
}

std::int64_t SqliteStatement::columnInteger(int index) const {
  return sqlite3_column_int64(statement_, index);
}

std::optional<std::string> SqliteStatement::columnText(int index) const { return textOf(column(index)); }

bool SqliteStatement::columnIsNull(int index) const {
  return sqlite3_column_type(statement_, index) == SQLITE_NULL;
}

SqlRow SqliteStatement::row() const {
  SqlRow values;
  const int count = columnCount();
  values.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) values.push_back(column(i));
  return values;
}

std::string_view SqliteStatement::sql() const {
  const char* text = statement_ == nullptr ? nullptr : sqlite3_sql(statement_);
  return text == nullptr ? std::string_view() : std::string_view(text);
}

}  // namespace lectern
