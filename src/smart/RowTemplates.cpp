#include "smart/RowTemplates.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "core/Strings.h"
#include "smart/SqlCompiler.h"

namespace lectern {

namespace {

constexpr ComparisonOptions kCaseAndDiacritics{true, true};

const Expression* singleKeyPath(const Predicate& p) {
  if (p.kind != Predicate::Kind::kComparison || p.left.kind != Expression::Kind::kKeyPath) return nullptr;
  return &p.left;
}

bool isFunction(const Expression& e, std::string_view name, size_t arity) {
  return e.kind == Expression::Kind::kFunction && e.function == name && e.arguments.size() == arity;
}

bool isTextConstant(const Expression& e, std::string_view text) {
  return e.kind == Expression::Kind::kConstant && e.constant.isText() && *e.constant.text() == text;
}

struct TextOperatorName {
  QKContainsTextRowTemplate::Operator op;
  std::string_view word;
};
constexpr TextOperatorName kTextOperatorNames[] = {
    {QKContainsTextRowTemplate::Operator::kContains, "contains"},
    {QKContainsTextRowTemplate::Operator::kDoesNotContain, "does-not-contain"},
    {QKContainsTextRowTemplate::Operator::kBeginsWith, "begins-with"},
    {QKContainsTextRowTemplate::Operator::kEndsWith, "ends-with"},
    {QKContainsTextRowTemplate::Operator::kIs, "is"},
    {QKContainsTextRowTemplate::Operator::kIsNot, "is-not"},
    {QKContainsTextRowTemplate::Operator::kLike, "like"},
};

std::string_view wordOf(QKContainsTextRowTemplate::Operator op) {
  for (const auto& name : kTextOperatorNames) {
    if (name.op == op) return name.word;
  }
  return "contains";
}

std::optional<QKContainsTextRowTemplate::Operator> textOperatorFromWord(std::string_view word) {
  for (const auto& name : kTextOperatorNames) {
    if (equalsIgnoringASCIICase(name.word, word)) return name.op;
  }
  return std::nullopt;
}

// The text comparison of a row, positive operator and whether NOT wraps it.
Predicate textComparison(std::string keyPath, QKContainsTextRowTemplate::Operator op, std::string text) {
  using Op = QKContainsTextRowTemplate::Operator;
  ComparisonOperator comparison = ComparisonOperator::kContains;
  bool negative = false;
  switch (op) {
    case Op::kContains: comparison = ComparisonOperator::kContains; break;
    case Op::kDoesNotContain: comparison = ComparisonOperator::kContains; negative = true; break;
    case Op::kBeginsWith: comparison = ComparisonOperator::kBeginsWith; break;
    case Op::kEndsWith: comparison = ComparisonOperator::kEndsWith; break;
    case Op::kIs: comparison = ComparisonOperator::kEqual; break;
    case Op::kIsNot: comparison = ComparisonOperator::kEqual; negative = true; break;
    case Op::kLike: comparison = ComparisonOperator::kLike; break;
  }
  Predicate p = Predicate::comparison(Expression::ofKeyPath(std::move(keyPath)), comparison,
                                      Expression::ofConstant(std::move(text)), kCaseAndDiacritics);
  return negative ? Predicate::notOf(std::move(p)) : p;
}

struct TextMatch {
  std::string keyPath;
  QKContainsTextRowTemplate::Operator op;
  std::string text;
};

std::optional<TextMatch> matchTextComparison(const Predicate& predicate) {
  using Op = QKContainsTextRowTemplate::Operator;
  const bool negative = predicate.kind == Predicate::Kind::kNot && predicate.subpredicates.size() == 1;
  const Predicate& p = negative ? predicate.subpredicates[0] : predicate;
  const Expression* path = singleKeyPath(p);
  if (path == nullptr || p.modifier != ComparisonModifier::kDirect || p.options != kCaseAndDiacritics) return std::nullopt;
  if (p.right.kind != Expression::Kind::kConstant || !p.right.constant.isText()) return std::nullopt;
  std::optional<Op> op;
  switch (p.op) {
    case ComparisonOperator::kContains: op = negative ? Op::kDoesNotContain : Op::kContains; break;
    case ComparisonOperator::kEqual: op = negative ? Op::kIsNot : Op::kIs; break;
    case ComparisonOperator::kBeginsWith: if (!negative) op = Op::kBeginsWith; break;
    case ComparisonOperator::kEndsWith: if (!negative) op = Op::kEndsWith; break;
    case ComparisonOperator::kLike: if (!negative) op = Op::kLike; break;
    default: break;
  }
  if (!op) return std::nullopt;
  return TextMatch{path->keyPath, *op, *p.right.constant.text()};
}

std::string oldFolderPathReplacement(std::string_view path) {
  if (path == "folder" || path == "folder.title") return "folders.title";
  if (path == "folder_id" || path == "folder.folder_id") return "folders.folder_id";
  return {};
}

}  // namespace

double timeIntervalFromBase(std::optional<long> base, std::optional<long> unitIndex) {
  if (!base || !unitIndex) throw InternalInconsistency("base and unit cannot be nil");
  if (*unitIndex >= 4 || *unitIndex < 0) {
    throw InternalInconsistency(fmt::format("unitIndex beyond max allowed bounds ({})", *unitIndex));
  }
  return static_cast<double>(*base) * kDateUnitSeconds[*unitIndex];
}

DateInterval getBaseUnitFromTimeInterval(double interval) {
  for (long unit = 3; unit >= 0; --unit) {
    const double seconds = kDateUnitSeconds[unit];
    if (interval >= seconds && std::fmod(interval, seconds) == 0) {
      return {static_cast<long>(interval / seconds), unit};
    }
  }
  return {static_cast<long>(std::llround(interval / kDateUnitSeconds[0])), 0};
}

Predicate QKDateIntervalRowTemplate::predicateWithSubpredicates() const {
  // Computed at each evaluation: now() as a number, minus the interval, back to a date.
  Expression nowNumber =
      Expression::ofFunction("castObject:toType:", {Expression::ofFunction("now", {}), Expression::ofConstant("NSNumber")});
  Expression start = Expression::ofFunction(
      "from:subtract:", {std::move(nowNumber), Expression::ofConstant(timeIntervalFromBase(interval.base, interval.unitIndex))});
  Expression date = Expression::ofFunction("castObject:toType:", {std::move(start), Expression::ofConstant("NSDate")});
  return Predicate::comparison(Expression::ofKeyPath(keyPath),
                               inTheLast ? ComparisonOperator::kGreater : ComparisonOperator::kLess, std::move(date));
}

std::optional<QKDateIntervalRowTemplate> QKDateIntervalRowTemplate::matchForPredicate(const Predicate& p) {
  const Expression* path = singleKeyPath(p);
  if (path == nullptr || p.modifier != ComparisonModifier::kDirect) return std::nullopt;
  if (p.op != ComparisonOperator::kGreater && p.op != ComparisonOperator::kLess) return std::nullopt;
  const Expression& date = p.right;
  if (!isFunction(date, "castObject:toType:", 2) || !isTextConstant(date.arguments[1], "NSDate")) return std::nullopt;
  const Expression& start = date.arguments[0];
  if (!isFunction(start, "from:subtract:", 2)) return std::nullopt;
  const Expression& nowNumber = start.arguments[0];
  if (!isFunction(nowNumber, "castObject:toType:", 2) || !isFunction(nowNumber.arguments[0], "now", 0) ||
      !isTextConstant(nowNumber.arguments[1], "NSNumber")) {
    return std::nullopt;
  }
  const Expression& seconds = start.arguments[1];
  if (seconds.kind != Expression::Kind::kConstant || !std::holds_alternative<double>(seconds.constant.data))
    return std::nullopt;
  QKDateIntervalRowTemplate row;
  row.keyPath = path->keyPath;
  row.inTheLast = p.op == ComparisonOperator::kGreater;
  row.interval = getBaseUnitFromTimeInterval(*seconds.constant.number());
  return row;
}

Predicate QKFolderTypeRowTemplate::predicateWithSubpredicates() const {
  Predicate p = Predicate::comparison(Expression::ofKeyPath(keyPath), ComparisonOperator::kEqual,
                                      Expression::ofConstant(folderType));
  return is ? p : Predicate::notOf(std::move(p));
}

std::optional<QKFolderTypeRowTemplate> QKFolderTypeRowTemplate::matchForPredicate(const Predicate& predicate) {
  const bool negative = predicate.kind == Predicate::Kind::kNot && predicate.subpredicates.size() == 1;
  const Predicate& p = negative ? predicate.subpredicates[0] : predicate;
  const Expression* path = singleKeyPath(p);
  if (path == nullptr || p.op != ComparisonOperator::kEqual || p.options != ComparisonOptions{} ||
      p.modifier == ComparisonModifier::kAll || path->keyPath != "folders.folder_id") {
    return std::nullopt;
  }
  if (p.right.kind != Expression::Kind::kConstant || !p.right.constant.isText()) return std::nullopt;
  const std::string& type = *p.right.constant.text();
  if (std::find(std::begin(kFolderTypes), std::end(kFolderTypes), type) == std::end(kFolderTypes)) return std::nullopt;
  return QKFolderTypeRowTemplate{path->keyPath, !negative, type};
}

Predicate QKTagsRowTemplate::predicateWithSubpredicates() const {
  const PredicateArguments arguments = {keyPath, tag + ",", keyPath, "," + tag, keyPath, "," + tag + ",", keyPath, tag};
  const std::string format = contains
                                 ? "%K BEGINSWITH[cd] %@ OR %K ENDSWITH[cd] %@ OR %K CONTAINS[cd] %@ OR %K ==[cd] %@"
                                 : "NOT (%K BEGINSWITH[cd] %@ OR %K ENDSWITH[cd] %@ OR %K CONTAINS[cd] %@ OR %K ==[cd] %@)";
  auto parsed = parsePredicate(format, arguments);
  if (!parsed) throw InternalInconsistency("The tag row's own format does not parse: " + parsed.error().message());
  return std::move(*parsed);
}

std::optional<QKTagsRowTemplate> QKTagsRowTemplate::matchForPredicate(const Predicate& predicate) {
  const bool negative = predicate.kind == Predicate::Kind::kNot && predicate.subpredicates.size() == 1;
  const Predicate& p = negative ? predicate.subpredicates[0] : predicate;
  if (p.kind != Predicate::Kind::kOr || p.subpredicates.size() != 4) return std::nullopt;
  constexpr ComparisonOperator kOps[] = {ComparisonOperator::kBeginsWith, ComparisonOperator::kEndsWith,
                                          ComparisonOperator::kContains, ComparisonOperator::kEqual};
  std::string keyPath;
  std::string tag;
  for (size_t i = 0; i < 4; ++i) {
    const Predicate& part = p.subpredicates[i];
    const Expression* path = singleKeyPath(part);
    if (path == nullptr || part.op != kOps[i] || part.options != kCaseAndDiacritics ||
        part.modifier != ComparisonModifier::kDirect || part.right.kind != Expression::Kind::kConstant ||
        !part.right.constant.isText()) {
      return std::nullopt;
    }
    if (i == 0) keyPath = path->keyPath;
    if (path->keyPath != keyPath) return std::nullopt;
    if (i == 3) tag = *part.right.constant.text();
  }
  QKTagsRowTemplate row{keyPath, !negative, tag};
  if (row.predicateWithSubpredicates() != predicate) return std::nullopt;
  return row;
}

Predicate QKBooleanRowTemplate::predicateWithSubpredicates() const {
  return Predicate::comparison(Expression::ofKeyPath(keyPath), ComparisonOperator::kEqual, Expression::ofConstant(value));
}

std::optional<QKBooleanRowTemplate> QKBooleanRowTemplate::matchForPredicate(const Predicate& p) {
  const Expression* path = singleKeyPath(p);
  if (path == nullptr || p.op != ComparisonOperator::kEqual || p.right.kind != Expression::Kind::kConstant) {
    return std::nullopt;
  }
  const auto info = keyPathInfo(path->keyPath);
  if (!info || info->type != KeyPathType::kBoolean) return std::nullopt;
  const auto number = p.right.constant.number();
  if (!number || (*number != 0 && *number != 1)) return std::nullopt;
  return QKBooleanRowTemplate{path->keyPath, *number == 1};
}

Predicate QKContainsTextRowTemplate::predicateWithSubpredicates() const { return textComparison(keyPath, op, text); }

std::optional<QKContainsTextRowTemplate> QKContainsTextRowTemplate::matchForPredicate(const Predicate& predicate) {
  auto match = matchTextComparison(predicate);
  if (!match) return std::nullopt;
  return QKContainsTextRowTemplate{match->keyPath, match->op, match->text};
}

Predicate QKFolderNameRowTemplate::predicateWithSubpredicates() const {
  return textComparison("folders.title", op, name);
}

std::optional<QKFolderNameRowTemplate> QKFolderNameRowTemplate::matchForPredicate(const Predicate& predicate) {
  if (isMatchingWithOldFolderNamePredicate(predicate)) {
    return matchForPredicate(predicateFromOldFolderPredicate(predicate));
  }
  auto match = matchTextComparison(predicate);
  if (!match || match->keyPath != "folders.title") return std::nullopt;
  return QKFolderNameRowTemplate{match->op, match->text};
}

bool QKFolderNameRowTemplate::isMatchingWithOldFolderNamePredicate(const Predicate& predicate) {
  const Predicate& p =
      predicate.kind == Predicate::Kind::kNot && predicate.subpredicates.size() == 1 ? predicate.subpredicates[0] : predicate;
  const Expression* path = singleKeyPath(p);
  return path != nullptr && !oldFolderPathReplacement(path->keyPath).empty();
}

Predicate QKFolderNameRowTemplate::predicateFromOldFolderPredicate(const Predicate& predicate) {
  if (predicate.kind == Predicate::Kind::kNot && predicate.subpredicates.size() == 1) {
    return Predicate::notOf(predicateFromOldFolderPredicate(predicate.subpredicates[0]));
  }
  Predicate converted = predicate;
  if (const Expression* path = singleKeyPath(predicate)) {
    const std::string replacement = oldFolderPathReplacement(path->keyPath);
    if (!replacement.empty()) converted.left = Expression::ofKeyPath(replacement);
  }
  return converted;
}

Predicate convertOldFolderPredicates(const Predicate& predicate) {
  if (predicate.kind == Predicate::Kind::kComparison) {
    return QKFolderNameRowTemplate::isMatchingWithOldFolderNamePredicate(predicate)
               ? QKFolderNameRowTemplate::predicateFromOldFolderPredicate(predicate)
               : predicate;
  }
  Predicate converted = predicate;
  for (auto& sub : converted.subpredicates) sub = convertOldFolderPredicates(sub);
  return converted;
}

namespace {
bool usesNow(const Expression& e) {
  if (isFunction(e, "now", 0)) return true;
  for (const auto& argument : e.arguments) {
    if (usesNow(argument)) return true;
  }
  return false;
}
}  // namespace

bool hasDatePredicate(const Predicate& predicate) {
  if (predicate.kind == Predicate::Kind::kComparison) return usesNow(predicate.left) || usesNow(predicate.right);
  for (const auto& sub : predicate.subpredicates) {
    if (hasDatePredicate(sub)) return true;
  }
  return false;
}

namespace {

Error rowError(std::string_view row, std::string_view why) {
  return Error::make(kPredicateErrorDomain, 6, fmt::format("Cannot read the rule \"{}\": {}", row, why),
                     "Rules read like \"date_added in-last 2 weeks\", \"tags contains art\", \"folders.title is News\", "
                     "\"is_favorited is yes\", \"type is video\" or \"title contains word\".");
}

std::optional<long> unitFromWord(std::string_view word) {
  std::string w = toLowerASCII(word);
  if (w.ends_with("s")) w.pop_back();
  for (long i = 0; i < 4; ++i) {
    if (kDateUnitNames[i] == w) return i;
  }
  return std::nullopt;
}

}  // namespace

Result<Predicate> predicateFromRowText(std::string_view row) {
  std::vector<std::string> words;
  std::string_view rest = trimView(row);
  // The first two words are the key path and the operator; the rest is the value as written.
  for (int i = 0; i < 2 && !rest.empty(); ++i) {
    const size_t space = rest.find_first_of(" \t");
    words.emplace_back(rest.substr(0, space));
    rest = space == std::string_view::npos ? std::string_view() : trimView(rest.substr(space));
  }
  if (words.size() < 2 || rest.empty()) return fail(rowError(row, "expected a key path, an operator and a value"));
  std::string value(rest);
  if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
  const std::string& path = words[0];
  const std::string op = toLowerASCII(words[1]);

  if (op == "in-last" || op == "not-in-last") {
    const auto info = keyPathInfo(path);
    if (!info || info->type != KeyPathType::kDate) return fail(rowError(row, "in-last needs a date key path"));
    const auto parts = split(value, " ");
    std::vector<std::string> tokens;
    for (const auto& part : parts) {
      if (!part.empty()) tokens.push_back(part);
    }
    if (tokens.size() != 2) return fail(rowError(row, "expected a number and a unit (days, weeks, months, years)"));
    long base = 0;
    try {
      size_t used = 0;
      base = std::stol(tokens[0], &used);
      if (used != tokens[0].size() || base < 0) throw std::invalid_argument("number");
    } catch (const std::exception&) {
      return fail(rowError(row, "the interval must be a whole number"));
    }
    const auto unit = unitFromWord(tokens[1]);
    if (!unit) return fail(rowError(row, "the unit is one of days, weeks, months, years"));
    return QKDateIntervalRowTemplate{path, op == "in-last", {base, *unit}}.predicateWithSubpredicates();
  }
  if (path == "type") {
    if (op != "is" && op != "is-not") return fail(rowError(row, "type takes is or is-not"));
    if (std::find(std::begin(kFolderTypes), std::end(kFolderTypes), value) == std::end(kFolderTypes)) {
      return fail(rowError(row, "the type is one of starred, unread, article, archive, image, video"));
    }
    return QKFolderTypeRowTemplate{"folders.folder_id", op == "is", value}.predicateWithSubpredicates();
  }
  if (path == "tags") {
    if (op != "contains" && op != "does-not-contain") return fail(rowError(row, "tags takes contains or does-not-contain"));
    return QKTagsRowTemplate{"tags", op == "contains", value}.predicateWithSubpredicates();
  }
  const auto info = keyPathInfo(path);
  if (info && info->type == KeyPathType::kBoolean) {
    const std::string answer = toLowerASCII(value);
    if (op != "is" || (answer != "yes" && answer != "no")) return fail(rowError(row, "a flag takes is yes or is no"));
    return QKBooleanRowTemplate{path, answer == "yes"}.predicateWithSubpredicates();
  }
  if (!info || info->type != KeyPathType::kText) return fail(rowError(row, fmt::format("unknown key path \"{}\"", path)));
  const auto textOp = textOperatorFromWord(op);
  if (!textOp) {
    return fail(rowError(row, "the operator is one of contains, does-not-contain, begins-with, ends-with, is, is-not, like"));
  }
  if (path == "folders.title") return QKFolderNameRowTemplate{*textOp, value}.predicateWithSubpredicates();
  return QKContainsTextRowTemplate{path, *textOp, value}.predicateWithSubpredicates();
}

std::optional<std::string> rowTextFromPredicate(const Predicate& predicate) {
  if (auto row = QKDateIntervalRowTemplate::matchForPredicate(predicate)) {
    const long base = row->interval.base;
    return fmt::format("{} {} {} {}{}", row->keyPath, row->inTheLast ? "in-last" : "not-in-last", base,
                       kDateUnitNames[row->interval.unitIndex], base == 1 ? "" : "s");
  }
  if (auto row = QKTagsRowTemplate::matchForPredicate(predicate)) {
    return fmt::format("{} {} {}", row->keyPath, row->contains ? "contains" : "does-not-contain", row->tag);
  }
  if (auto row = QKFolderTypeRowTemplate::matchForPredicate(predicate)) {
    return fmt::format("type {} {}", row->is ? "is" : "is-not", row->folderType);
  }
  if (auto row = QKBooleanRowTemplate::matchForPredicate(predicate)) {
    return fmt::format("{} is {}", row->keyPath, row->value ? "yes" : "no");
  }
  if (auto row = QKFolderNameRowTemplate::matchForPredicate(predicate)) {
    return fmt::format("folders.title {} {}", wordOf(row->op), row->name);
  }
  if (auto row = QKContainsTextRowTemplate::matchForPredicate(predicate)) {
    return fmt::format("{} {} {}", row->keyPath, wordOf(row->op), row->text);
  }
  return std::nullopt;
}

std::optional<RowSet> rowsFromPredicate(const Predicate& predicate) {
  if (auto single = rowTextFromPredicate(predicate)) return RowSet{{*single}, false};
  if (predicate.kind != Predicate::Kind::kAnd && predicate.kind != Predicate::Kind::kOr) return std::nullopt;
  RowSet set;
  set.any = predicate.kind == Predicate::Kind::kOr;
  for (const auto& sub : predicate.subpredicates) {
    auto row = rowTextFromPredicate(sub);
    if (!row) return std::nullopt;
    set.rows.push_back(std::move(*row));
  }
  return set;
}

}  // namespace lectern
