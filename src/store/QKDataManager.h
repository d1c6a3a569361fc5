#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "core/Error.h"
#include "core/Paths.h"
#include "store/AccountService.h"
#include "store/ModelVersion.h"
#include "store/ObjectContext.h"
#include "store/StoreEnvironment.h"

namespace lectern {

class Clock;
class MainQueue;
class QKDataMigrationDelegate;
class Reachability;
class SecretStore;
class UserDefaults;

// The owner of the library: folder and file checks, migration, the main context and background
// contexts. Made once on the main thread; outlives every context it made.
class QKDataManager final : private ObjectContext::SaveListener {
 public:
  static constexpr std::string_view kDidSaveNotification = "QKDataManagerDidSaveNotification";
  static constexpr std::string_view kDidSaveFailedNotification = "QKDataManagerDidSaveFailedNotification";
  // The choices offered with a store that cannot be written.
  static constexpr std::string_view kRecoveryOptionClose = "Close";
  static constexpr std::string_view kRecoveryOptionReveal = "Reveal in Files...";
  static constexpr std::string_view kRecoveryOptionsKey =
      "recoveryOptions";  // user info: the options, one per line
  static constexpr std::string_view kFilePathKey = "filePath";
  // What the program asks when saving fails while quitting.
  static constexpr std::string_view kQuitAnywayMessage =
      "Could not save changes while quitting. Quit anyway?";
  static constexpr std::string_view kQuitAnywayInformative =
      "Quitting now will lose any changes you have made since the last successful save";
  static constexpr std::string_view kQuitAnywayButton = "Quit anyway";
  static constexpr std::string_view kCancelButton = "Cancel";

  using NotificationObserver = std::function<void(std::string_view name)>;

  QKDataManager(Paths paths, UserDefaults& defaults, MainQueue& mainQueue, const Clock& clock,
                Reachability& reachability, SecretStore* secretStore = nullptr);
  // Saves the main context once more.
  ~QKDataManager() override;
  QKDataManager(const QKDataManager&) = delete;
  QKDataManager& operator=(const QKDataManager&) = delete;

  const std::filesystem::path& applicationFilesDirectory() const {
    return environment_.paths().applicationFolder;
  }
  std::filesystem::path storeURL() const { return environment_.paths().storeFile(); }
  // Fails with the "Close" / "Reveal in Files..." choices when the file exists and cannot be written.
  static Result<void> isPersistentStoreWritable(const std::filesystem::path& storeURL);
  Result<StoreMetadata> sourceMetadata() const;

  // The store exists and is of another model version. Logs "isMigrationNeeded: <0|1>".
  bool isMigrationNeeded() const;
  // Migrates to the current version; logs "migration complete" on success.
  Result<void> migrate(QKDataMigrationDelegate* delegate);

  // Checks the folder and the file, migrates when needed (without a delegate), creates a new
  // library when there is none and opens the main context. Safe to call again once it worked.
  // Main thread only.
  Result<void> openStore();
  // The main context, opening the store on first use. Main thread only.
  Result<ObjectContext*> managedObjectContext();
  // A context of its own for a sync operation, owned by the calling thread. Its saves reach the
  // main context through the main queue. The store must be open.
  Result<std::unique_ptr<ObjectContext>> newBackgroundContext();

  // Saves the main context when it has changes; tells observers "QKDataManagerDidSaveNotification"
  // or, after logging the failure, "QKDataManagerDidSaveFailedNotification".
  bool save();
  // Saves before the program quits; an error here is for the quit-anyway question.
  Result<void> saveForTermination();
  // The "Reveal in Files..." choice runs `reveal` with the library file; "Close" does nothing.
  void attemptRecoveryFromError(const Error& error, int optionIndex,
                                const std::function<void(const std::filesystem::path&)>& reveal) const;

  int addObserver(NotificationObserver observer);
  void removeObserver(int token);

  StoreEnvironment& environment() { return environment_; }
  // The accounts layer registers the factory of the real service objects here.
  void setServiceFactory(AccountServiceFactory factory) {
    environment_.setServiceFactory(std::move(factory));
  }

 private:
  struct Alive {};
  void contextDidSave(ObjectContext& context, const ContextDidSave& changes) override;
  Result<void> checkApplicationFolder() const;
  void post(std::string_view name);

  StoreEnvironment environment_;
  std::unique_ptr<ObjectContext> mainContext_;
  std::shared_ptr<Alive> alive_ = std::make_shared<Alive>();  // posted merges check it first
  std::map<int, NotificationObserver> observers_;             // main thread only
  int nextObserverToken_ = 1;
};

}  // namespace lectern
