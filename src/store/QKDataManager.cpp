#include "store/QKDataManager.h"

#include <fmt/format.h>
#include <unistd.h>

#include "core/Log.h"
#include "core/MainQueue.h"
#include "store/QKDataMigrationManager.h"
#include "store/SqliteDatabase.h"

namespace lectern {
namespace fs = std::filesystem;

namespace {
constexpr std::string_view kLogCategory = "QKDataManager";
constexpr int kFolderIsAFile = 101;
constexpr int kStoreNotWritable = 102;
constexpr int kStoreNewer = 105;

std::string userInfoText(const Error& error) {
  std::string text;
  for (const auto& [key, value] : error.userInfo)
    text += fmt::format("{}{} = {}", text.empty() ? "" : "\n", key, value);
  return text;
}
}  // namespace

QKDataManager::QKDataManager(Paths paths, UserDefaults& defaults, MainQueue& mainQueue, const Clock& clock,
                             Reachability& reachability, SecretStore* secretStore)
    : environment_(std::move(paths), defaults, mainQueue, clock, reachability, secretStore) {}

QKDataManager::~QKDataManager() {
  if (mainContext_) save();
  alive_.reset();
  mainContext_.reset();
}

Result<void> QKDataManager::isPersistentStoreWritable(const fs::path& storeURL) {
  std::error_code error;
  if (!fs::exists(storeURL, error) || ::access(storeURL.c_str(), W_OK) == 0) return {};
  Error failure =
      Error::make(kLecternErrorDomain, kStoreNotWritable,
                  fmt::format("The library file can't be written ({}).", storeURL.string()),
                  "Lectern needs to save to its library. Give yourself write permission on the file, "
                  "or close Lectern.");
  failure.userInfo[std::string(kRecoveryOptionsKey)] =
      fmt::format("{}\n{}", kRecoveryOptionClose, kRecoveryOptionReveal);
  failure.userInfo[std::string(kFilePathKey)] = storeURL.string();
  return fail(std::move(failure));
}

Result<StoreMetadata> QKDataManager::sourceMetadata() const {
  return QKDataMigrationManager::readMetadata(storeURL());
}

bool QKDataManager::isMigrationNeeded() const {
  bool needed = false;
  if (auto metadata = sourceMetadata(); metadata) {
    const bool empty = metadata->versionNumber == 0 && !metadata->hasTables;
    needed = !empty && metadata->versionNumber != currentModelVersion().number;
  }
  logInfo(kLogCategory, "isMigrationNeeded: {}", needed ? 1 : 0);
  return needed;
}

Result<void> QKDataManager::migrate(QKDataMigrationDelegate* delegate) {
  if (mainContext_) {
    // Replacing the file under an open connection would lose what it writes.
    throw InternalInconsistency("The library is migrated before its main context opens");
  }
  if (auto writable = isPersistentStoreWritable(storeURL()); !writable) return writable;
  QKDataMigrationManager manager;
  manager.setDelegate(delegate);
  auto migrated = manager.progressivelyMigrateURL(storeURL(), currentModelVersion());
  if (migrated) logInfo(kLogCategory, "migration complete");
  return migrated;
}

Result<void> QKDataManager::checkApplicationFolder() const {
  const fs::path& folder = applicationFilesDirectory();
  std::error_code error;
  const auto status = fs::status(folder, error);
  if (fs::exists(status)) {
    if (fs::is_directory(status)) return {};
    return fail(
        kLecternErrorDomain, kFolderIsAFile,
        fmt::format("Expected a folder to store application data, found a file ({}).", folder.string()));
  }
  fs::create_directories(folder, error);
  if (error) {
    return fail(kLecternErrorDomain, error.value(),
                fmt::format("Failed to create the folder for application data ({}).", folder.string()),
                error.message());
  }
  return {};
}

Result<void> QKDataManager::openStore() {
  if (mainContext_) return {};
  if (!environment_.mainQueue().isMainThread()) {
    throw InternalInconsistency("The main context belongs to the main thread");
  }
  auto opened = [&]() -> Result<void> {
    if (auto folder = checkApplicationFolder(); !folder) return folder;
    if (auto writable = isPersistentStoreWritable(storeURL()); !writable) return writable;
    auto metadata = sourceMetadata();
    if (!metadata) return fail(metadata.error());
    const int current = currentModelVersion().number;
    if (metadata->versionNumber > current) {
      return fail(kLecternErrorDomain, kStoreNewer,
                  fmt::format("The library was written by a newer version of Lectern ({}).",
                              describeStoreVersion(*metadata)),
                  "Open it with the version of Lectern that wrote it.");
    }
    if (metadata->versionNumber == 0 && !metadata->hasTables) {
      auto db = SqliteDatabase::open(storeURL(), SqliteDatabase::OpenMode::kReadWriteCreate,
                                     std::chrono::milliseconds(60'000));
      if (!db) return fail(db.error());
      if (auto created = createSchema(**db, currentModelVersion()); !created) return created;
    } else if (metadata->versionNumber != current) {
      if (auto migrated = migrate(nullptr); !migrated) return migrated;
    }
    auto context = ObjectContext::open(storeURL(), ObjectContext::Kind::kMain, environment_, this);
    if (!context) return fail(context.error());
    mainContext_ = std::move(*context);
    return {};
  }();
  if (!opened)
    logError(kLogCategory, "Fatal error while creating persistent store: {}", opened.error().message());
  return opened;
}

Result<ObjectContext*> QKDataManager::managedObjectContext() {
  if (auto opened = openStore(); !opened) return fail(opened.error());
  return mainContext_.get();
}

Result<std::unique_ptr<ObjectContext>> QKDataManager::newBackgroundContext() {
  std::error_code error;
  if (!fs::exists(storeURL(), error)) {
    return fail(kStoreErrorDomain, 4, "Failed to open a background context: the library is not open");
  }
  return ObjectContext::open(storeURL(), ObjectContext::Kind::kBackground, environment_, this);
}

void QKDataManager::contextDidSave(ObjectContext& context, const ContextDidSave& changes) {
  if (context.isMainContext()) return;
  // The main context learns of a background save on its own thread, the store winning.
  std::weak_ptr<Alive> alive = alive_;
  environment_.mainQueue().post([this, alive, changes] {
    if (alive.expired() || !mainContext_) return;
    mainContext_->mergeChangesFromContextDidSave(changes);
  });
}

bool QKDataManager::save() {
  if (!mainContext_ || !mainContext_->hasChanges()) return true;
  auto saved = mainContext_->save();
  if (saved) {
    post(kDidSaveNotification);
    return true;
  }
  logError(kLogCategory, "Error while saving: {}\n{}", saved.error().description,
           userInfoText(saved.error()));
  post(kDidSaveFailedNotification);
  return false;
}

Result<void> QKDataManager::saveForTermination() {
  if (!mainContext_ || !mainContext_->hasChanges()) return {};
  auto saved = mainContext_->save();
  if (saved) {
    post(kDidSaveNotification);
    return {};
  }
  logError(kLogCategory, "Error while saving: {}\n{}", saved.error().description,
           userInfoText(saved.error()));
  post(kDidSaveFailedNotification);
  return saved;
}

void QKDataManager::attemptRecoveryFromError(const Error& error, int optionIndex,
                                             const std::function<void(const fs::path&)>& reveal) const {
  if (optionIndex != 1 || !reveal) return;
  const std::string path = error.info(kFilePathKey);
  reveal(path.empty() ? storeURL() : fs::path(path));
}

int QKDataManager::addObserver(NotificationObserver observer) {
  const int token = nextObserverToken_++;
  observers_.emplace(token, std::move(observer));
  return token;
}

void QKDataManager::removeObserver(int token) { observers_.erase(token); }

void QKDataManager::post(std::string_view name) {
  auto observers = observers_;
  for (auto& [token, observer] : observers) observer(name);
}

}  // namespace lectern
