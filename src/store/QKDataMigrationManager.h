#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Error.h"
#include "store/MigrationManager.h"
#include "store/ModelVersion.h"

namespace lectern {

class QKDataMigrationManager;

// Hears a migration's progress and may supply the mapping models of a step.
class QKDataMigrationDelegate {
 public:
  virtual ~QKDataMigrationDelegate() = default;
  // 0..1 within the current step.
  virtual void migrationManagerProgress(QKDataMigrationManager& manager, double progress);
  // A step from `source` to `destination` is about to write `destinationStore`.
  virtual void migrationManagerWillMigrate(QKDataMigrationManager& manager, const ModelVersion& source,
                                           const ModelVersion& destination,
                                           const std::filesystem::path& destinationStore);
  // The mapping models to use for the step from `source` instead of the built-in ones.
  virtual std::optional<std::vector<MappingModel>> migrationManagerMappingModelsForSourceModel(
      QKDataMigrationManager& manager, const ModelVersion& source);
};

// Brings a store up to a model version one step at a time, each through its own file; a failing step
// leaves the store as it was. Runs on its caller's thread before any context opens the store.
class QKDataMigrationManager {
 public:
  explicit QKDataMigrationManager(std::filesystem::path tempFolder,
                                  std::vector<MappingModel> mappingModels = builtInMappings());

  void setDelegate(QKDataMigrationDelegate* delegate) { delegate_ = delegate; }
  QKDataMigrationDelegate* delegate() const { return delegate_; }

  Result<void> progressivelyMigrateURL(const std::filesystem::path& storeURL, const ModelVersion& toModel);

  // Every model version Lectern knows, oldest first.
  static std::vector<const ModelVersion*> modelPaths();
  // The known version the store says it is; nullptr for an unknown (newer) one.
  static const ModelVersion* sourceModelForSourceMetadata(const StoreMetadata& metadata);

  struct Destination {
    const ModelVersion* model = nullptr;
    MappingModel mappingModel;
    std::string modelName;
  };
  // The first model version a mapping model leads to from `source`.
  Result<Destination> getDestinationModel(const ModelVersion& source) const;
  // "/a/Lectern.storedata" and "Lectern 2.41" give "/a/Lectern.Lectern 2.41.storedata".
  static std::filesystem::path destinationStoreURLWithSourceStoreURL(const std::filesystem::path& source,
                                                                     std::string_view modelName);
  // Moves the source store into the temporary folder and the destination into its place, then
  // deletes the source's "-wal" and "-shm" companions. Returns where the old store went.
  Result<std::filesystem::path> backupSourceStoreAtURL(const std::filesystem::path& source,
                                                       const std::filesystem::path& destination) const;

  // Reads a store file's version without changing it: a file that is not SQLite, or a SQLite
  // database that is not a Lectern library, is an error.
  static Result<StoreMetadata> readMetadata(const std::filesystem::path& storeURL);

 private:
  static std::vector<MappingModel> builtInMappings();
  Result<void> migrateStep(const std::filesystem::path& storeURL, const ModelVersion& source,
                           const Destination& destination);

  std::filesystem::path tempFolder_;
  std::vector<MappingModel> mappingModels_;
  QKDataMigrationDelegate* delegate_ = nullptr;
};

}  // namespace lectern
