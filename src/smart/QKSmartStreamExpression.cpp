#include "smart/QKSmartStreamExpression.h"

#include "core/Regex.h"
#include "core/Strings.h"

namespace lectern {

namespace {

const Regex& tokenPattern() {
  static const Regex pattern = Regex::compileOrThrow(R"(((\()|(\))|(\"[^\"]*\")|([^\s\)]+)))");
  return pattern;
}

}  // namespace

QKSmartStreamExpression::QKSmartStreamExpression(std::string expression) : expression_(std::move(expression)) {
  bool previousWasTerm = false;
  for (const auto& match : tokenPattern().allMatches(expression_)) {
    const std::string& token = match.text();
    const std::string upper = toUpperASCII(token);
    if (upper == "AND" || upper == "OR" || upper == "NOT" || token == "(" || token == ")") {
      format_ += upper + " ";
      previousWasTerm = false;
      continue;
    }
    std::string term = unquotedStringFromTerm(token);
    if (previousWasTerm) format_ += "OR ";
    format_ += "(title CONTAINS[cd] %@ OR content.preview_text CONTAINS[cd] %@) ";
    arguments_.push_back(term);
    arguments_.push_back(term);
    terms_.push_back(std::move(term));
    previousWasTerm = true;
  }
}

Result<Predicate> QKSmartStreamExpression::predicate() const {
  if (terms_.empty() && trimView(format_).empty()) {
    return fail(kPredicateErrorDomain, 5, "The search has no words to look for");
  }
  return parsePredicate(format_, arguments_);
}

std::string QKSmartStreamExpression::unquotedStringFromTerm(std::string_view term) {
  if (term.size() >= 2 && term.front() == '"' && term.back() == '"') return std::string(term.substr(1, term.size() - 2));
  return std::string(term);
}

}  // namespace lectern
