#include "smart/SqlCompiler.h"

#include <fmt/format.h>

#include <map>

#include "smart/PredicateEvaluator.h"
#include "smart/TextMatching.h"

namespace lectern {

namespace {

constexpr std::string_view kCountSuffix = ".@count";

// How a key path reaches its column from a Bookmark row.
struct PathRoute {
  enum class Kind { kColumn, kToOne, kReverseToOne, kToMany, kCount, kSelf };
  Kind kind = Kind::kColumn;
  KeyPathType type = KeyPathType::kText;
  std::string column;       // Bookmark column, or the target's column
  std::string table;        // target table
  std::string foreignKey;   // kToOne: Bookmark's column naming the target; kReverseToOne: target's column naming the bookmark
  std::string joinTable;    // kToMany / kCount
  std::string joinTarget;   // join table's column naming the target
};

struct RouteEntry {
  KeyPathInfo info;
  PathRoute route;
};

const std::vector<RouteEntry>& routes() {
  using K = PathRoute::Kind;
  static const std::vector<RouteEntry> entries = [] {
    std::vector<RouteEntry> out;
    auto column = [&](std::string_view path, KeyPathType type) {
      out.push_back({{path, type, false}, {K::kColumn, type, std::string(path), "", "", "", ""}});
    };
    for (std::string_view text : {"title", "url", "tags", "bookmark_id", "bookmark_hash", "author", "permalink"})
      column(text, KeyPathType::kText);
    column("date_added", KeyPathType::kDate);
    column("date_updated", KeyPathType::kDate);
    for (std::string_view flag : {"is_archived", "is_favorited", "is_shared", "is_opened"})
      column(flag, KeyPathType::kBoolean);
    column("progress", KeyPathType::kNumber);
    column("score", KeyPathType::kNumber);
    auto content = [&](std::string_view path, std::string_view col) {
      out.push_back({{path, KeyPathType::kText, false},
                     {K::kReverseToOne, KeyPathType::kText, std::string(col), "Content", "bookmark", "", ""}});
    };
    content("content.preview_text", "preview_text");
    content("content.html", "html");
    content("preview_text", "preview_text");
    content("html", "html");
    auto toOne = [&](std::string_view path, std::string_view table, std::string_view fk, std::string_view col) {
      out.push_back({{path, KeyPathType::kText, false},
                     {K::kToOne, KeyPathType::kText, std::string(col), std::string(table), std::string(fk), "", ""}});
    };
    toOne("account.service", "Account", "account", "service");
    toOne("account.title", "Account", "account", "title");
    toOne("account.username", "Account", "account", "username");
    toOne("feed.title", "Folder", "feed", "title");
    toOne("feed.feed_link", "Folder", "feed", "feed_link");
    auto toMany = [&](std::string_view path, std::string_view table, std::string_view join, std::string_view target,
                      std::string_view col) {
      out.push_back({{path, KeyPathType::kText, true},
                     {K::kToMany, KeyPathType::kText, std::string(col), std::string(table), "", std::string(join),
                      std::string(target)}});
    };
    toMany("folders.title", "Folder", "Folder_bookmarks", "folder", "title");
    toMany("folders.folder_id", "Folder", "Folder_bookmarks", "folder", "folder_id");
    toMany("tokens.title", "Token", "Token_bookmarks", "token", "title");
    out.push_back({{"folders.@count", KeyPathType::kNumber, false},
                   {K::kCount, KeyPathType::kNumber, "", "", "", "Folder_bookmarks", ""}});
    out.push_back({{"tokens.@count", KeyPathType::kNumber, false},
                   {K::kCount, KeyPathType::kNumber, "", "", "", "Token_bookmarks", ""}});
    return out;
  }();
  return entries;
}

const RouteEntry* routeFor(std::string_view path) {
  for (const auto& entry : routes()) {
    if (entry.info.path == path) return &entry;
  }
  return nullptr;
}

Result<void> validateExpression(const Expression& e) {
  if (e.kind == Expression::Kind::kKeyPath && routeFor(e.keyPath) == nullptr) {
    return fail(kPredicateErrorDomain, 2, fmt::format("Unknown key path \"{}\" in the condition", e.keyPath));
  }
  if (e.kind == Expression::Kind::kFunction) {
    if (e.function != "now" && e.function != "castObject:toType:" && e.function != "from:subtract:" &&
        e.function != "add:to:") {
      return fail(kPredicateErrorDomain, 3, fmt::format("Unknown function \"{}\" in the condition", e.function));
    }
  }
  for (const auto& argument : e.arguments) {
    if (auto valid = validateExpression(argument); !valid) return valid;
  }
  return {};
}

// FTS5 phrase: the text in double quotes, quotes doubled.
std::string ftsPhrase(std::string_view text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
  return out;
}

class Compiler {
 public:
  explicit Compiler(const SqlCompileOptions& options) : options_(options) {}

