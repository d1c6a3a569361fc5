#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "core/Error.h"

namespace lectern {

// Where Lectern keeps its files. Built once by the program from the environment and handed down.
struct Paths {
  std::filesystem::path applicationFolder;  // the library: Lectern.storedata ($XDG_DATA_HOME/lectern)
  std::filesystem::path configFolder;       // user defaults, secrets file ($XDG_CONFIG_HOME/lectern)
  std::filesystem::path stateFolder;        // Lectern.log ($XDG_STATE_HOME/lectern)
  std::filesystem::path cacheFolder;        // disposable data ($XDG_CACHE_HOME/lectern)
  std::filesystem::path tempFolder;         // scratch files that must share a file system with nothing

  std::filesystem::path storeFile() const { return applicationFolder / "Lectern.storedata"; }
  std::filesystem::path imageCacheFolder() const { return cacheFolder / "Images"; }
  std::filesystem::path userDefaultsFile() const { return configFolder / "defaults.json"; }
  std::filesystem::path logFile() const { return stateFolder / "Lectern.log"; }

  // `home` (from --home) wins over LECTERN_HOME; either puts every folder under it
  // (data/, config/, state/, cache/). Otherwise the XDG base-directory rules apply, with the
  // documented fall-backs under $HOME. `getenv` is injectable for tests.
  static Paths resolve(const std::optional<std::filesystem::path>& home = std::nullopt,
                       const std::function<const char*(const char*)>& getenv = nullptr);
  // Everything under one folder (tests, portable use).
  static Paths under(const std::filesystem::path& root);

  // Creates the configuration, state and cache folders. The application folder is the data
  // manager's business, which checks it more carefully.
  Result<void> createSupportFolders() const;
};

}  // namespace lectern
