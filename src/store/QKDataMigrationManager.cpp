#include "store/QKDataMigrationManager.h"

#include <fmt/format.h>

#include <array>
#include <fstream>

#include "core/Log.h"
#include "core/Strings.h"
#include "store/MigrationPolicies.h"
#include "store/SqliteDatabase.h"

namespace lectern {
namespace fs = std::filesystem;

namespace {
constexpr std::string_view kLogCategory = "QKDataMigrationManager";
constexpr std::chrono::milliseconds kBusyTimeout{60'000};

void removeStoreFiles(const fs::path& store) {
  std::error_code error;
  fs::remove(store, error);
  fs::remove(store.string() + "-wal", error);
  fs::remove(store.string() + "-shm", error);
  fs::remove(store.string() + "-journal", error);
}

// A rename, or a copy and a delete when the two paths are on different file systems.
Result<void> moveFile(const fs::path& from, const fs::path& to) {
  std::error_code error;
  fs::rename(from, to, error);
  if (!error) return {};
  fs::copy_file(from, to, fs::copy_options::overwrite_existing, error);
  if (!error) fs::remove(from, error);
  if (error) {
    return fail(kMigrationErrorDomain, 5, fmt::format("Failed to move {} to {}", from.string(), to.string()),
                error.message());
  }
  return {};
}
}  // namespace

void QKDataMigrationDelegate::migrationManagerProgress(QKDataMigrationManager&, double) {}
void QKDataMigrationDelegate::migrationManagerWillMigrate(QKDataMigrationManager&, const ModelVersion&,
                                                          const ModelVersion&, const fs::path&) {}
std::optional<std::vector<MappingModel>> QKDataMigrationDelegate::migrationManagerMappingModelsForSourceModel(
    QKDataMigrationManager&, const ModelVersion&) {
  return std::nullopt;
}

QKDataMigrationManager::QKDataMigrationManager(fs::path tempFolder, std::vector<MappingModel> mappingModels)
    : tempFolder_(std::move(tempFolder)), mappingModels_(std::move(mappingModels)) {}

std::vector<MappingModel> QKDataMigrationManager::builtInMappings() { return builtInMappingModels(); }

std::vector<const ModelVersion*> QKDataMigrationManager::modelPaths() {
  std::vector<const ModelVersion*> models;
  for (const auto& version : modelVersions()) models.push_back(&version);
  return models;
}

const ModelVersion* QKDataMigrationManager::sourceModelForSourceMetadata(const StoreMetadata& metadata) {
  const ModelVersion* model = modelVersionNumbered(metadata.versionNumber);
  if (model == nullptr) return nullptr;
  // A store that names its version must name the one its number says.
  if (!metadata.versionName.empty() && metadata.versionName != model->name) return nullptr;
  return model;
}

Result<QKDataMigrationManager::Destination> QKDataMigrationManager::getDestinationModel(
    const ModelVersion& source) const {
  const auto models = modelPaths();
  if (models.empty()) return fail(kMigrationErrorDomain, 1, "No models found!");
  for (const auto* model : models) {
    for (const auto& mapping : mappingModels_) {
      if (mapping.sourceModelName == source.name && mapping.destinationModelName == model->name) {
        return Destination{model, mapping, std::string(model->name)};
      }
    }
  }
  return fail(kMigrationErrorDomain, 2, "No mapping model found in bundle");
}

fs::path QKDataMigrationManager::destinationStoreURLWithSourceStoreURL(const fs::path& source,
                                                                       std::string_view modelName) {
  const fs::path withoutExtension = source.parent_path() / source.stem();
  return fs::path(fmt::format("{}.{}{}", withoutExtension.string(), modelName, source.extension().string()));
}

Result<fs::path> QKDataMigrationManager::backupSourceStoreAtURL(const fs::path& source,
                                                                const fs::path& destination) const {
  std::error_code error;
  const fs::path folder = tempFolder_.empty() ? fs::temp_directory_path() : tempFolder_;
  fs::create_directories(folder, error);
  const fs::path backup = folder / (UUIDString() + source.extension().string());
  if (auto moved = moveFile(source, backup); !moved) return fail(moved.error());
  if (auto moved = moveFile(destination, source); !moved) {
    // Put the old store back: the library must never be left without a store.
    if (auto restored = moveFile(backup, source); !restored) {
      logError(kLogCategory, "Failed to restore the library from {}: {}", backup.string(),
               restored.error().message());
    }
    return fail(moved.error());
  }
  fs::remove(source.string() + "-wal", error);
  fs::remove(source.string() + "-shm", error);
  return backup;
}

Result<StoreMetadata> QKDataMigrationManager::readMetadata(const fs::path& storeURL) {
  std::error_code error;
  if (!fs::exists(storeURL, error)) return StoreMetadata{};
  if (fs::is_directory(storeURL, error)) {
    return fail(kLecternErrorDomain, 103,
                fmt::format("Expected the library file, found a folder ({}).", storeURL.string()));
  }
  std::array<char, 16> header{};
  std::ifstream in(storeURL, std::ios::binary);
  in.read(header.data(), header.size());
  const auto got = in.gcount();
  if (got > 0 &&
      (got < 16 || std::string_view(header.data(), 16) != std::string_view("SQLite format 3\0", 16))) {
    return fail(kLecternErrorDomain, 104,
                fmt::format("The library file is not a Lectern library ({}).", storeURL.string()),
                "It is not a SQLite database. Move it aside and Lectern will start a new library.");
  }
  auto db = SqliteDatabase::open(storeURL, SqliteDatabase::OpenMode::kReadWrite, kBusyTimeout);
  if (!db) db = SqliteDatabase::open(storeURL, SqliteDatabase::OpenMode::kReadOnly, kBusyTimeout);
  if (!db) return fail(db.error());
  auto metadata = readStoreMetadata(**db);
  if (!metadata) return metadata;
  if (metadata->hasTables && metadata->applicationId != kLecternApplicationId) {
    return fail(kLecternErrorDomain, 104,
                fmt::format("The library file is not a Lectern library ({}).", storeURL.string()),
                "It holds another program's database. Move it aside and Lectern will start a new library.");
  }
  return metadata;
}

Result<void> QKDataMigrationManager::progressivelyMigrateURL(const fs::path& storeURL,
                                                             const ModelVersion& toModel) {
  for (;;) {
    auto metadata = readMetadata(storeURL);
    if (!metadata) return fail(metadata.error());
    if (metadata->versionNumber == toModel.number) return {};
    const ModelVersion* source = sourceModelForSourceMetadata(*metadata);
    if (source == nullptr || metadata->versionNumber > toModel.number) {
      return fail(kMigrationErrorDomain, 3,
                  fmt::format("The library was written by a newer version of Lectern ({}).",
                              describeStoreVersion(*metadata)),
                  "Open it with the version of Lectern that wrote it.");
    }
    auto destination = getDestinationModel(*source);
    if (!destination) return fail(destination.error());
    if (delegate_ != nullptr) {
      if (auto models = delegate_->migrationManagerMappingModelsForSourceModel(*this, *source); models) {
        for (const auto& model : *models) {
          if (model.sourceModelName == source->name && model.destinationModelName == destination->modelName) {
            destination->mappingModel = model;
          }
        }
      }
    }
    if (auto stepped = migrateStep(storeURL, *source, *destination); !stepped) return stepped;
  }
}

Result<void> QKDataMigrationManager::migrateStep(const fs::path& storeURL, const ModelVersion& source,
                                                 const Destination& destination) {
  const fs::path destinationURL = destinationStoreURLWithSourceStoreURL(storeURL, destination.modelName);
  logInfo(kLogCategory, "Migrating the library from {} to {} ({})", source.name, destination.modelName,
          destinationURL.string());
  if (delegate_ != nullptr)
    delegate_->migrationManagerWillMigrate(*this, source, *destination.model, destinationURL);
  auto stepFailed = [&](const Error& cause) {
    removeStoreFiles(destinationURL);
    Error error = Error::make(kMigrationErrorDomain, 4,
                              fmt::format("Failed to migrate the library to {}", destination.modelName),
                              cause.message());
    logError(kLogCategory, "{}", error.message());
    return fail(std::move(error));
  };

  // Bring everything the old store's log holds into its main file first, so that the copy moved
  // aside afterwards is complete on its own.
  {
    auto sourceDb = SqliteDatabase::open(storeURL, SqliteDatabase::OpenMode::kReadWrite, kBusyTimeout);
    if (!sourceDb) return stepFailed(sourceDb.error());
    if (auto checkpoint = (*sourceDb)->selectOne("PRAGMA wal_checkpoint(TRUNCATE)"); !checkpoint) {
      return stepFailed(checkpoint.error());
    }
  }

  removeStoreFiles(destinationURL);  // what a crashed attempt may have left
  {
    auto db = SqliteDatabase::open(destinationURL, SqliteDatabase::OpenMode::kReadWriteCreate, kBusyTimeout);
    if (!db) return stepFailed(db.error());
    if (auto created = createSchema(**db, *destination.model); !created) return stepFailed(created.error());
    if (auto keys = (*db)->execute("PRAGMA foreign_keys = ON"); !keys) return stepFailed(keys.error());
    const SqlValue path[] = {storeURL.string()};
    if (auto attached = (*db)->execute("ATTACH DATABASE ? AS src", path); !attached)
      return stepFailed(attached.error());
    {
      auto transaction = Transaction::begin(**db, Transaction::Kind::kImmediate);
      if (!transaction) return stepFailed(transaction.error());
      MigrationManager manager(source, *destination.model, **db);
      auto migrated = manager.migrate(destination.mappingModel, [&](double progress) {
        logDebugMessage(kLogCategory, "progress: {:f}", progress);
        if (delegate_ != nullptr) delegate_->migrationManagerProgress(*this, progress);
      });
      if (!migrated) return stepFailed(migrated.error());
      if (auto committed = transaction->commit(); !committed) return stepFailed(committed.error());
    }
    if (auto detached = (*db)->execute("DETACH DATABASE src"); !detached) return stepFailed(detached.error());
  }
  auto backup = backupSourceStoreAtURL(storeURL, destinationURL);
  if (!backup) return stepFailed(backup.error());
  logInfo(kLogCategory, "The {} library was kept at {}", source.name, backup->string());
  return {};
}

}  // namespace lectern
