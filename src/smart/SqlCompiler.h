#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "smart/Predicate.h"

namespace lectern {

// The key paths a stored predicate may use on a bookmark (or feed story), with their type.
enum class KeyPathType { kText, kNumber, kDate, kBoolean };
struct KeyPathInfo {
  std::string_view path;
  KeyPathType type;
  bool toMany = false;
};
// Every supported key path ("title", "content.preview_text", "folders.title", "account.service" ...);
// a to-many path also works with ".@count" appended. "html" and "preview_text" name the content's.
const std::vector<KeyPathInfo>& supportedKeyPaths();
std::optional<KeyPathInfo> keyPathInfo(std::string_view path);

// Fails, naming the key path, when the predicate uses one outside supportedKeyPaths().
Result<void> validateKeyPaths(const Predicate& predicate);

// The SQL names of the store that the compiled text refers to; a custom SQL function
// `lectern_compare(op, options, left, right)` must be registered on the connection (it calls
// compareValues), and the search index table `StorySearch(title, preview_text)` must exist with
// the bookmark's row id as its rowid, holding foldForSearch of each text.
inline constexpr std::string_view kSearchIndexTable = "StorySearch";
// The stories whose index rows are missing or out of date (noted by triggers, cleared by indexing).
inline constexpr std::string_view kSearchIndexPendingTable = "StorySearchPending";
inline constexpr std::string_view kCompareFunction = "lectern_compare";
inline constexpr std::string_view kFoldFunction = "lectern_fold";

// The codes of operators and options as lectern_compare takes them.
int operatorCode(ComparisonOperator op);
std::optional<ComparisonOperator> operatorFromCode(int code);
int optionsCode(ComparisonOptions options);
ComparisonOptions optionsFromCode(int code);

struct SqlCompileOptions {
  double now = 0;               // what now() is at this fetch
  bool useSearchIndex = true;   // false: every text comparison by scanning (for comparison)
};

// A condition on the Bookmark table ("FROM Bookmark WHERE <where>"), never NULL, with "?" for each
// of `arguments`.
struct CompiledQuery {
  std::string where;
  std::vector<Value> arguments;
  bool usesSearchIndex = false;
};

// Fails for a predicate whose right sides depend on the object, or whose left sides are not key
// paths, SELF or constants: those are evaluated in memory instead.
Result<CompiledQuery> compileToSql(const Predicate& predicate, const SqlCompileOptions& options);

// The FTS5 query that finds `text` as a substring in `columns` of the search index; nothing when
// the folded text is shorter than three characters (the trigram index cannot answer it).
std::optional<std::string> searchIndexQuery(std::string_view text, const std::vector<std::string_view>& columns);

}  // namespace lectern
