#include "core/Paths.h"

#include <cstdlib>
#include <system_error>

namespace lectern {
namespace {

namespace fs = std::filesystem;

// XDG says a relative path in these variables is invalid and must be ignored.
std::optional<fs::path> absoluteFromEnv(const std::function<const char*(const char*)>& getenv, const char* name) {
  const char* value = getenv(name);
  if (value == nullptr || *value == '\0') return std::nullopt;
  fs::path p(value);
  if (!p.is_absolute()) return std::nullopt;
  return p;
}

}  // namespace

Paths Paths::under(const fs::path& root) {
  Paths p;
  p.applicationFolder = root / "data";
  p.configFolder = root / "config";
  p.stateFolder = root / "state";
  p.cacheFolder = root / "cache";
  p.tempFolder = root / "tmp";
  return p;
}

Paths Paths::resolve(const std::optional<fs::path>& home, const std::function<const char*(const char*)>& getenvFn) {
  const std::function<const char*(const char*)> env = getenvFn ? getenvFn : [](const char* n) { return std::getenv(n); };
  if (home && !home->empty()) return under(fs::absolute(*home));
  if (auto lecternHome = env("LECTERN_HOME"); lecternHome != nullptr && *lecternHome != '\0') {
    return under(fs::absolute(lecternHome));
  }
  const char* userHome = env("HOME");
  const fs::path homeDir = userHome != nullptr && *userHome != '\0' ? fs::path(userHome) : fs::path("/tmp");
  auto xdg = [&](const char* name, const char* fallback) {
    return absoluteFromEnv(env, name).value_or(homeDir / fallback) / "lectern";
  };
  Paths p;
  p.applicationFolder = xdg("XDG_DATA_HOME", ".local/share");
  p.configFolder = xdg("XDG_CONFIG_HOME", ".config");
  p.stateFolder = xdg("XDG_STATE_HOME", ".local/state");
  p.cacheFolder = xdg("XDG_CACHE_HOME", ".cache");
  std::error_code ec;
  const fs::path systemTemp = fs::temp_directory_path(ec);
  p.tempFolder = (ec ? fs::path("/tmp") : systemTemp) / "lectern";
  return p;
}

Result<void> Paths::createSupportFolders() const {
  for (const auto& folder : {configFolder, stateFolder, cacheFolder, imageCacheFolder(), tempFolder}) {
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (ec) {
      return fail(kLecternErrorDomain, ec.value(), "Cannot create folder " + folder.string(), ec.message());
    }
  }
  return {};
}

}  // namespace lectern
