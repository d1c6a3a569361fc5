#include "store/LibraryUpgradeLock.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>
#include <utility>

#include "store/MigrationManager.h"

namespace lectern {
namespace {
constexpr int kLockFailed = 6;
constexpr std::chrono::milliseconds kRetryInterval{20};
}  // namespace

std::filesystem::path LibraryUpgradeLock::lockFileFor(const std::filesystem::path& storeURL) {
  return std::filesystem::path(storeURL.string() + ".lock");
}

Result<LibraryUpgradeLock> LibraryUpgradeLock::acquire(const std::filesystem::path& storeURL, Mode mode,
                                                       std::chrono::milliseconds timeout) {
  const auto path = lockFileFor(storeURL);
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    return fail(kMigrationErrorDomain, kLockFailed,
                fmt::format("Failed to lock the library ({})", path.string()), std::strerror(errno));
  }
  LibraryUpgradeLock lock(fd);
  const int operation = (mode == Mode::kExclusive ? LOCK_EX : LOCK_SH) | LOCK_NB;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  // Polling rather than blocking, so that the wait has an end and the error can say why.
  while (::flock(fd, operation) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) {
      return fail(kMigrationErrorDomain, kLockFailed,
                  fmt::format("Failed to lock the library ({})", path.string()), std::strerror(errno));
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      return fail(kMigrationErrorDomain, kLockFailed, "The library is being upgraded by another Lectern",
                  "Wait until the other Lectern has finished, then try again.");
    }
    std::this_thread::sleep_for(kRetryInterval);
  }
  return lock;
}

LibraryUpgradeLock::~LibraryUpgradeLock() {
  if (fd_ >= 0) ::close(fd_);  // closing the descriptor releases the flock
}

LibraryUpgradeLock::LibraryUpgradeLock(LibraryUpgradeLock&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)) {}

}  // namespace lectern