  Result<std::string> compile(const Predicate& p) {
    switch (p.kind) {
      case Predicate::Kind::kTrue: return std::string("1");
      case Predicate::Kind::kFalse: return std::string("0");
      case Predicate::Kind::kNot: {
        if (p.subpredicates.empty()) return std::string("0");
        auto inner = compile(p.subpredicates[0]);
        if (!inner) return inner;
        return "(NOT " + *inner + ")";
      }
      case Predicate::Kind::kAnd:
      case Predicate::Kind::kOr: return compileCompound(p);
      case Predicate::Kind::kComparison: return compileComparison(p);
    }
    return std::string("0");
  }

  std::vector<Value> arguments;
  bool usedIndex = false;

 private:
  std::string bind(Value value) {
    arguments.push_back(std::move(value));
    return "?";
  }

  // The text a CONTAINS[cd] on title or preview can hand to the index, with its column.
  struct IndexTerm {
    std::string column;
    std::string term;
  };
  std::optional<IndexTerm> indexTerm(const Predicate& p) {
    if (!options_.useSearchIndex || p.kind != Predicate::Kind::kComparison) return std::nullopt;
    if (p.op != ComparisonOperator::kContains || p.left.kind != Expression::Kind::kKeyPath) return std::nullopt;
    if (!p.right.isObjectIndependent()) return std::nullopt;
    const auto* route = routeFor(p.left.keyPath);
    if (route == nullptr) return std::nullopt;
    std::string column;
    if (route->route.kind == PathRoute::Kind::kColumn && route->route.column == "title") column = "title";
    if (route->route.kind == PathRoute::Kind::kReverseToOne && route->route.column == "preview_text")
      column = "preview_text";
    if (column.empty()) return std::nullopt;
    const Value right = evaluateExpression(p.right, nullptr, EvaluationContext{options_.now});
    if (!right.isText()) return std::nullopt;
    std::string folded = foldForSearch(*right.text());
    if (codePointCount(folded) < 3) return std::nullopt;
    return IndexTerm{std::move(column), std::move(folded)};
  }

  // The index answers for the stories it holds up to date; those still awaiting it (a sync
  // stores first and indexes later) are decided by `exact`. `match` is bound already: its value
  // must come before those of `exact`, as in the text.
  std::string indexLookup(const std::string& boundMatch, const std::string& exact) {
    usedIndex = true;
    return fmt::format(
        "((Bookmark.id IN (SELECT rowid FROM {0} WHERE {0} MATCH {1}) AND Bookmark.id NOT IN (SELECT id FROM {2}))"
        " OR (Bookmark.id IN (SELECT id FROM {2}) AND {3}))",
        kSearchIndexTable, boundMatch, kSearchIndexPendingTable, exact);
  }

  Result<std::string> compileCompound(const Predicate& p) {
    const bool isAnd = p.kind == Predicate::Kind::kAnd;
    if (p.subpredicates.empty()) return std::string(isAnd ? "1" : "0");
    std::vector<std::string> parts;
    // Under OR, every exact [cd] text search goes to the index as one query.
    std::vector<std::string> indexAlternatives;
    std::vector<const Predicate*> indexed;
    for (const auto& sub : p.subpredicates) {
      if (!isAnd && sub.options.caseInsensitive && sub.options.diacriticInsensitive &&
          sub.modifier == ComparisonModifier::kDirect) {
        if (auto term = indexTerm(sub)) {
          indexAlternatives.push_back(fmt::format("({{{}}} : {})", term->column, ftsPhrase(term->term)));
          indexed.push_back(&sub);
          continue;
        }
      }
      auto compiled = compile(sub);
      if (!compiled) return compiled;
      parts.push_back(std::move(*compiled));
    }
    if (!indexAlternatives.empty()) {
      // The lookup comes last in the text, so its values are bound last: the match, then the
      // exact comparisons for the stories awaiting the index.
      const std::string match = bind(fmt::format("{}", fmt::join(indexAlternatives, " OR ")));
      std::vector<std::string> exactAlternatives;
      for (const Predicate* sub : indexed) {
        auto exact = compileComparison(*sub, /*allowIndex=*/false);
        if (!exact) return exact;
        exactAlternatives.push_back(std::move(*exact));
      }
      parts.push_back(indexLookup(match, fmt::format("({})", fmt::join(exactAlternatives, " OR "))));
    }
    return "(" + fmt::format("{}", fmt::join(parts, isAnd ? " AND " : " OR ")) + ")";
  }

