#include "app/desktop/SmartFolderDraft.h"

#include <fmt/format.h>

#include "core/Strings.h"
#include "smart/Predicate.h"
#include "smart/RowTemplates.h"
#include "smart/library/SmartFolderQuery.h"

namespace lectern::desktop {
namespace {

const std::vector<std::string> kTextOperators = {"contains", "does-not-contain", "begins-with", "ends-with", "is", "is-not"};

}  // namespace

const std::vector<RowField>& rowFields() {
  static const std::vector<RowField> fields = {
      {"Title", "title", kTextOperators, {}},
      {"Text", "preview_text", {"contains", "does-not-contain"}, {}},
      {"Author", "author", kTextOperators, {}},
      {"Address", "url", kTextOperators, {}},
      {"Feed or folder", "folders.title", kTextOperators, {}},
      {"Tags", "tags", {"contains", "does-not-contain"}, {}},
      {"Added", "date_added", {"in-last", "not-in-last"}, {}},
      {"Starred", "is_favorited", {"is"}, {"yes", "no"}},
      {"Read", "is_archived", {"is"}, {"yes", "no"}},
      {"Kind", "type", {"is", "is-not"}, {"unread", "starred", "article", "archive", "image", "video"}},
  };
  return fields;
}

std::string SmartFolderDraft::rowText(const DraftRow& row) {
  const auto& fields = rowFields();
  const RowField& field = fields[row.field < fields.size() ? row.field : 0];
  const std::string& op = field.operators[row.op < field.operators.size() ? row.op : 0];
  std::string value = trim(row.value);
  // A value with spaces is quoted, so that it reads as one value (except "2 weeks").
  if (op != "in-last" && op != "not-in-last" && value.find(' ') != std::string::npos) value = "\"" + value + "\"";
  return fmt::format("{} {} {}", field.keyPath, op, value);
}

Result<std::string> SmartFolderDraft::predicateText() const {
  if (rows.empty()) return fail(kLecternErrorDomain, 2, "A smart folder needs at least one rule");
  std::vector<Predicate> predicates;
  for (size_t i = 0; i < rows.size(); ++i) {
    if (trim(rows[i].value).empty()) {
      return fail(kLecternErrorDomain, 2, fmt::format("Rule {} has no value", i + 1));
    }
    auto predicate = predicateFromRowText(rowText(rows[i]));
    if (!predicate) {
      return fail(kLecternErrorDomain, 2, fmt::format("Rule {} does not read", i + 1), predicate.error().description);
    }
    predicates.push_back(std::move(*predicate));
  }
  if (predicates.size() == 1) return formatPredicate(predicates.front());
  return formatPredicate(any ? Predicate::orOf(std::move(predicates)) : Predicate::andOf(std::move(predicates)));
}

Result<SmartFolderDraft> SmartFolderDraft::fromPredicateText(const std::string& title, const std::string& predicate) {
  auto parsed = predicateFromStoredText(predicate);
  if (!parsed) return fail(parsed.error());
  auto rowSet = rowsFromPredicate(*parsed);
  if (!rowSet) {
    return fail(kLecternErrorDomain, 1, "The folder's condition is not made of rules the editor shows",
                "Change it with `lectern smart edit --where`.");
  }
  SmartFolderDraft draft;
  draft.title = title;
  draft.any = rowSet->any;
  draft.rows.clear();
  const auto& fields = rowFields();
  for (const auto& text : rowSet->rows) {
    // "key op value": the value is the rest, without the quotes a value with spaces got.
    const size_t first = text.find(' ');
    const size_t second = first == std::string::npos ? std::string::npos : text.find(' ', first + 1);
    if (second == std::string::npos) return fail(kLecternErrorDomain, 1, fmt::format("Cannot show the rule \"{}\"", text));
    const std::string path = text.substr(0, first);
    const std::string op = text.substr(first + 1, second - first - 1);
    std::string value = text.substr(second + 1);
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
    DraftRow row;
    bool found = false;
    for (size_t f = 0; f < fields.size() && !found; ++f) {
      if (fields[f].keyPath != path) continue;
      for (size_t o = 0; o < fields[f].operators.size(); ++o) {
        if (fields[f].operators[o] != op) continue;
        row = {f, o, value};
        found = true;
        break;
      }
    }
    if (!found) return fail(kLecternErrorDomain, 1, fmt::format("Cannot show the rule \"{}\"", text));
    draft.rows.push_back(std::move(row));
  }
  return draft;
}

}  // namespace lectern::desktop
