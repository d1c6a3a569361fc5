#include "smart/library/SmartFolderQuery.h"

#include <fmt/format.h>

#include "smart/PredicateEvaluator.h"
#include "smart/RowTemplates.h"
#include "smart/SqlCompiler.h"
#include "smart/library/BookmarkPredicateObject.h"
#include "store/Bookmark.h"
#include "store/ObjectContext.h"
#include "store/SmartFolder.h"

namespace lectern {

namespace {

SqlValue sqlValueOf(const Value& value) {
  if (value.isNil()) return SqlValue();
  if (const auto* text = value.text()) return *text;
  if (const auto number = value.number()) return *number;
  return SqlValue();
}

// The scope as SQL on the Bookmark table.
std::string scopeCondition(const LibraryScope& scope, std::vector<SqlValue>& arguments) {
  std::string where = "1";
  if (!scope.accounts.empty()) {
    where += " AND Bookmark.account IN (";
    for (size_t i = 0; i < scope.accounts.size(); ++i) {
      where += i == 0 ? "?" : ", ?";
      arguments.push_back(scope.accounts[i].row);
    }
    where += ")";
  }
  if (scope.unreadOnly) where += " AND coalesce(Bookmark.is_archived, 0) = 0";
  return where;
}

Result<std::vector<std::shared_ptr<Bookmark>>> evaluateInMemory(ObjectContext& context, const Predicate& predicate,
                                                                Date now, const LibraryScope& scope) {
  ObjectContext::FetchRequest request;
  request.where = scopeCondition(scope, request.arguments);
  request.orderBy = "date_added DESC, id DESC";
  auto all = context.fetch<Bookmark>(std::move(request));
  if (!all) return fail(all.error());
  const EvaluationContext evaluation{secondsSince1970(now)};
  std::vector<std::shared_ptr<Bookmark>> matching;
  for (auto& bookmark : *all) {
    if (scope.limit && static_cast<std::int64_t>(matching.size()) >= *scope.limit) break;
    if (evaluatePredicate(predicate, BookmarkPredicateObject(*bookmark), evaluation)) {
      matching.push_back(std::move(bookmark));
    }
  }
  return matching;
}

Predicate rebuiltForFetch(const Predicate& predicate) {
  if (predicate.kind != Predicate::Kind::kAnd && predicate.kind != Predicate::Kind::kOr) return predicate;
  std::vector<Predicate> parts;
  for (const auto& part : predicate.subpredicates) parts.push_back(rebuiltForFetch(part));
  return predicate.kind == Predicate::Kind::kAnd ? Predicate::andOf(std::move(parts)) : Predicate::orOf(std::move(parts));
}

}  // namespace

Result<Predicate> predicateFromStoredText(std::string_view text) {
  auto parsed = parsePredicate(text);
  if (!parsed) return parsed;
  Predicate converted = convertOldFolderPredicates(*parsed);
  if (auto valid = validateKeyPaths(converted); !valid) return fail(valid.error());
  return converted;
}

Result<Predicate> fetchPredicate(const SmartFolder& folder) {
  const auto stored = folder.predicate();
  if (!stored || stored->empty()) {
    return fail(kPredicateErrorDomain, 7,
                fmt::format("The smart folder \"{}\" has no condition", folder.title().value_or("")));
  }
  auto predicate = predicateFromStoredText(*stored);
  if (!predicate) {
    Error error = predicate.error();
    error.description = fmt::format("The smart folder \"{}\": {}", folder.title().value_or(""), error.description);
    return fail(std::move(error));
  }
  return rebuiltForFetch(*predicate);
}

Result<std::vector<std::shared_ptr<Bookmark>>> fetchMatchingBookmarks(ObjectContext& context, const Predicate& predicate,
                                                                      Date now, const LibraryScope& scope) {
  auto compiled = compileToSql(predicate, SqlCompileOptions{secondsSince1970(now), true});
  if (!compiled) return evaluateInMemory(context, predicate, now, scope);
  ObjectContext::FetchRequest request;
  for (const auto& argument : compiled->arguments) request.arguments.push_back(sqlValueOf(argument));
  request.where = "(" + compiled->where + ") AND " + scopeCondition(scope, request.arguments);
  request.orderBy = "date_added DESC, id DESC";
  request.limit = scope.limit;
  return context.fetch<Bookmark>(std::move(request));
}

void narrowToFilter(Predicate& predicate, LibraryScope& scope, BookmarkFilter filter) {
  if (filter == BookmarkFilter::kUnread) scope.unreadOnly = true;
  if (filter == BookmarkFilter::kStarred) {
    predicate = Predicate::andOf({std::move(predicate), QKBooleanRowTemplate{"is_favorited", true}.predicateWithSubpredicates()});
  }
}

Result<std::int64_t> countMatchingBookmarks(ObjectContext& context, const Predicate& predicate, Date now,
                                            const LibraryScope& scope) {
  auto compiled = compileToSql(predicate, SqlCompileOptions{secondsSince1970(now), true});
  if (!compiled) {
    LibraryScope unlimited = scope;
    unlimited.limit.reset();
    auto matching = evaluateInMemory(context, predicate, now, unlimited);
    if (!matching) return fail(matching.error());
    return static_cast<std::int64_t>(matching->size());
  }
  std::vector<SqlValue> arguments;
  for (const auto& argument : compiled->arguments) arguments.push_back(sqlValueOf(argument));
  const std::string where = "(" + compiled->where + ") AND " + scopeCondition(scope, arguments);
  return context.count(Entity::kBookmark, where, std::move(arguments));
}

}  // namespace lectern
