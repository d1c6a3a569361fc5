#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "core/Regex.h"

namespace lectern {

// A case-insensitive alternation of plain words ("combx|comment|com-|..."), as the class rules are.
// Immutable: share it between threads.
class KeywordPattern {
 public:
  // Throws InternalInconsistency unless every alternative is made of [a-z0-9_-].
  explicit KeywordPattern(std::string_view alternation);

  // ASCII text, nearly every class name, is searched for the words directly: for such text that is
  // exactly what the regular expression does, at a fraction of its cost. Other text goes through ICU.
  bool search(std::string_view text) const;

 private:
  std::vector<std::string> keywords_;
  Regex regex_;
};

}  // namespace lectern
