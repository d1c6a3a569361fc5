#include "app/AppEnvironment.h"

#include "core/Log.h"
#include "net/NetworkReachability.h"
#include "accounts/ServiceFactory.h"
#include "store/QKDataManager.h"

namespace lectern {

Result<std::unique_ptr<AppEnvironment>> AppEnvironment::create(const AppOptions& options) {
  Paths paths = Paths::resolve(options.home);
  if (auto created = paths.createSupportFolders(); !created) return fail(created.error());
  Log::configure(LogSettings{.file = paths.logFile(),
                             .mirrorToStderr = options.verbose,
                             .minimumLevel = options.verbose ? LogLevel::kDebug : LogLevel::kInfo});
  auto defaults = std::make_unique<UserDefaults>(paths.userDefaultsFile());
  registerLecternDefaults(*defaults);
  return std::unique_ptr<AppEnvironment>(new AppEnvironment(options, std::move(paths), std::move(defaults)));
}

AppEnvironment::AppEnvironment(AppOptions options, Paths paths, std::unique_ptr<UserDefaults> defaults)
    : options_(std::move(options)), paths_(std::move(paths)), defaults_(std::move(defaults)) {}

AppEnvironment::~AppEnvironment() {
  // Work still queued belongs to commands that have ended; drop it while what it holds (feed
  // clients, the network) is still alive.
  mainQueue_.discardPending();
  // The library saves once more as it closes; then nothing may wait for the main loop any more.
  dataManager_.reset();
  network_.reset();
  mainQueue_.shutdown();
}

Reachability& AppEnvironment::reachability() {
  if (!reachability_) {
    if (options_.offline) {
      reachability_ = std::make_unique<FixedReachability>(ReachabilityStatus::kNotReachable);
    } else {
      reachability_ = std::make_unique<NetworkReachability>();
    }
  }
  return *reachability_;
}

SecretStore& AppEnvironment::secrets() {
  if (!secrets_) {
    secrets_ = std::make_unique<DeferredSecretStore>(
        [file = paths_.configFolder / "secrets.json"] { return makeDefaultSecretStore(file); });
  }
  return *secrets_;
}

NetworkSession& AppEnvironment::network() {
  if (!network_) {
    NetworkSessionOptions options;
    // Diagnostic dumps are written only when the user has made this folder.
    options.dumpFolder = paths_.applicationFolder / "dump";
    if (options_.networkTimeoutSeconds)
      options.defaultTimeoutInterval = std::chrono::duration<double>(*options_.networkTimeoutSeconds);
    network_ = std::make_unique<NetworkSession>(mainQueue_, reachability(), std::move(options));
  }
  return *network_;
}

Result<QKDataManager*> AppEnvironment::dataManager() {
  if (!dataManager_) {
    auto manager = std::make_unique<QKDataManager>(paths_, *defaults_, mainQueue_, clock_, reachability(), &secrets());
    // Accounts get their service objects (and through them the network) from the factory.
    registerServiceFactory(*manager, ServiceDependencies{mainQueue_, clock_, &network()});
    // Opening checks the folder and the file and migrates an older library.
    auto context = manager->managedObjectContext();
    if (!context) return fail(context.error());
    dataManager_ = std::move(manager);
  }
  return dataManager_.get();
}

}  // namespace lectern
