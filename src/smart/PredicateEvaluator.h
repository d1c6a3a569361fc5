#pragma once

#include <string_view>

#include "smart/Predicate.h"

namespace lectern {

// What a predicate is evaluated against: key paths resolve to values, a to-many key path to a
// list (empty when there is nothing), a missing relationship to nil.
class PredicateObject {
 public:
  virtual ~PredicateObject() = default;
  virtual Value valueForKeyPath(std::string_view keyPath) const = 0;
  // SELF: the object's identity (a bookmark's row id).
  virtual Value self() const = 0;
};

struct EvaluationContext {
  double now = 0;  // seconds since 1970, what now() answers
};

// The value of an expression; `object` may be null for expressions that do not depend on one.
Value evaluateExpression(const Expression& expression, const PredicateObject* object, const EvaluationContext& context);

// One comparison of two values as the language defines it (text options, nil, lists for IN and
// BETWEEN). Shared by the evaluator and the SQL the compiler writes, so both give one answer.
bool compareValues(ComparisonOperator op, ComparisonOptions options, const Value& left, const Value& right);

bool evaluatePredicate(const Predicate& predicate, const PredicateObject& object, const EvaluationContext& context);

}  // namespace lectern
