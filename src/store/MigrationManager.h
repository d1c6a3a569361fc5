#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Error.h"
#include "store/ModelVersion.h"
#include "store/SqlValue.h"

namespace lectern {

class EntityMigrationPolicy;
class SqliteDatabase;

inline constexpr std::string_view kMigrationErrorDomain = "com.quillhq.Lectern.Migration";

// How one entity's rows are carried into the next model version. A missing policy copies as
// the default mapping does.
struct EntityMapping {
  std::string sourceEntity;                     // "Bookmark"
  std::string destinationEntity;                // "Bookmark"
  std::map<std::string, std::string> userInfo;  // "modelVersion": "2.41"
  std::shared_ptr<EntityMigrationPolicy> policy;
};

// Every entity mapping of one step between two model versions.
struct MappingModel {
  std::string sourceModelName;
  std::string destinationModelName;
  std::vector<EntityMapping> entityMappings;
};

// One source row as a policy sees it: its entity, row id and every column by name.
struct SourceInstance {
  std::string entity;
  std::int64_t row = 0;
  std::map<std::string, SqlValue> values;

  // NULL for a column the source does not have.
  const SqlValue& value(std::string_view column) const;
};

// Runs one step: the source store (attached as "src") written into the destination through the
// mapping's policies, in one transaction; rows keep their ids. Used by one thread.
class MigrationManager {
 public:
  MigrationManager(const ModelVersion& sourceModel, const ModelVersion& destinationModel,
                   SqliteDatabase& destination);

  const ModelVersion& sourceModel() const { return sourceModel_; }
  const ModelVersion& destinationModel() const { return destinationModel_; }

  // Migrates every entity mapping, then the memberships. `progress` hears 0..1 as rows go by.
  Result<void> migrate(const MappingModel& mapping, const std::function<void(double)>& progress);

  // Inserts a row of `entity` in the destination. Columns the destination lacks are left out;
  // an "id" value keeps the row id. Returns the new row's id.
  Result<std::int64_t> insertDestinationInstance(std::string_view entity,
                                                 const std::map<std::string, SqlValue>& values);
  // The columns a table has in the destination model.
  Result<std::vector<std::string>> destinationColumns(std::string_view table);
  // The `service` of a source account row; nothing when the row does not exist.
  Result<std::optional<std::string>> sourceAccountService(std::int64_t accountRow);

  double migrationProgress() const { return progress_; }

 private:
  Result<std::vector<std::string>> columnsOf(std::string_view schema, std::string_view table);
  Result<void> copyMemberships();

  const ModelVersion& sourceModel_;
  const ModelVersion& destinationModel_;
  SqliteDatabase& db_;
  std::map<std::string, std::vector<std::string>> columnCache_;  // "schema.table" -> columns
  double progress_ = 0;
};

// The default mapping of one entity, and the base of the custom policies: copies every source
// attribute the destination also has and whose value is not NULL.
class EntityMigrationPolicy {
 public:
  virtual ~EntityMigrationPolicy() = default;
  virtual Result<void> createDestinationInstancesForSourceInstance(const SourceInstance& source,
                                                                   const EntityMapping& mapping,
                                                                   MigrationManager& manager);

 protected:
  // The default copy, with `overrides` replacing or adding values. Returns the destination row.
  static Result<std::int64_t> copyAttributes(const SourceInstance& source, const EntityMapping& mapping,
                                             MigrationManager& manager,
                                             const std::map<std::string, SqlValue>& overrides = {});
};

// The mapping's "modelVersion" read as a number: "." separates decimals, "," groups thousands.
std::optional<double> modelVersionOf(const EntityMapping& mapping);

}  // namespace lectern
