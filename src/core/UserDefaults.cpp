#include "core/UserDefaults.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "core/Log.h"

namespace lectern {
namespace fs = std::filesystem;

Result<void> writeFileAtomically(const fs::path& path, std::string_view contents, fs::perms mode) {
  std::error_code ec;
  fs::create_directories(path.parent_path(), ec);
  const fs::path temp = path.string() + ".tmp-" + std::to_string(::getpid());
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, static_cast<mode_t>(mode));
  auto failure = [&](int err) {
    return fail(kLecternErrorDomain, err, "Cannot write " + path.string(), std::strerror(err));
  };
  if (fd < 0) return failure(errno);
  const char* data = contents.data();
  size_t left = contents.size();
  while (left > 0) {
    const ssize_t n = ::write(fd, data, left);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const int err = errno;
      ::close(fd);
      ::unlink(temp.c_str());
      return failure(err);
    }
    data += n;
    left -= static_cast<size_t>(n);
  }
  // The data must be on disk before the rename makes it the file.
  if (::fsync(fd) != 0 || ::close(fd) != 0) {
    const int err = errno;
    ::unlink(temp.c_str());
    return failure(err);
  }
  if (::rename(temp.c_str(), path.c_str()) != 0) {
    const int err = errno;
    ::unlink(temp.c_str());
    return failure(err);
  }
  return {};
}

UserDefaults::UserDefaults(fs::path file) : file_(std::move(file)) {
  if (file_.empty()) return;
  std::ifstream in(file_, std::ios::binary);
  if (!in) return;  // nothing stored yet
  std::stringstream buffer;
  buffer << in.rdbuf();
  auto parsed = nlohmann::json::parse(buffer.str(), nullptr, /*allow_exceptions=*/false);
  if (parsed.is_object()) {
    stored_ = std::move(parsed);
    return;
  }
  in.close();
  const fs::path aside = file_.string() + ".corrupt";
  std::error_code ec;
  fs::rename(file_, aside, ec);
  logError("UserDefaults", "Preferences file {} is not readable; moved it to {} and using defaults", file_.string(),
           aside.string());
}

void UserDefaults::registerDefaults(const nlohmann::json& defaults) {
  if (!defaults.is_object()) return;
  std::lock_guard lock(mutex_);
  for (auto it = defaults.begin(); it != defaults.end(); ++it) registered_[it.key()] = it.value();
}

nlohmann::json UserDefaults::objectForKey(std::string_view key) const {
  std::lock_guard lock(mutex_);
  if (auto it = stored_.find(key); it != stored_.end()) return *it;
  if (auto it = registered_.find(key); it != registered_.end()) return *it;
  return nullptr;
}

bool UserDefaults::hasStoredValue(std::string_view key) const {
  std::lock_guard lock(mutex_);
  return stored_.contains(key);
}

bool UserDefaults::boolForKey(std::string_view key) const {
  const auto value = objectForKey(key);
  if (value.is_boolean()) return value.get<bool>();
  if (value.is_number()) return value.get<double>() != 0;
  if (value.is_string()) {
    const auto s = value.get<std::string>();
    return s == "1" || s == "YES" || s == "yes" || s == "true";
  }
  return false;
}

std::int64_t UserDefaults::integerForKey(std::string_view key) const {
  const auto value = objectForKey(key);
  if (value.is_number_integer()) return value.get<std::int64_t>();
  if (value.is_number()) return static_cast<std::int64_t>(value.get<double>());
  if (value.is_boolean()) return value.get<bool>() ? 1 : 0;
  if (value.is_string()) {
    try {
      return std::stoll(value.get<std::string>());
    } catch (const std::exception&) {
      return 0;
    }
  }
  return 0;
}

double UserDefaults::doubleForKey(std::string_view key) const {
  const auto value = objectForKey(key);
  if (value.is_number()) return value.get<double>();
  if (value.is_boolean()) return value.get<bool>() ? 1 : 0;
  if (value.is_string()) {
    try {
      return std::stod(value.get<std::string>());
    } catch (const std::exception&) {
      return 0;
    }
  }
  return 0;
}

std::string UserDefaults::stringForKey(std::string_view key) const {
  const auto value = objectForKey(key);
  if (value.is_string()) return value.get<std::string>();
  if (value.is_number_integer()) return std::to_string(value.get<std::int64_t>());
  if (value.is_number()) return value.dump();
  return {};
}

nlohmann::json UserDefaults::dictionaryForKey(std::string_view key) const {
  auto value = objectForKey(key);
  return value.is_object() ? value : nlohmann::json::object();
}

Result<void> UserDefaults::persistLocked() const {
  if (file_.empty()) return {};
  auto written = writeFileAtomically(file_, stored_.dump(2) + "\n");
  if (!written) logError("UserDefaults", "Failed to save preferences: {}", written.error().message());
  return written;
}

Result<void> UserDefaults::setObject(std::string_view key, nlohmann::json value) {
  Result<void> result;
  {
    std::lock_guard lock(mutex_);
    if (value.is_null()) {
      stored_.erase(std::string(key));
    } else {
      stored_[std::string(key)] = std::move(value);
    }
    result = persistLocked();
  }
  notify(key);
  return result;
}

Result<void> UserDefaults::removeObject(std::string_view key) { return setObject(key, nullptr); }

int UserDefaults::addObserver(std::string_view key, Observer observer) {
  std::lock_guard lock(mutex_);
  const int token = nextToken_++;
  observers_.emplace(token, std::make_pair(std::string(key), std::move(observer)));
  return token;
}

void UserDefaults::removeObserver(int token) {
  std::lock_guard lock(mutex_);
  observers_.erase(token);
}

void UserDefaults::notify(std::string_view key) {
  std::vector<Observer> toCall;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [token, entry] : observers_) {
      if (entry.first.empty() || entry.first == key) toCall.push_back(entry.second);
    }
  }
  for (const auto& observer : toCall) observer(key);
}

void registerLecternDefaults(UserDefaults& defaults) {
  defaults.registerDefaults({
      {std::string(kConcurrentSyncOperationsIndex), 0},
      {std::string(kDaysKeepFeedReadItemsIndex), 0},
      {std::string(kBookmarkCountDisplayIndex), 0},
      {std::string(kNotificationCenterIndex), 1},
      {std::string(kNewsblurApiEndpoint), "https://newsblur.com"},
      {std::string(kAccounts), nlohmann::json::object()},
  });
}

}  // namespace lectern
