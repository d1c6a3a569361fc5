#pragma once

#include <filesystem>
#include <memory>
#include <optional>

#include "core/Error.h"
#include "core/Paths.h"
#include "core/UserDefaults.h"

namespace lectern {

struct AppOptions {
  std::optional<std::filesystem::path> home;  // --home DIR
  bool verbose = false;                       // --verbose: log lines mirrored to stderr
};

// The process-level pieces every command needs: folders, the log and the preferences.
// Made once by the program on the main thread and handed to the commands.
class AppEnvironment {
 public:
  static Result<std::unique_ptr<AppEnvironment>> create(const AppOptions& options);

  const Paths& paths() const { return paths_; }
  UserDefaults& defaults() { return *defaults_; }

 private:
  AppEnvironment(Paths paths, std::unique_ptr<UserDefaults> defaults)
      : paths_(std::move(paths)), defaults_(std::move(defaults)) {}

  Paths paths_;
  std::unique_ptr<UserDefaults> defaults_;
};

}  // namespace lectern
