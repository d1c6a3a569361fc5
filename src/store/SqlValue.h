#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "core/Clock.h"

namespace lectern {

// One SQLite value as the store reads and binds it: NULL, an integer, a real or text.
// Booleans are integers 0/1; dates are reals holding seconds since 1970.
using SqlValue = std::variant<std::monostate, std::int64_t, double, std::string>;
using SqlRow = std::vector<SqlValue>;

inline bool isNull(const SqlValue& value) { return std::holds_alternative<std::monostate>(value); }

inline SqlValue sqlText(const std::optional<std::string>& text) {
  return text ? SqlValue(*text) : SqlValue();
}
inline SqlValue sqlDate(const std::optional<Date>& date) {
  return date ? SqlValue(secondsSince1970(*date)) : SqlValue();
}

// Conversions that accept what SQLite's type affinity may hand back (an integer where a real
// was stored, a numeric text ...).
std::optional<std::string> textOf(const SqlValue& value);
std::optional<std::int64_t> integerOf(const SqlValue& value);
std::optional<double> realOf(const SqlValue& value);
std::optional<Date> dateOf(const SqlValue& value);

}  // namespace lectern
