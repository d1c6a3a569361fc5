#include "store/MigrationManager.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "store/EntitySchema.h"
#include "store/SearchFunctions.h"
#include "store/SqliteDatabase.h"
#include "core/Strings.h"

namespace lectern {
namespace {

// Memberships: table, its two columns and the tables they point into.
struct Membership {
  std::string_view table, left, leftTable, right, rightTable;
};
constexpr Membership kMemberships[] = {
    {"Folder_bookmarks", "folder", "Folder", "bookmark", "Bookmark"},
    {"FeedFolder_feeds", "feedfolder", "Folder", "feed", "Folder"},
    {"Token_bookmarks", "token", "Token", "bookmark", "Bookmark"},
};

std::string tableForEntity(std::string_view entity) {
  const auto known = entityNamed(entity);
  return known ? std::string(tableName(tableOf(*known))) : std::string(entity);
}

bool contains(const std::vector<std::string>& names, std::string_view name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace

const SqlValue& SourceInstance::value(std::string_view column) const {
  static const SqlValue kNull;
  auto found = values.find(std::string(column));
  return found == values.end() ? kNull : found->second;
}

std::optional<double> modelVersionOf(const EntityMapping& mapping) {
  auto found = mapping.userInfo.find("modelVersion");
  if (found == mapping.userInfo.end()) return std::nullopt;
  std::string digits;
  for (char c : found->second) {
    if (c != ',') digits += c;
  }
  double value = 0;
  const auto* end = digits.data() + digits.size();
  if (digits.empty() || fromChars(digits.data(), end, value).ptr != end) return std::nullopt;
  return value;
}

MigrationManager::MigrationManager(const ModelVersion& sourceModel, const ModelVersion& destinationModel,
                                   SqliteDatabase& destination)
    : sourceModel_(sourceModel), destinationModel_(destinationModel), db_(destination) {}

Result<std::vector<std::string>> MigrationManager::columnsOf(std::string_view schema,
                                                             std::string_view table) {
  const std::string key = fmt::format("{}.{}", schema, table);
  if (auto found = columnCache_.find(key); found != columnCache_.end()) return found->second;
  // Table names come from the mapping model, never from stored data.
  auto rows = db_.selectAll("SELECT name FROM pragma_table_info(?, ?)",
                            std::vector<SqlValue>{std::string(table), std::string(schema)});
  if (!rows) return fail(rows.error());
  std::vector<std::string> columns;
  for (const auto& row : *rows) columns.push_back(textOf(row[0]).value_or(""));
  columnCache_[key] = columns;
  return columns;
}

Result<std::vector<std::string>> MigrationManager::destinationColumns(std::string_view table) {
  return columnsOf("main", table);
}

Result<std::int64_t> MigrationManager::insertDestinationInstance(
    std::string_view entity, const std::map<std::string, SqlValue>& values) {
  const std::string table = tableForEntity(entity);
  auto columns = destinationColumns(table);
  if (!columns) return fail(columns.error());
  if (columns->empty()) return fail(kMigrationErrorDomain, 4, fmt::format("No table for entity {}", entity));
  std::string names;
  std::string marks;
  std::vector<SqlValue> arguments;
  auto add = [&](const std::string& name, const SqlValue& value) {
    names += fmt::format("{}{}", names.empty() ? "" : ", ", name);
    marks += marks.empty() ? "?" : ", ?";
    arguments.push_back(value);
  };
  for (const auto& [name, value] : values) {
    if (contains(*columns, name) && name != "entity") add(name, value);
  }
  if (contains(*columns, "entity")) add("entity", std::string(entity));
  if (auto done =
          db_.execute(fmt::format("INSERT INTO main.{} ({}) VALUES ({})", table, names, marks), arguments);
      !done) {
    return fail(done.error());
  }
  return db_.lastInsertRowId();
}

Result<std::optional<std::string>> MigrationManager::sourceAccountService(std::int64_t accountRow) {
  const SqlValue row[] = {accountRow};
  auto found = db_.selectOne("SELECT service FROM src.Account WHERE id = ?", row);
  if (!found) return fail(found.error());
  if (!*found) return std::optional<std::string>();
  return textOf((**found)[0]);
}

Result<void> MigrationManager::migrate(const MappingModel& mapping,
                                       const std::function<void(double)>& progress) {
  struct Plan {
    const EntityMapping* mapping;
    std::string sql;
    std::vector<SqlValue> arguments;
    std::vector<std::string> columns;
  };
  std::vector<Plan> plans;
  std::int64_t total = 0;
  for (const auto& entityMapping : mapping.entityMappings) {
    const std::string table = tableForEntity(entityMapping.sourceEntity);
    auto columns = columnsOf("src", table);
    if (!columns) return fail(columns.error());
    if (columns->empty()) continue;  // the source version has no such table
    Plan plan{&entityMapping, {}, {}, *columns};
    std::string list;
    for (const auto& column : *columns) list += fmt::format("{}{}", list.empty() ? "" : ", ", column);
    plan.sql = fmt::format("SELECT {} FROM src.{}", list, table);
    if (contains(*columns, "entity")) {
      plan.sql += " WHERE entity = ?";
      plan.arguments.push_back(entityMapping.sourceEntity);
    }
    auto counted = db_.selectOne(fmt::format("SELECT count(*) FROM ({})", plan.sql), plan.arguments);
    if (!counted) return fail(counted.error());
    total += integerOf((**counted)[0]).value_or(0);
    plan.sql += " ORDER BY id";
    plans.push_back(std::move(plan));
  }

  EntityMigrationPolicy defaultPolicy;
  std::int64_t done = 0;
  auto report = [&] {
    progress_ = total == 0 ? 1.0 : static_cast<double>(done) / static_cast<double>(total);
    if (progress) progress(progress_);
  };
  for (const auto& plan : plans) {
    auto rows = db_.selectAll(plan.sql, plan.arguments);
    if (!rows) return fail(rows.error());
    EntityMigrationPolicy& policy = plan.mapping->policy ? *plan.mapping->policy : defaultPolicy;
    for (const auto& row : *rows) {
      SourceInstance source;
      source.entity = plan.mapping->sourceEntity;
      for (size_t i = 0; i < plan.columns.size() && i < row.size(); ++i)
        source.values[plan.columns[i]] = row[i];
      source.row = integerOf(source.value("id")).value_or(0);
      if (auto created = policy.createDestinationInstancesForSourceInstance(source, *plan.mapping, *this);
          !created) {
        return created;
      }
      if (++done % 500 == 0) report();
    }
    report();
  }
  if (auto copied = copyMemberships(); !copied) return copied;
  // The copied stories were noted for the search index; they are indexed once, here.
  if (auto indexed = updateSearchIndex(db_); !indexed) return fail(indexed.error());
  done = total;
  report();
  return {};
}

Result<void> MigrationManager::copyMemberships() {
  for (const auto& membership : kMemberships) {
    auto source = columnsOf("src", membership.table);
    if (!source) return fail(source.error());
    auto destination = destinationColumns(membership.table);
    if (!destination) return fail(destination.error());
    if (source->empty() || destination->empty()) continue;
    // Only memberships whose both ends were carried over (a folder may have been left behind).
    const std::string sql = fmt::format(
        "INSERT OR IGNORE INTO main.{0} ({1}, {3}) SELECT {1}, {3} FROM src.{0}"
        " WHERE {1} IN (SELECT id FROM main.{2}) AND {3} IN (SELECT id FROM main.{4})",
        membership.table, membership.left, membership.leftTable, membership.right, membership.rightTable);
    if (auto copied = db_.execute(sql); !copied) return copied;
  }
  // The records of deleted entries hang off their feed alone (since 2.8).
  auto source = columnsOf("src", "DeletedEntry");
  if (!source) return fail(source.error());
  auto destination = destinationColumns("DeletedEntry");
  if (!destination) return fail(destination.error());
  if (source->empty() || destination->empty()) return {};
  return db_.execute(
      "INSERT OR IGNORE INTO main.DeletedEntry (feed, entry_id) SELECT feed, entry_id FROM src.DeletedEntry"
      " WHERE feed IN (SELECT id FROM main.Folder)");
}

Result<void> EntityMigrationPolicy::createDestinationInstancesForSourceInstance(const SourceInstance& source,
                                                                                const EntityMapping& mapping,
                                                                                MigrationManager& manager) {
  auto row = copyAttributes(source, mapping, manager);
  if (!row) return fail(row.error());
  return {};
}

Result<std::int64_t> EntityMigrationPolicy::copyAttributes(const SourceInstance& source,
                                                           const EntityMapping& mapping,
                                                           MigrationManager& manager,
                                                           const std::map<std::string, SqlValue>& overrides) {
  std::map<std::string, SqlValue> values;
  for (const auto& [name, value] : source.values) {
    if (!isNull(value)) values[name] = value;
  }
  for (const auto& [name, value] : overrides) values[name] = value;
  return manager.insertDestinationInstance(mapping.destinationEntity, values);
}

}  // namespace lectern
