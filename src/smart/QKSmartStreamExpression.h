#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "smart/Predicate.h"

namespace lectern {

// The search field's language: words and "quoted phrases" are terms matched in the title or the
// preview text (case and diacritics ignored); AND, OR, NOT and parentheses combine them; terms
// side by side are alternatives. Terms are passed as arguments, so they are never read as syntax.
class QKSmartStreamExpression {
 public:
  explicit QKSmartStreamExpression(std::string expression);

  const std::string& expression() const { return expression_; }
  // The predicate of the expression, or the error of a text that does not combine (a lone AND ...).
  Result<Predicate> predicate() const;
  // The assembled predicate text with "%@" for each argument, and the arguments.
  const std::string& predicateFormat() const { return format_; }
  const PredicateArguments& arguments() const { return arguments_; }
  // Every term without its quotes, in order (for highlighting matches).
  const std::vector<std::string>& terms() const { return terms_; }

  // Drops the double quotes around a term: "\"two words\"" -> "two words".
  static std::string unquotedStringFromTerm(std::string_view term);

 private:
  std::string expression_;
  std::string format_;
  PredicateArguments arguments_;
  std::vector<std::string> terms_;
};

}  // namespace lectern
