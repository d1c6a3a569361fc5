#include "smart/PredicateEvaluator.h"

#include "smart/TextMatching.h"

namespace lectern {

namespace {

constexpr std::string_view kCountSuffix = ".@count";

Value valueAt(const PredicateObject& object, std::string_view keyPath) {
  if (keyPath.ends_with(kCountSuffix)) {
    const Value collection = object.valueForKeyPath(keyPath.substr(0, keyPath.size() - kCountSuffix.size()));
    if (const auto* list = collection.list()) return static_cast<double>(list->size());
    return collection.isNil() ? 0.0 : 1.0;
  }
  return object.valueForKeyPath(keyPath);
}

Value numericResult(const Value& base, double number) {
  if (std::holds_alternative<DateValue>(base.data)) return DateValue{number};
  return number;
}

}  // namespace

Value evaluateExpression(const Expression& e, const PredicateObject* object, const EvaluationContext& context) {
  switch (e.kind) {
    case Expression::Kind::kConstant: return e.constant;
    case Expression::Kind::kKeyPath: return object != nullptr ? valueAt(*object, e.keyPath) : Value();
    case Expression::Kind::kSelf: return object != nullptr ? object->self() : Value();
    case Expression::Kind::kFunction: break;
  }
  std::vector<Value> args;
  for (const auto& argument : e.arguments) args.push_back(evaluateExpression(argument, object, context));
  if (e.function == "now") return DateValue{context.now};
  if (e.function == "castObject:toType:" && args.size() == 2 && args[1].isText()) {
    const std::string& type = *args[1].text();
    const auto number = args[0].number();
    if (type == "NSNumber") return number ? Value(*number) : Value();
    if (type == "NSDate") return number ? Value(DateValue{*number}) : Value();
    if (type == "NSString" && args[0].isText()) return args[0];
    return Value();
  }
  if ((e.function == "from:subtract:" || e.function == "add:to:") && args.size() == 2) {
    const auto a = args[0].number();
    const auto b = args[1].number();
    if (!a || !b) return Value();
    return numericResult(args[0], e.function == "add:to:" ? *a + *b : *a - *b);
  }
  return Value();
}

bool compareValues(ComparisonOperator op, ComparisonOptions options, const Value& left, const Value& right) {
  switch (op) {
    case ComparisonOperator::kNotEqual: return !compareValues(ComparisonOperator::kEqual, options, left, right);
    case ComparisonOperator::kIn:
      if (const auto* list = right.list()) {
        for (const auto& item : *list) {
          if (compareValues(ComparisonOperator::kEqual, options, left, item)) return true;
        }
        return false;
      }
      if (left.isText() && right.isText()) return compareText(op, options, *left.text(), *right.text());
      return false;
    case ComparisonOperator::kBetween: {
      const auto* list = right.list();
      if (list == nullptr || list->size() != 2) return false;
      return compareValues(ComparisonOperator::kGreaterOrEqual, options, left, (*list)[0]) &&
             compareValues(ComparisonOperator::kLessOrEqual, options, left, (*list)[1]);
    }
    case ComparisonOperator::kEqual:
      if (left.isNil() || right.isNil()) return left.isNil() && right.isNil();
      if (left.isText() && right.isText()) return compareText(op, options, *left.text(), *right.text());
      if (left.isNumeric() && right.isNumeric()) return *left.number() == *right.number();
      return left.isList() && right.isList() && left == right;
    case ComparisonOperator::kLess:
    case ComparisonOperator::kLessOrEqual:
    case ComparisonOperator::kGreater:
    case ComparisonOperator::kGreaterOrEqual:
      if (left.isText() && right.isText()) return compareText(op, options, *left.text(), *right.text());
      if (left.isNumeric() && right.isNumeric()) {
        const double a = *left.number();
        const double b = *right.number();
        switch (op) {
          case ComparisonOperator::kLess: return a < b;
          case ComparisonOperator::kLessOrEqual: return a <= b;
          case ComparisonOperator::kGreater: return a > b;
          default: return a >= b;
        }
      }
      return false;
    case ComparisonOperator::kContains:
      if (const auto* list = left.list()) {
        for (const auto& item : *list) {
          if (compareValues(ComparisonOperator::kEqual, options, item, right)) return true;
        }
        return false;
      }
      [[fallthrough]];
    case ComparisonOperator::kBeginsWith:
    case ComparisonOperator::kEndsWith:
    case ComparisonOperator::kLike:
      if (left.isText() && right.isText()) return compareText(op, options, *left.text(), *right.text());
      return false;
  }
  return false;
}

bool evaluatePredicate(const Predicate& p, const PredicateObject& object, const EvaluationContext& context) {
  switch (p.kind) {
    case Predicate::Kind::kTrue: return true;
    case Predicate::Kind::kFalse: return false;
    case Predicate::Kind::kAnd:
      for (const auto& sub : p.subpredicates) {
        if (!evaluatePredicate(sub, object, context)) return false;
      }
      return true;
    case Predicate::Kind::kOr:
      for (const auto& sub : p.subpredicates) {
        if (evaluatePredicate(sub, object, context)) return true;
      }
      return false;
    case Predicate::Kind::kNot:
      return p.subpredicates.empty() || !evaluatePredicate(p.subpredicates[0], object, context);
    case Predicate::Kind::kComparison: break;
  }
  const Value left = evaluateExpression(p.left, &object, context);
  const Value right = evaluateExpression(p.right, &object, context);
  // A to-many left side compares element by element: some (ANY, and a plain comparison) or every (ALL).
  if (const auto* elements = left.list(); elements != nullptr && p.left.kind == Expression::Kind::kKeyPath) {
    if (p.modifier == ComparisonModifier::kAll) {
      for (const auto& element : *elements) {
        if (!compareValues(p.op, p.options, element, right)) return false;
      }
      return true;
    }
    for (const auto& element : *elements) {
      if (compareValues(p.op, p.options, element, right)) return true;
    }
    return false;
  }
  return compareValues(p.op, p.options, left, right);
}

}  // namespace lectern
