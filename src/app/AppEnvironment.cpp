#include "app/AppEnvironment.h"

#include "core/Log.h"

namespace lectern {

Result<std::unique_ptr<AppEnvironment>> AppEnvironment::create(const AppOptions& options) {
  Paths paths = Paths::resolve(options.home);
  if (auto created = paths.createSupportFolders(); !created) return fail(created.error());
  Log::configure(LogSettings{.file = paths.logFile(), .mirrorToStderr = options.verbose});
  auto defaults = std::make_unique<UserDefaults>(paths.userDefaultsFile());
  registerLecternDefaults(*defaults);
  return std::unique_ptr<AppEnvironment>(new AppEnvironment(std::move(paths), std::move(defaults)));
}

}  // namespace lectern
