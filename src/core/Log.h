#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

namespace lectern {

enum class LogLevel { kDebug, kInfo, kError };

struct LogSettings {
  std::filesystem::path file;              // "Lectern.log" in the state folder; empty: no file
  std::uintmax_t maxBytes = 2 * 1024 * 1024;  // rotate past this size
  int keepFiles = 2;                       // rotated files kept beside the live one (.1, .2)
  bool mirrorToStderr = false;             // --verbose
  LogLevel minimumLevel = LogLevel::kInfo;  // lines below it reach observers only (--verbose: kDebug)
};

// `message` as one log line: each line break becomes the two characters "\n" and other control
// characters "\u00XX", so an entry never spans lines whatever a server sent.
std::string singleLineLogText(std::string_view message);

// The process-wide diagnostic log. It is the one piece of global state we allow: every class logs,
// and threading a logger through every constructor would buy nothing. Thread-safe.
class Log {
 public:
  using Observer = std::function<void(LogLevel, std::string_view category, std::string_view message)>;

  static void configure(const LogSettings& settings);
  // The class-level switch: debug lines of `category` ("FeedSyncOperation") are written only
  // while it is on. All categories start on; `setDebugEnabled(false)` silences every category
  // that has no switch of its own.
  static void setDebugEnabled(bool enabled);
  static void setDebugEnabled(std::string_view category, bool enabled);
  static bool isDebugEnabled(std::string_view category);

  static void write(LogLevel level, std::string_view category, std::string_view message);

  // Observers see every line written (tests capture log texts with them).
  static int addObserver(Observer observer);
  static void removeObserver(int token);
};

template <typename... Args>
void logDebugMessage(std::string_view category, fmt::format_string<Args...> format, Args&&... args) {
  if (!Log::isDebugEnabled(category)) return;
  Log::write(LogLevel::kDebug, category, fmt::format(format, std::forward<Args>(args)...));
}

template <typename... Args>
void logInfo(std::string_view category, fmt::format_string<Args...> format, Args&&... args) {
  Log::write(LogLevel::kInfo, category, fmt::format(format, std::forward<Args>(args)...));
}

template <typename... Args>
void logError(std::string_view category, fmt::format_string<Args...> format, Args&&... args) {
  Log::write(LogLevel::kError, category, fmt::format(format, std::forward<Args>(args)...));
}

// Collects the log lines written while it lives, from any thread. For tests.
class ScopedLogCapture {
 public:
  ScopedLogCapture();
  ~ScopedLogCapture();
  ScopedLogCapture(const ScopedLogCapture&) = delete;
  ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;

  std::vector<std::string> messages() const;
  bool contains(std::string_view text) const;  // some message contains `text`
  size_t count(std::string_view text) const;   // messages containing `text`

 private:
  mutable std::mutex mutex_;  // guards messages_
  std::vector<std::string> messages_;
  int token_ = 0;
};

}  // namespace lectern
