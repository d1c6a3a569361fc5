#pragma once

#include <memory>

#include "smart/PredicateEvaluator.h"

namespace lectern {

class Bookmark;

// A bookmark (or feed story) as the predicate evaluator sees it: the key paths of
// supportedKeyPaths() read from the object and what hangs off it. Reads go through the
// bookmark's context, so its thread only. A relationship that cannot be read counts as missing.
class BookmarkPredicateObject final : public PredicateObject {
 public:
  explicit BookmarkPredicateObject(const Bookmark& bookmark) : bookmark_(bookmark) {}
  Value valueForKeyPath(std::string_view keyPath) const override;
  Value self() const override;

 private:
  const Bookmark& bookmark_;
};

}  // namespace lectern
