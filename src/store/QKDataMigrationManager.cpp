#include "store/QKDataMigrationManager.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <string>
#include <vector>

#include "core/Log.h"
#include "core/Strings.h"
#include "store/LibraryUpgradeLock.h"
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
  // A step's commit spans two files, so SQLite writes a super-journal ("<file>-mj<random>") beside
  // it; a process killed during that commit leaves it behind for good unless it goes here too.
  const std::string superJournal = store.filename().string() + "-mj";
  std::vector<fs::path> leftovers;
  for (fs::directory_iterator entry(store.parent_path(), error), end; !error && entry != end; entry.increment(error)) {
    if (entry->path().filename().string().starts_with(superJournal)) leftovers.push_back(entry->path());
  }
  for (const auto& leftover : leftovers) fs::remove(leftover, error);
}

Result<void> fileError(std::string_view action, const fs::path& path, const std::error_code& error) {
  return fail(kMigrationErrorDomain, 5, fmt::format("Failed to {} {}", action, path.string()), error.message());
}

// Everything the store's log holds goes into its main file, so that the file alone is complete
// (the backup is that file) and the log left behind is empty.
Result<void> checkpoint(const fs::path& store) {
  auto db = SqliteDatabase::open(store, SqliteDatabase::OpenMode::kReadWrite, kBusyTimeout);
  if (!db) return fail(db.error());
  if (auto done = (*db)->selectOne("PRAGMA wal_checkpoint(TRUNCATE)"); !done) return fail(done.error());
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

QKDataMigrationManager::QKDataMigrationManager(std::vector<MappingModel> mappingModels)
    : mappingModels_(std::move(mappingModels)) {}

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

fs::path QKDataMigrationManager::backupStoreURL(const fs::path& source, std::string_view sourceModelName) {
  return destinationStoreURLWithSourceStoreURL(source, fmt::format("{} backup", sourceModelName));
}

Result<fs::path> QKDataMigrationManager::backupSourceStoreAtURL(const fs::path& source, const fs::path& destination,
                                                                std::string_view sourceModelName) const {
  // The old file stays beside the library under a second name (a hard link, else a copy), and the
  // new one takes its place in one rename: there is no moment without a complete library.
  const fs::path backup = backupStoreURL(source, sourceModelName);
  removeStoreFiles(backup);
  std::error_code error;
  fs::create_hard_link(source, backup, error);
  if (error) {
    error.clear();
    fs::copy_file(source, backup, fs::copy_options::overwrite_existing, error);
    if (error) return fail(fileError("keep a copy of the library at", backup, error).error());
  }
  fs::rename(destination, source, error);
  if (error) return fail(fileError("put the upgraded library in place of", source, error).error());
  // The old log was emptied by the checkpoint; the new file must not meet its index.
  fs::remove(source.string() + "-wal", error);
  fs::remove(source.string() + "-shm", error);
  return backup;
}

Result<StoreMetadata> QKDataMigrationManager::readMetadata(const fs::path& storeURL) {
  auto lock = LibraryUpgradeLock::acquire(storeURL, LibraryUpgradeLock::Mode::kShared);
  if (!lock) return fail(lock.error());
  return readMetadataUnlocked(storeURL);
}

Result<StoreMetadata> QKDataMigrationManager::readMetadataUnlocked(const fs::path& storeURL) {
  std::error_code error;
  if (!fs::exists(storeURL, error)) return StoreMetadata{};
  if (fs::is_directory(storeURL, error)) {
    return fail(kLecternErrorDomain, 103,
                fmt::format("Expected the library file, found a folder ({}).", storeURL.string()));
  }
  // Only SQLite opens the file: reading it any other way and closing it would drop the SQLite
  // locks this process holds on it, and another process could then reset the log under us.
  auto db = SqliteDatabase::open(storeURL, SqliteDatabase::OpenMode::kReadWrite, kBusyTimeout);
  if (!db) db = SqliteDatabase::open(storeURL, SqliteDatabase::OpenMode::kReadOnly, kBusyTimeout);
  if (!db) return fail(db.error());
  auto metadata = readStoreMetadata(**db);
  if (!metadata) {
    if ((metadata.error().code & 0xff) == SQLITE_NOTADB) {
      return fail(kLecternErrorDomain, 104,
                  fmt::format("The library file is not a Lectern library ({}).", storeURL.string()),
                  "It is not a SQLite database. Move it aside and Lectern will start a new library.");
    }
    return metadata;
  }
  if (metadata->hasTables && metadata->applicationId != kLecternApplicationId) {
    return fail(kLecternErrorDomain, 104,
                fmt::format("The library file is not a Lectern library ({}).", storeURL.string()),
                "It holds another program's database. Move it aside and Lectern will start a new library.");
  }
  return metadata;
}

Result<void> QKDataMigrationManager::progressivelyMigrateURL(const fs::path& storeURL,
                                                             const ModelVersion& toModel) {
  auto lock = LibraryUpgradeLock::acquire(storeURL, LibraryUpgradeLock::Mode::kExclusive);
  if (!lock) return fail(lock.error());
  auto original = readMetadataUnlocked(storeURL);
  if (!original) return fail(original.error());
  if (original->versionNumber == toModel.number) return {};  // another process got here first
  if (auto emptied = checkpoint(storeURL); !emptied) return fail(stepFailed(emptied.error(), ""));

  // Every step writes a new file from the previous one; the library itself is replaced once, at
  // the end, so a crash at any point leaves it as it was and the next start begins again.
  fs::path current = storeURL;
  std::string originalModelName;
  auto dropStepFile = [&](const fs::path& step) {
    if (step != storeURL) removeStoreFiles(step);
  };
  for (;;) {
    auto metadata = readMetadataUnlocked(current);
    if (!metadata) {
      dropStepFile(current);
      return fail(metadata.error());
    }
    if (metadata->versionNumber == toModel.number) break;
    const ModelVersion* source = sourceModelForSourceMetadata(*metadata);
    if (source == nullptr || metadata->versionNumber > toModel.number) {
      dropStepFile(current);
      return fail(kMigrationErrorDomain, 3,
                  fmt::format("The library was written by a newer version of Lectern ({}).",
                              describeStoreVersion(*metadata)),
                  "Open it with the version of Lectern that wrote it.");
    }
    if (originalModelName.empty()) originalModelName = source->name;
    auto destination = getDestinationModel(*source);
    if (!destination) {
      dropStepFile(current);
      return fail(destination.error());
    }
    if (delegate_ != nullptr) {
      if (auto models = delegate_->migrationManagerMappingModelsForSourceModel(*this, *source); models) {
        for (const auto& model : *models) {
          if (model.sourceModelName == source->name && model.destinationModelName == destination->modelName) {
            destination->mappingModel = model;
          }
        }
      }
    }
    auto next = migrateStep(current, storeURL, *source, *destination);
    dropStepFile(current);
    if (!next) return fail(next.error());
    current = *next;
  }
  if (current == storeURL) return {};
  auto backup = backupSourceStoreAtURL(storeURL, current, originalModelName);
  if (!backup) {
    removeStoreFiles(current);
    return fail(stepFailed(backup.error(), toModel.name));
  }
  logInfo(kLogCategory, "The {} library was kept at {}", originalModelName, backup->string());
  return {};
}

Error QKDataMigrationManager::stepFailed(const Error& cause, std::string_view modelName) {
  Error error = Error::make(kMigrationErrorDomain, 4,
                            modelName.empty() ? std::string("Failed to migrate the library")
                                              : fmt::format("Failed to migrate the library to {}", modelName),
                            cause.message());
  logError(kLogCategory, "{}", error.message());
  return error;
}

Result<fs::path> QKDataMigrationManager::migrateStep(const fs::path& sourceURL, const fs::path& storeURL,
                                                     const ModelVersion& source, const Destination& destination) {
  const fs::path destinationURL = destinationStoreURLWithSourceStoreURL(storeURL, destination.modelName);
  logInfo(kLogCategory, "Migrating the library from {} to {} ({})", source.name, destination.modelName,
          destinationURL.string());
  if (delegate_ != nullptr)
    delegate_->migrationManagerWillMigrate(*this, source, *destination.model, destinationURL);
  auto failed = [&](const Error& cause) {
    removeStoreFiles(destinationURL);
    return fail(stepFailed(cause, destination.modelName));
  };

  removeStoreFiles(destinationURL);  // what a crashed attempt may have left
  {
    auto db = SqliteDatabase::open(destinationURL, SqliteDatabase::OpenMode::kReadWriteCreate, kBusyTimeout);
    if (!db) return failed(db.error());
    if (auto created = createSchema(**db, *destination.model); !created) return failed(created.error());
    if (auto keys = (*db)->execute("PRAGMA foreign_keys = ON"); !keys) return failed(keys.error());
    const SqlValue path[] = {sourceURL.string()};
    if (auto attached = (*db)->execute("ATTACH DATABASE ? AS src", path); !attached)
      return failed(attached.error());
    {
      auto transaction = Transaction::begin(**db, Transaction::Kind::kImmediate);
      if (!transaction) return failed(transaction.error());
      MigrationManager manager(source, *destination.model, **db);
      auto migrated = manager.migrate(destination.mappingModel, [&](double progress) {
        logDebugMessage(kLogCategory, "progress: {:f}", progress);
        if (delegate_ != nullptr) delegate_->migrationManagerProgress(*this, progress);
      });
      if (!migrated) return failed(migrated.error());
      if (auto committed = transaction->commit(); !committed) return failed(committed.error());
    }
    if (auto detached = (*db)->execute("DETACH DATABASE src"); !detached) return failed(detached.error());
    if (auto emptied = (*db)->selectOne("PRAGMA wal_checkpoint(TRUNCATE)"); !emptied)
      return failed(emptied.error());
  }
  return destinationURL;
}

}  // namespace lectern
