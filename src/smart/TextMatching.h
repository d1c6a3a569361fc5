#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "smart/Predicate.h"

namespace lectern {

// Text as a comparison with these options sees it: [c] folds case, [d] drops diacritics
// ("Café" [cd] -> "cafe"). Without options the text is returned as it is.
std::string foldText(std::string_view text, ComparisonOptions options);

// The text the search index holds: folded for case and diacritics, as CONTAINS[cd] compares.
inline std::string foldForSearch(std::string_view text) { return foldText(text, {true, true}); }

// A text comparison of the predicate language, both sides folded by the options first. LIKE takes
// "*" for any run of characters and "?" for one character. IN and BETWEEN are not text operators.
bool compareText(ComparisonOperator op, ComparisonOptions options, std::string_view left, std::string_view right);

// Where `terms` occur in `text` as CONTAINS[cd] finds them: byte ranges [begin, end) of the
// original text, sorted, overlapping ranges merged. For highlighting matches.
struct TextRange {
  size_t begin = 0;
  size_t end = 0;
  bool operator==(const TextRange&) const = default;
};
std::vector<TextRange> findMatches(std::string_view text, const std::vector<std::string>& terms);

// The number of characters (code points) in UTF-8 text.
size_t codePointCount(std::string_view text);

}  // namespace lectern
