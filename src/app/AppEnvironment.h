#pragma once

#include <filesystem>
#include <memory>
#include <optional>

#include "core/Clock.h"
#include "core/Error.h"
#include "core/MainQueue.h"
#include "core/Paths.h"
#include "core/Reachability.h"
#include "core/SecretStore.h"
#include "core/UserDefaults.h"
#include "net/NetworkSession.h"

namespace lectern {

class QKDataManager;

struct AppOptions {
  std::optional<std::filesystem::path> home;  // --home DIR
  bool verbose = false;                       // --verbose: log lines mirrored to stderr
  bool offline = false;                       // --offline or LECTERN_OFFLINE=1: the internet counts as unreachable
  // LECTERN_NETWORK_TIMEOUT=SECONDS: the network's idle timeout instead of its default (tests use
  // a short one to meet servers that stall).
  std::optional<double> networkTimeoutSeconds;
};

// The process-level pieces every command needs: folders, the log, preferences, the main queue,
// passwords, the network and the library. Made once by the program on the main thread; each
// piece is created on first use so that a command pays only for what it touches.
class AppEnvironment {
 public:
  static Result<std::unique_ptr<AppEnvironment>> create(const AppOptions& options);
  ~AppEnvironment();
  AppEnvironment(const AppEnvironment&) = delete;
  AppEnvironment& operator=(const AppEnvironment&) = delete;

  const AppOptions& options() const { return options_; }
  const Paths& paths() const { return paths_; }
  UserDefaults& defaults() { return *defaults_; }
  const Clock& clock() const { return clock_; }
  MainQueue& mainQueue() { return mainQueue_; }
  Reachability& reachability();
  SecretStore& secrets();
  NetworkSession& network();
  // Opens the library (migrating an older one first); the error says why it cannot be opened.
  Result<QKDataManager*> dataManager();

 private:
  AppEnvironment(AppOptions options, Paths paths, std::unique_ptr<UserDefaults> defaults);

  const AppOptions options_;
  const Paths paths_;
  std::unique_ptr<UserDefaults> defaults_;
  SystemClock clock_;
  MainQueue mainQueue_;  // constructed on the main thread with the environment
  // Declared in dependency order: what is declared later is destroyed first.
  std::unique_ptr<Reachability> reachability_;
  std::unique_ptr<SecretStore> secrets_;
  std::unique_ptr<NetworkSession> network_;
  std::unique_ptr<QKDataManager> dataManager_;
};

}  // namespace lectern
