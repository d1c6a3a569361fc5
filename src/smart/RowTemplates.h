#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "smart/Predicate.h"

namespace lectern {

// Rows of the smart-folder editor: each template produces the predicate of a row and recognises
// a stored predicate so that the row can show it again.

// Date units, index 0 to 3: day, week, month (30 days), year (360 days: twelve 30-day months).
inline constexpr double kDateUnitSeconds[] = {86400, 604800, 2592000, 31104000};
inline constexpr std::string_view kDateUnitNames[] = {"day", "week", "month", "year"};

// base * unit seconds. Raises InternalInconsistency "unitIndex beyond max allowed bounds (<n>)" for
// an index of 4 or more (or below 0), "base and unit cannot be nil" when either is missing.
double timeIntervalFromBase(std::optional<long> base, std::optional<long> unitIndex);
struct DateInterval {
  long base = 0;
  long unitIndex = 0;
  bool operator==(const DateInterval&) const = default;
};
// The largest unit (year, month, week, day) the interval is at least and divides exactly; the
// base is the quotient. An interval that is no whole number of days is shown in days, rounded.
DateInterval getBaseUnitFromTimeInterval(double interval);

// "is in the last" (keeps dates after now minus the interval) or "is not in the last".
struct QKDateIntervalRowTemplate {
  std::string keyPath = "date_added";
  bool inTheLast = true;
  DateInterval interval{1, 0};

  Predicate predicateWithSubpredicates() const;
  static std::optional<QKDateIntervalRowTemplate> matchForPredicate(const Predicate& predicate);
  bool operator==(const QKDateIntervalRowTemplate&) const = default;
};

// "is" / "is not" one of the built-in folder kinds, in the pop-up's order.
inline constexpr std::string_view kFolderTypes[] = {"starred", "unread", "article", "archive", "image", "video"};
struct QKFolderTypeRowTemplate {
  std::string keyPath = "folders.folder_id";
  bool is = true;
  std::string folderType = "unread";

  Predicate predicateWithSubpredicates() const;
  static std::optional<QKFolderTypeRowTemplate> matchForPredicate(const Predicate& predicate);
  bool operator==(const QKFolderTypeRowTemplate&) const = default;
};

// A tag as a whole element of the comma-separated tag list.
struct QKTagsRowTemplate {
  std::string keyPath = "tags";
  bool contains = true;
  std::string tag;

  Predicate predicateWithSubpredicates() const;
  static std::optional<QKTagsRowTemplate> matchForPredicate(const Predicate& predicate);
  bool operator==(const QKTagsRowTemplate&) const = default;
};

struct QKBooleanRowTemplate {
  std::string keyPath = "is_favorited";
  bool value = true;

  Predicate predicateWithSubpredicates() const;
  static std::optional<QKBooleanRowTemplate> matchForPredicate(const Predicate& predicate);
  bool operator==(const QKBooleanRowTemplate&) const = default;
};

// A text comparison, case and diacritics ignored; a negative operator is NOT of the positive one.
struct QKContainsTextRowTemplate {
  enum class Operator { kContains, kDoesNotContain, kBeginsWith, kEndsWith, kIs, kIsNot, kLike };
  std::string keyPath = "title";
  Operator op = Operator::kContains;
  std::string text;

  Predicate predicateWithSubpredicates() const;
  static std::optional<QKContainsTextRowTemplate> matchForPredicate(const Predicate& predicate);
  bool operator==(const QKContainsTextRowTemplate&) const = default;
};

// A comparison on the title of the item's folders ("folders.title").
struct QKFolderNameRowTemplate {
  QKContainsTextRowTemplate::Operator op = QKContainsTextRowTemplate::Operator::kIs;
  std::string name;

  Predicate predicateWithSubpredicates() const;
  static std::optional<QKFolderNameRowTemplate> matchForPredicate(const Predicate& predicate);
  // Older libraries compared "folder" (the folder's title) or "folder_id" directly.
  static bool isMatchingWithOldFolderNamePredicate(const Predicate& predicate);
  // The same comparison on "folders.title" / "folders.folder_id".
  static Predicate predicateFromOldFolderPredicate(const Predicate& predicate);
  bool operator==(const QKFolderNameRowTemplate&) const = default;
};

// Every old-form folder comparison anywhere in `predicate` converted to the current form.
Predicate convertOldFolderPredicates(const Predicate& predicate);

// True when a date row is somewhere in the predicate: its answer changes as time passes.
bool hasDatePredicate(const Predicate& predicate);

// The rows of the command line: "date_added in-last 2 weeks", "tags contains art",
// "folders.title is News", "is_favorited is yes", "type is video", "title contains word".
Result<Predicate> predicateFromRowText(std::string_view row);
// A predicate shown as a row again; nothing when no template recognises it.
std::optional<std::string> rowTextFromPredicate(const Predicate& predicate);

// Rows joined by AND (all) or OR (any).
struct RowSet {
  std::vector<std::string> rows;
  bool any = false;
};
// The stored predicate as rows, when every part is a row.
std::optional<RowSet> rowsFromPredicate(const Predicate& predicate);

}  // namespace lectern
