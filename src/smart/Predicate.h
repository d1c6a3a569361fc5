#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "core/Error.h"

namespace lectern {

inline constexpr std::string_view kPredicateErrorDomain = "com.quillhq.Lectern.Predicate";

// A moment, kept apart from plain numbers so that the text form can say "this is a date".
// Compares as its number of seconds since 1970.
struct DateValue {
  double seconds = 0;
  bool operator==(const DateValue&) const = default;
};

// A value a predicate compares: nil, a boolean, a number, a date, a text or a list of values.
struct Value {
  std::variant<std::monostate, bool, double, DateValue, std::string, std::vector<Value>> data;

  Value() = default;
  Value(bool b) : data(b) {}
  Value(double d) : data(d) {}
  Value(int i) : data(static_cast<double>(i)) {}
  Value(std::int64_t i) : data(static_cast<double>(i)) {}
  Value(DateValue d) : data(d) {}
  Value(std::string s) : data(std::move(s)) {}
  Value(const char* s) : data(std::string(s)) {}
  Value(std::vector<Value> list) : data(std::move(list)) {}

  bool isNil() const { return std::holds_alternative<std::monostate>(data); }
  bool isText() const { return std::holds_alternative<std::string>(data); }
  bool isList() const { return std::holds_alternative<std::vector<Value>>(data); }
  // Booleans, numbers and dates compare as numbers.
  bool isNumeric() const;
  std::optional<double> number() const;
  const std::string* text() const { return std::get_if<std::string>(&data); }
  const std::vector<Value>* list() const { return std::get_if<std::vector<Value>>(&data); }

  bool operator==(const Value&) const = default;
};

// The left or right side of a comparison.
struct Expression {
  enum class Kind {
    kConstant,  // `constant`
    kKeyPath,   // `keyPath`: "title", "content.preview_text", "folders.title", "folders.@count"
    kSelf,      // the evaluated object itself (its identity)
    kFunction,  // `function` applied to `arguments`: "now", "castObject:toType:", "from:subtract:", "add:to:"
  };
  Kind kind = Kind::kConstant;
  Value constant;
  std::string keyPath;
  std::string function;
  std::vector<Expression> arguments;

  static Expression ofConstant(Value value);
  static Expression ofKeyPath(std::string path);
  static Expression ofSelf();
  static Expression ofFunction(std::string name, std::vector<Expression> arguments);

  // True when no key path or SELF appears anywhere inside: the value is known before any object.
  bool isObjectIndependent() const;

  bool operator==(const Expression&) const = default;
};

enum class ComparisonOperator {
  kEqual,
  kNotEqual,
  kLess,
  kLessOrEqual,
  kGreater,
  kGreaterOrEqual,
  kContains,
  kBeginsWith,
  kEndsWith,
  kLike,
  kIn,
  kBetween,
};

// What a comparison does with a to-many left side: each element (ANY), every element (ALL), or
// the key path's value as it is (direct; a to-many path is then taken as ANY).
enum class ComparisonModifier { kDirect, kAny, kAll };

// The [c] (case) and [d] (diacritics) options of a text comparison.
struct ComparisonOptions {
  bool caseInsensitive = false;
  bool diacriticInsensitive = false;
  bool operator==(const ComparisonOptions&) const = default;
};

struct Predicate {
  enum class Kind { kTrue, kFalse, kComparison, kAnd, kOr, kNot };
  Kind kind = Kind::kTrue;

  // A comparison.
  ComparisonModifier modifier = ComparisonModifier::kDirect;
  ComparisonOperator op = ComparisonOperator::kEqual;
  ComparisonOptions options;
  Expression left;
  Expression right;

  // AND and OR: two or more; NOT: exactly one.
  std::vector<Predicate> subpredicates;

  static Predicate comparison(Expression left, ComparisonOperator op, Expression right,
                              ComparisonOptions options = {},
                              ComparisonModifier modifier = ComparisonModifier::kDirect);
  static Predicate andOf(std::vector<Predicate> parts);
  static Predicate orOf(std::vector<Predicate> parts);
  static Predicate notOf(Predicate part);
  static Predicate truePredicate() { return Predicate{}; }

  bool isCompound() const { return kind == Kind::kAnd || kind == Kind::kOr || kind == Kind::kNot; }

  bool operator==(const Predicate&) const = default;
};

// Arguments that fill "%@" (a value) and "%K" (a key path, given as text) in order.
using PredicateArguments = std::vector<Value>;

// Reads predicate text. A text that cannot be read fails with an error naming the character
// position (counted from 1) and what was expected there.
Result<Predicate> parsePredicate(std::string_view text, const PredicateArguments& arguments = {});

// Writes predicate text that parses back to the same predicate (without arguments).
std::string formatPredicate(const Predicate& predicate);
std::string formatExpression(const Expression& expression);
std::string formatValue(const Value& value);

std::string_view operatorText(ComparisonOperator op);

}  // namespace lectern
