#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace lectern {

// Small edits of a stored smart-folder predicate in predicate-format text
// ("(html CONTAINS[cd] \"x\" OR title BEGINSWITH 'y') AND is_archived == 0"), made without
// evaluating it: everything outside the edited tokens is kept byte for byte.

// Every comparison whose left key path is exactly `from` gets `to` instead; the operator, its
// options, the right side and the compound structure stay as they are. String constants and
// right-hand key paths are never touched.
std::string rewriteComparisonKeyPath(std::string_view predicate, std::string_view from, std::string_view to);

// The parts of a compound predicate at its top level (split at AND/OR outside parentheses, with
// enclosing parentheses removed), or the predicate itself when it is not compound.
std::vector<std::string> extractPredicatesFromCompoundPredicate(std::string_view predicate);

}  // namespace lectern
