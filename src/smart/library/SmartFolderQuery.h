#pragma once

#include "store/BookmarkQuery.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "core/Clock.h"
#include "core/Error.h"
#include "smart/Predicate.h"
#include "store/EntitySchema.h"

namespace lectern {

class Bookmark;
class ObjectContext;
class SmartFolder;

// A stored predicate made ready to run: parsed, old folder comparisons brought to the current
// form, every key path checked. A text that cannot be read is an error naming the position;
// it never becomes a folder that matches everything.
Result<Predicate> predicateFromStoredText(std::string_view text);

// The folder's predicate for a fetch: a compound predicate is taken apart and put together again
// with the same compound type; date rows hold now() and are evaluated afresh by each fetch.
Result<Predicate> fetchPredicate(const SmartFolder& folder);

// Which items of the library a query looks at, newest date_added first.
struct LibraryScope {
  std::vector<ObjectId> accounts;   // only these accounts' items (none: every account)
  bool unreadOnly = false;          // is_archived == 0
  std::optional<std::int64_t> limit;
};

// The items matching `predicate` at `now`: the predicate compiled to SQL over the library (text
// searches through the search index); a predicate the compiler cannot express is evaluated in
// memory over the items in scope instead.
// A list's filter over the matches: unread narrows the scope, starred adds a row to the predicate.
void narrowToFilter(Predicate& predicate, LibraryScope& scope, BookmarkFilter filter);

Result<std::vector<std::shared_ptr<Bookmark>>> fetchMatchingBookmarks(ObjectContext& context, const Predicate& predicate,
                                                                      Date now, const LibraryScope& scope = {});
Result<std::int64_t> countMatchingBookmarks(ObjectContext& context, const Predicate& predicate, Date now,
                                            const LibraryScope& scope = {});

}  // namespace lectern