  Result<std::string> compileComparison(const Predicate& p, bool allowIndex = true) {
    const EvaluationContext context{options_.now};
    if (!p.right.isObjectIndependent()) {
      return fail(kPredicateErrorDomain, 4, "A condition that compares two key paths cannot be run as a query");
    }
    const Value right = evaluateExpression(p.right, nullptr, context);
    if (p.left.isObjectIndependent()) {
      const Value left = evaluateExpression(p.left, nullptr, context);
      return std::string(compareValues(p.op, p.options, left, right) ? "1" : "0");
    }
    if (p.left.kind == Expression::Kind::kSelf) {
      return elementSql(p.op, p.options, "Bookmark.id", KeyPathType::kNumber, right);
    }
    if (p.left.kind != Expression::Kind::kKeyPath) {
      return fail(kPredicateErrorDomain, 4, "Only key paths can be compared in a query");
    }
    const auto* entry = routeFor(p.left.keyPath);
    if (entry == nullptr) {
      return fail(kPredicateErrorDomain, 2, fmt::format("Unknown key path \"{}\" in the condition", p.left.keyPath));
    }
    const PathRoute& route = entry->route;

    if (allowIndex && p.modifier == ComparisonModifier::kDirect) {
      if (auto term = indexTerm(p)) {
        const std::string match = bind(fmt::format("({{{}}} : {})", term->column, ftsPhrase(term->term)));
        auto exact = routedSql(route, p.op, p.options, right, p.modifier);
        if (!exact) return exact;
        if (p.options.caseInsensitive && p.options.diacriticInsensitive) return indexLookup(match, *exact);
        // The index holds folded text: it narrows, the exact comparison decides.
        return "(" + indexLookup(match, "1") + " AND " + *exact + ")";
      }
    }
    return routedSql(route, p.op, p.options, right, p.modifier);
  }

  Result<std::string> routedSql(const PathRoute& route, ComparisonOperator op, ComparisonOptions options,
                                const Value& right, ComparisonModifier modifier) {
    using K = PathRoute::Kind;
    const std::string alias = fmt::format("t{}", ++aliasCounter_);
    switch (route.kind) {
      case K::kColumn: {
        // The entities read a missing flag or progress as 0 (their accessors answer a number).
        const bool zeroWhenMissing = route.type == KeyPathType::kBoolean || route.column == "progress";
        const std::string column = zeroWhenMissing ? fmt::format("coalesce(Bookmark.{}, 0)", route.column)
                                                   : "Bookmark." + route.column;
        return elementSql(op, options, column, route.type, right);
      }
      case K::kSelf: return elementSql(op, options, "Bookmark.id", KeyPathType::kNumber, right);
      case K::kCount:
        return elementSql(op, options,
                          fmt::format("(SELECT count(*) FROM {} {} WHERE {}.bookmark = Bookmark.id)", route.joinTable,
                                      alias, alias),
                          KeyPathType::kNumber, right);
      case K::kToOne:
      case K::kReverseToOne: {
        auto element = elementSql(op, options, alias + "." + route.column, route.type, right);
        if (!element) return element;
        // Without the related row the left side is nil: decide as the evaluator does.
        const bool nilMatches = compareValues(op, options, Value(), right);
        const std::string source =
            route.kind == K::kToOne ? "Bookmark." + route.foreignKey : std::string("Bookmark.id");
        const std::string targetKey = route.kind == K::kToOne ? alias + ".id" : alias + "." + route.foreignKey;
        if (!nilMatches) {
          return fmt::format("coalesce({} IN (SELECT {} FROM {} {} WHERE {}), 0)", source, targetKey, route.table,
                             alias, *element);
        }
        return fmt::format("(NOT coalesce({} IN (SELECT {} FROM {} {} WHERE NOT {}), 0))", source, targetKey,
                           route.table, alias, *element);
      }
      case K::kToMany: {
        auto element = elementSql(op, options, alias + "." + route.column, route.type, right);
        if (!element) return element;
        const std::string join = fmt::format("j{}", aliasCounter_);
        const std::string rows =
            fmt::format("SELECT 1 FROM {} {} JOIN {} {} ON {}.id = {}.{} WHERE {}.bookmark = Bookmark.id", route.joinTable,
                        join, route.table, alias, alias, join, route.joinTarget, join);
        if (modifier == ComparisonModifier::kAll) return fmt::format("(NOT EXISTS ({} AND NOT {}))", rows, *element);
        return fmt::format("EXISTS ({} AND {})", rows, *element);
      }
    }
    return std::string("0");
  }

