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

// Brings a store up to a model version one step at a time, each step writing a new file from the
// last; the store is replaced once, at the end, and kept beside it as a backup. Runs on its caller's
// thread before any context of this process opens the store, under the library's upgrade lock.
class QKDataMigrationManager {
 public:
  explicit QKDataMigrationManager(std::vector<MappingModel> mappingModels = builtInMappings());

  void setDelegate(QKDataMigrationDelegate* delegate) { delegate_ = delegate; }
  QKDataMigrationDelegate* delegate() const { return delegate_; }

  // Holds the upgrade lock throughout, so a second process waits and then finds the work done.
  // Any failure, a crash included, leaves the store as it was.
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
  // "/a/Lectern.storedata" and "Lectern 2.4" give "/a/Lectern.Lectern 2.4 backup.storedata".
  static std::filesystem::path backupStoreURL(const std::filesystem::path& source, std::string_view sourceModelName);
  // Keeps the source store beside itself as the backup of `sourceModelName` and moves the
  // destination into its place with one rename, then deletes the source's emptied "-wal" and
  // "-shm" companions. Returns the backup's path.
  Result<std::filesystem::path> backupSourceStoreAtURL(const std::filesystem::path& source,
                                                       const std::filesystem::path& destination,
                                                       std::string_view sourceModelName) const;

  // Reads a store file's version without changing it, through SQLite alone: a file that is not
  // SQLite, or a SQLite database that is not a Lectern library, is an error. Waits while another
  // process upgrades the library.
  static Result<StoreMetadata> readMetadata(const std::filesystem::path& storeURL);

 private:
  static std::vector<MappingModel> builtInMappings();
  static Result<StoreMetadata> readMetadataUnlocked(const std::filesystem::path& storeURL);
  static Error stepFailed(const Error& cause, std::string_view modelName);
  // Writes the step's file from `sourceURL` (the library or the previous step's file) and
  // answers its path.
  Result<std::filesystem::path> migrateStep(const std::filesystem::path& sourceURL,
                                            const std::filesystem::path& storeURL, const ModelVersion& source,
                                            const Destination& destination);

  std::vector<MappingModel> mappingModels_;
  QKDataMigrationDelegate* delegate_ = nullptr;
};

}  // namespace lectern
