#pragma once

#include <chrono>
#include <filesystem>

#include "core/Error.h"

namespace lectern {

// The lock every process takes around reading a library's version and upgrading it, so that two
// processes opening an old library at once never upgrade it together. An flock on a file beside
// the library (never on the library's own files, whose SQLite locks a close would drop). Held by
// one thread; released when it goes.
class LibraryUpgradeLock {
 public:
  enum class Mode { kShared, kExclusive };

  // Waits up to `timeout` for the lock; after that the error says another Lectern holds it.
  static Result<LibraryUpgradeLock> acquire(const std::filesystem::path& storeURL, Mode mode,
                                            std::chrono::milliseconds timeout = std::chrono::seconds(120));
  // "<library>.lock": the file the lock is taken on.
  static std::filesystem::path lockFileFor(const std::filesystem::path& storeURL);

  ~LibraryUpgradeLock();
  LibraryUpgradeLock(LibraryUpgradeLock&& other) noexcept;
  LibraryUpgradeLock& operator=(LibraryUpgradeLock&&) = delete;
  LibraryUpgradeLock(const LibraryUpgradeLock&) = delete;
  LibraryUpgradeLock& operator=(const LibraryUpgradeLock&) = delete;

 private:
  explicit LibraryUpgradeLock(int fd) : fd_(fd) {}
  int fd_ = -1;
};

}  // namespace lectern
