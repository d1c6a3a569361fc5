#include "smart/Predicate.h"

#include <fmt/format.h>

#include <cmath>

namespace lectern {

bool Value::isNumeric() const {
  return std::holds_alternative<bool>(data) || std::holds_alternative<double>(data) ||
         std::holds_alternative<DateValue>(data);
}

std::optional<double> Value::number() const {
  if (const auto* b = std::get_if<bool>(&data)) return *b ? 1.0 : 0.0;
  if (const auto* d = std::get_if<double>(&data)) return *d;
  if (const auto* date = std::get_if<DateValue>(&data)) return date->seconds;
  return std::nullopt;
}

Expression Expression::ofConstant(Value value) {
  Expression e;
  e.kind = Kind::kConstant;
  e.constant = std::move(value);
  return e;
}

Expression Expression::ofKeyPath(std::string path) {
  Expression e;
  e.kind = Kind::kKeyPath;
  e.keyPath = std::move(path);
  return e;
}

Expression Expression::ofSelf() {
  Expression e;
  e.kind = Kind::kSelf;
  return e;
}

Expression Expression::ofFunction(std::string name, std::vector<Expression> arguments) {
  Expression e;
  e.kind = Kind::kFunction;
  e.function = std::move(name);
  e.arguments = std::move(arguments);
  return e;
}

bool Expression::isObjectIndependent() const {
  if (kind == Kind::kKeyPath || kind == Kind::kSelf) return false;
  for (const auto& argument : arguments) {
    if (!argument.isObjectIndependent()) return false;
  }
  return true;
}

Predicate Predicate::comparison(Expression left, ComparisonOperator op, Expression right,
                                ComparisonOptions options, ComparisonModifier modifier) {
  Predicate p;
  p.kind = Kind::kComparison;
  p.left = std::move(left);
  p.op = op;
  p.right = std::move(right);
  p.options = options;
  p.modifier = modifier;
  return p;
}

Predicate Predicate::andOf(std::vector<Predicate> parts) {
  Predicate p;
  p.kind = Kind::kAnd;
  p.subpredicates = std::move(parts);
  return p;
}

Predicate Predicate::orOf(std::vector<Predicate> parts) {
  Predicate p;
  p.kind = Kind::kOr;
  p.subpredicates = std::move(parts);
  return p;
}

Predicate Predicate::notOf(Predicate part) {
  Predicate p;
  p.kind = Kind::kNot;
  p.subpredicates.push_back(std::move(part));
  return p;
}

std::string_view operatorText(ComparisonOperator op) {
  switch (op) {
    case ComparisonOperator::kEqual: return "==";
    case ComparisonOperator::kNotEqual: return "!=";
    case ComparisonOperator::kLess: return "<";
    case ComparisonOperator::kLessOrEqual: return "<=";
    case ComparisonOperator::kGreater: return ">";
    case ComparisonOperator::kGreaterOrEqual: return ">=";
    case ComparisonOperator::kContains: return "CONTAINS";
    case ComparisonOperator::kBeginsWith: return "BEGINSWITH";
    case ComparisonOperator::kEndsWith: return "ENDSWITH";
    case ComparisonOperator::kLike: return "LIKE";
    case ComparisonOperator::kIn: return "IN";
    case ComparisonOperator::kBetween: return "BETWEEN";
  }
  return "==";
}

namespace {

std::string quoted(std::string_view text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  out += '"';
  return out;
}

std::string formatNumber(double number) {
  if (std::isnan(number) || std::isinf(number)) return "0";
  return fmt::format("{}", number);
}

bool isArithmetic(const Expression& e) {
  return e.kind == Expression::Kind::kFunction && (e.function == "from:subtract:" || e.function == "add:to:");
}

}  // namespace

std::string formatValue(const Value& value) {
  return std::visit(
      [](const auto& v) -> std::string {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::monostate>) {
          return "nil";
        } else if constexpr (std::is_same_v<T, bool>) {
          return v ? "YES" : "NO";
        } else if constexpr (std::is_same_v<T, double>) {
          return formatNumber(v);
        } else if constexpr (std::is_same_v<T, DateValue>) {
          return fmt::format("CAST({}, \"NSDate\")", formatNumber(v.seconds));
        } else if constexpr (std::is_same_v<T, std::string>) {
          return quoted(v);
        } else {
          std::vector<std::string> items;
          for (const auto& item : v) items.push_back(formatValue(item));
          return "{" + fmt::format("{}", fmt::join(items, ", ")) + "}";
        }
      },
      value.data);
}

std::string formatKeyPath(std::string_view path);  // in PredicateParser.cpp: escapes reserved words

std::string formatExpression(const Expression& e) {
  switch (e.kind) {
    case Expression::Kind::kConstant: return formatValue(e.constant);
    case Expression::Kind::kKeyPath: return formatKeyPath(e.keyPath);
    case Expression::Kind::kSelf: return "SELF";
    case Expression::Kind::kFunction:
      if (e.function == "now") return "now()";
      if (e.function == "castObject:toType:" && e.arguments.size() == 2) {
        return fmt::format("CAST({}, {})", formatExpression(e.arguments[0]), formatExpression(e.arguments[1]));
      }
      if (isArithmetic(e) && e.arguments.size() == 2) {
        const std::string right = formatExpression(e.arguments[1]);
        return fmt::format("{} {} {}", formatExpression(e.arguments[0]), e.function == "add:to:" ? "+" : "-",
                           isArithmetic(e.arguments[1]) ? "(" + right + ")" : right);
      }
      break;
  }
  return "nil";
}

namespace {

std::string formatInner(const Predicate& p) {
  switch (p.kind) {
    case Predicate::Kind::kTrue: return "TRUEPREDICATE";
    case Predicate::Kind::kFalse: return "FALSEPREDICATE";
    case Predicate::Kind::kComparison: {
      std::string out;
      if (p.modifier == ComparisonModifier::kAny) out += "ANY ";
      if (p.modifier == ComparisonModifier::kAll) out += "ALL ";
      out += formatExpression(p.left);
      out += ' ';
      out += operatorText(p.op);
      if (p.options.caseInsensitive || p.options.diacriticInsensitive) {
        out += '[';
        if (p.options.caseInsensitive) out += 'c';
        if (p.options.diacriticInsensitive) out += 'd';
        out += ']';
      }
      out += ' ';
      out += formatExpression(p.right);
      return out;
    }
    case Predicate::Kind::kNot:
      return "NOT (" + (p.subpredicates.empty() ? std::string("TRUEPREDICATE") : formatInner(p.subpredicates[0])) +
             ")";
    case Predicate::Kind::kAnd:
    case Predicate::Kind::kOr: {
      if (p.subpredicates.empty()) return p.kind == Predicate::Kind::kAnd ? "TRUEPREDICATE" : "FALSEPREDICATE";
      std::vector<std::string> parts;
      for (const auto& sub : p.subpredicates) {
        const bool group = sub.kind == Predicate::Kind::kAnd || sub.kind == Predicate::Kind::kOr;
        parts.push_back(group ? "(" + formatInner(sub) + ")" : formatInner(sub));
      }
      return fmt::format("{}", fmt::join(parts, p.kind == Predicate::Kind::kAnd ? " AND " : " OR "));
    }
  }
  return "TRUEPREDICATE";
}

}  // namespace

std::string formatPredicate(const Predicate& predicate) { return formatInner(predicate); }

}  // namespace lectern