  // One value of a column against the right side; never NULL.
  Result<std::string> elementSql(ComparisonOperator op, ComparisonOptions options, const std::string& column,
                                 KeyPathType type, const Value& right) {
    if (op == ComparisonOperator::kIn) {
      if (const auto* list = right.list()) {
        if (list->empty()) return std::string("0");
        std::vector<std::string> alternatives;
        for (const auto& item : *list) {
          auto one = elementSql(ComparisonOperator::kEqual, options, column, type, item);
          if (!one) return one;
          alternatives.push_back(std::move(*one));
        }
        return "(" + fmt::format("{}", fmt::join(alternatives, " OR ")) + ")";
      }
    }
    if (op == ComparisonOperator::kBetween) {
      const auto* list = right.list();
      if (list == nullptr || list->size() != 2) return std::string("0");
      auto low = elementSql(ComparisonOperator::kGreaterOrEqual, options, column, type, (*list)[0]);
      if (!low) return low;
      auto high = elementSql(ComparisonOperator::kLessOrEqual, options, column, type, (*list)[1]);
      if (!high) return high;
      return "(" + *low + " AND " + *high + ")";
    }
    const bool nilResult = compareValues(op, options, Value(), right);
    const bool numericColumn = type != KeyPathType::kText;
    const char* sqlOp = nullptr;
    switch (op) {
      case ComparisonOperator::kEqual: sqlOp = "="; break;
      case ComparisonOperator::kNotEqual: sqlOp = "<>"; break;
      case ComparisonOperator::kLess: sqlOp = "<"; break;
      case ComparisonOperator::kLessOrEqual: sqlOp = "<="; break;
      case ComparisonOperator::kGreater: sqlOp = ">"; break;
      case ComparisonOperator::kGreaterOrEqual: sqlOp = ">="; break;
      default: break;
    }
    if (sqlOp != nullptr && !right.isNil()) {
      // Plain SQL where it means the same: numbers against numbers, exact text equality.
      if (numericColumn && right.isNumeric()) {
        return fmt::format("coalesce({} {} {}, {})", column, sqlOp, bind(*right.number()), nilResult ? 1 : 0);
      }
      const bool equality = op == ComparisonOperator::kEqual || op == ComparisonOperator::kNotEqual;
      if (!numericColumn && right.isText() && equality && !options.caseInsensitive && !options.diacriticInsensitive) {
        return fmt::format("coalesce({} {} {}, {})", column, sqlOp, bind(right), nilResult ? 1 : 0);
      }
    }
    if (right.isList()) {
      // Only IN and BETWEEN take lists, handled above; anything else compares a list as a whole.
      // The answer is the same for every single value, nil included.
      return std::string(compareValues(op, options, Value(), right) ? "1" : "0");
    }
    return fmt::format("{}({}, {}, {}, {})", kCompareFunction, operatorCode(op), optionsCode(options), column,
                       bind(right));
  }

  const SqlCompileOptions& options_;
  int aliasCounter_ = 0;
};

}  // namespace

const std::vector<KeyPathInfo>& supportedKeyPaths() {
  static const std::vector<KeyPathInfo> paths = [] {
    std::vector<KeyPathInfo> out;
    for (const auto& entry : routes()) out.push_back(entry.info);
    return out;
  }();
  return paths;
}

std::optional<KeyPathInfo> keyPathInfo(std::string_view path) {
  if (const auto* entry = routeFor(path)) return entry->info;
  return std::nullopt;
}

Result<void> validateKeyPaths(const Predicate& predicate) {
  if (predicate.kind == Predicate::Kind::kComparison) {
    if (auto valid = validateExpression(predicate.left); !valid) return valid;
    return validateExpression(predicate.right);
  }
  for (const auto& sub : predicate.subpredicates) {
    if (auto valid = validateKeyPaths(sub); !valid) return valid;
  }
  return {};
}

int operatorCode(ComparisonOperator op) { return static_cast<int>(op); }

std::optional<ComparisonOperator> operatorFromCode(int code) {
  if (code < 0 || code > static_cast<int>(ComparisonOperator::kBetween)) return std::nullopt;
  return static_cast<ComparisonOperator>(code);
}

int optionsCode(ComparisonOptions options) {
  return (options.caseInsensitive ? 1 : 0) | (options.diacriticInsensitive ? 2 : 0);
}

ComparisonOptions optionsFromCode(int code) { return {(code & 1) != 0, (code & 2) != 0}; }

Result<CompiledQuery> compileToSql(const Predicate& predicate, const SqlCompileOptions& options) {
  Compiler compiler(options);
  auto where = compiler.compile(predicate);
  if (!where) return fail(where.error());
  return CompiledQuery{std::move(*where), std::move(compiler.arguments), compiler.usedIndex};
}

std::optional<std::string> searchIndexQuery(std::string_view text, const std::vector<std::string_view>& columns) {
  const std::string folded = foldForSearch(text);
  if (codePointCount(folded) < 3) return std::nullopt;
  return fmt::format("({{{}}} : {})", fmt::join(columns, " "), ftsPhrase(folded));
}

}  // namespace lectern
