#pragma once

#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "smart/Predicate.h"
#include "smart/PredicateEvaluator.h"
#include "store/StoreTestSupport.h"

namespace lectern::test {

// A copy of one bookmark's key-path values, read once through BookmarkPredicateObject, so that
// many predicates can be evaluated in memory without a query each.
class SnapshotObject final : public PredicateObject {
 public:
  std::map<std::string, Value, std::less<>> values;
  std::int64_t row = 0;
  Value valueForKeyPath(std::string_view keyPath) const override {
    auto found = values.find(keyPath);
    return found == values.end() ? Value() : found->second;
  }
  Value self() const override { return row; }
};

// A small library over three accounts (a feed reader, a read-later and a bookmark account with
// tags): titles and previews with accents and mixed case, tags, folders, dates, flags.
class GeneratedLibraryTest : public StoreTest {
 protected:
  void generateLibrary(std::uint32_t seed, int storiesPerAccount);
  std::vector<SnapshotObject> snapshots();
  std::set<std::int64_t> inMemory(const Predicate& predicate, const std::vector<SnapshotObject>& objects) const;
  std::set<std::int64_t> bySql(const Predicate& predicate, bool useIndex);
  double nowSeconds() const { return secondsSince1970(clock_.now()); }

  std::vector<std::int64_t> rows_;
  static const std::vector<std::string>& words();
};

}  // namespace lectern::test
