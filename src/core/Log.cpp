#include "core/Log.h"

#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <system_error>

#include "core/Dates.h"

namespace lectern {
namespace {

struct LogState {
  std::mutex mutex;  // guards everything below
  LogSettings settings;
  std::ofstream file;
  std::uintmax_t fileBytes = 0;
  bool debugAll = true;
  std::map<std::string, bool, std::less<>> debugByCategory;
  std::map<int, Log::Observer> observers;
  int nextToken = 1;
};

LogState& state() {
  static LogState s;
  return s;
}

const char* levelName(LogLevel level) {
  switch (level) {
    case LogLevel::kDebug: return "debug";
    case LogLevel::kInfo: return "info";
    case LogLevel::kError: return "error";
  }
  return "";
}

void openFile(LogState& s) {
  s.file.close();
  s.fileBytes = 0;
  if (s.settings.file.empty()) return;
  std::error_code ec;
  std::filesystem::create_directories(s.settings.file.parent_path(), ec);
  s.fileBytes = std::filesystem::exists(s.settings.file, ec) ? std::filesystem::file_size(s.settings.file, ec) : 0;
  if (ec) s.fileBytes = 0;
  s.file.open(s.settings.file, std::ios::app);
}

// Lectern.log -> Lectern.log.1 -> Lectern.log.2 ...; the oldest falls off.
void rotate(LogState& s) {
  s.file.close();
  std::error_code ec;
  const auto base = s.settings.file.string();
  for (int i = s.settings.keepFiles; i >= 1; --i) {
    const auto from = i == 1 ? base : base + "." + std::to_string(i - 1);
    const auto to = base + "." + std::to_string(i);
    std::filesystem::rename(from, to, ec);
  }
  if (s.settings.keepFiles <= 0) std::filesystem::remove(s.settings.file, ec);
  openFile(s);
}

}  // namespace

void Log::configure(const LogSettings& settings) {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  s.settings = settings;
  openFile(s);
}

void Log::setDebugEnabled(bool enabled) {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  s.debugAll = enabled;
}

void Log::setDebugEnabled(std::string_view category, bool enabled) {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  s.debugByCategory[std::string(category)] = enabled;
}

bool Log::isDebugEnabled(std::string_view category) {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  auto it = s.debugByCategory.find(category);
  return it == s.debugByCategory.end() ? s.debugAll : it->second;
}

std::string singleLineLogText(std::string_view message) {
  std::string out;
  out.reserve(message.size());
  for (const char c : message) {
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (static_cast<unsigned char>(c) < 0x20 && c != '\t') {
      out += fmt::format("\\u{:04x}", static_cast<unsigned>(c));
    } else {
      out += c;
    }
  }
  return out;
}

void Log::write(LogLevel level, std::string_view category, std::string_view message) {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  for (auto& [token, observer] : s.observers) observer(level, category, message);
  if (level < s.settings.minimumLevel) return;
  const std::string line = fmt::format("{} {} [{}] {}\n", rfc3339String(std::chrono::system_clock::now()),
                                       levelName(level), category, singleLineLogText(message));
  if (s.file.is_open()) {
    if (s.fileBytes + line.size() > s.settings.maxBytes && s.fileBytes > 0) rotate(s);
    s.file << line;
    s.file.flush();
    s.fileBytes += line.size();
  }
  if (s.settings.mirrorToStderr || (level == LogLevel::kError && !s.file.is_open() && s.observers.empty())) {
    std::fputs(line.c_str(), stderr);
  }
}

int Log::addObserver(Observer observer) {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  const int token = s.nextToken++;
  s.observers.emplace(token, std::move(observer));
  return token;
}

void Log::removeObserver(int token) {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  s.observers.erase(token);
}

ScopedLogCapture::ScopedLogCapture() {
  token_ = Log::addObserver([this](LogLevel, std::string_view, std::string_view message) {
    std::lock_guard lock(mutex_);
    messages_.emplace_back(message);
  });
}

ScopedLogCapture::~ScopedLogCapture() { Log::removeObserver(token_); }

std::vector<std::string> ScopedLogCapture::messages() const {
  std::lock_guard lock(mutex_);
  return messages_;
}

bool ScopedLogCapture::contains(std::string_view text) const { return count(text) > 0; }

size_t ScopedLogCapture::count(std::string_view text) const {
  std::lock_guard lock(mutex_);
  size_t n = 0;
  for (const auto& m : messages_) n += m.find(text) != std::string::npos;
  return n;
}

}  // namespace lectern
