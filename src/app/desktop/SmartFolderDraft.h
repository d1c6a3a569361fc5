#pragma once

// The smart-folder editor without a toolkit: rows of (field, operator, value) built from the row
// templates, any or all of them, turned into the predicate text a smart folder stores, and back.

#include <string>
#include <vector>

#include "core/Error.h"

namespace lectern::desktop {

// One kind of row the editor offers: what a person reads, the key path, its operators and, for
// a closed set, the values.
struct RowField {
  std::string label;
  std::string keyPath;
  std::vector<std::string> operators;  // as the row text writes them: "contains", "in-last" ...
  std::vector<std::string> values;     // empty: the value is typed
};
const std::vector<RowField>& rowFields();

struct DraftRow {
  size_t field = 0;     // index into rowFields()
  size_t op = 0;        // index into the field's operators
  std::string value;
  bool operator==(const DraftRow&) const = default;
};

struct SmartFolderDraft {
  std::string title;
  std::vector<DraftRow> rows = {DraftRow{}};
  bool any = false;

  // The row as text ("title contains apple", "date_added in-last 2 weeks").
  static std::string rowText(const DraftRow& row);
  // The predicate text to store: each row read by the row templates, joined by AND or OR. An
  // empty value, a row that does not read or no rows at all is an error naming the row.
  Result<std::string> predicateText() const;
  // The draft of a stored folder; an error when its predicate is not made of rows (it was written
  // as predicate text and the editor cannot show it).
  static Result<SmartFolderDraft> fromPredicateText(const std::string& title, const std::string& predicate);
};

}  // namespace lectern::desktop
