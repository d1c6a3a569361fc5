#include "core/UserDefaults.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
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
      {std::string(kArticleTheme), "system"},
      {std::string(kArticleFontFamily), ""},
      {std::string(kArticleFontSize), 16},
      {std::string(kNewsblurApiEndpoint), "https://newsblur.com"},
      {std::string(kAccounts), nlohmann::json::object()},
  });
}

namespace {

constexpr DefaultChoice kConcurrentChoices[] = {{0, "1 account at a time"}, {1, "2 at a time"}, {2, "5 at a time"}};
// Index 0 is the default and keeps 7 days, as every index without a period of its own does.
constexpr DefaultChoice kKeepChoices[] = {{0, "7 days"},  {1, "1 day"},   {2, "2 days"},  {3, "3 days"}, {4, "7 days"},
                                          {5, "14 days"}, {6, "28 days"}, {7, "70 days"}, {99, "70 days"}};
constexpr DefaultChoice kBadgeChoices[] = {{0, "shown"}, {1, "hidden"}};
constexpr DefaultChoice kNotificationChoices[] = {{0, "off"}, {1, "on"}};

constexpr KnownDefault kKnownDefaults[] = {
    {kConcurrentSyncOperationsIndex, DefaultKind::kIndex, "How many accounts sync at once", kConcurrentChoices},
    {kDaysKeepFeedReadItemsIndex, DefaultKind::kIndex, "How long read feed articles are kept", kKeepChoices},
    {kBookmarkCountDisplayIndex, DefaultKind::kIndex, "Unread counts on smart folders that follow this setting",
     kBadgeChoices},
    {kNotificationCenterIndex, DefaultKind::kIndex, "Desktop notifications of new articles", kNotificationChoices},
    {kArticleTheme, DefaultKind::kText, "The article view's theme: system, light, dark or sepia", {}},
    {kArticleFontFamily, DefaultKind::kText, "The article view's font family (empty: the desktop's)", {}},
    {kArticleFontSize, DefaultKind::kCount, "The article view's font size in pixels", {}},
    {kAccounts, DefaultKind::kDictionary, "Each account's preferences, by account identifier", {}},
    {"feedlyClientId", DefaultKind::kText, "Feedly: the application's client id", {}},
    {"feedlyClientSecret", DefaultKind::kText, "Feedly: the application's client secret", {}},
    {"feedlyScope", DefaultKind::kText, "Feedly: the scope asked for at sign-in", {}},
    {"feedwranglerClientKey", DefaultKind::kText, "Feed Wrangler: the application's client key", {}},
    {"instapaperConsumerKey", DefaultKind::kText, "Instapaper: the application's consumer key", {}},
    {"instapaperConsumerSecret", DefaultKind::kText, "Instapaper: the application's consumer secret", {}},
    {"pocketConsumerKey", DefaultKind::kText, "Pocket: the application's consumer key", {}},
    {"pinboardSharedByDefault", DefaultKind::kBoolean, "Pinboard: pages saved without a folder are public", {}},
    {"pinboardCallInterval", DefaultKind::kCount, "Pinboard: seconds between two calls (unset: 3)", {}},
    {"pinboardAllPostsInterval", DefaultKind::kCount, "Pinboard: seconds between two full lists (unset: 300)", {}},
    {kNewsblurApiEndpoint, DefaultKind::kAddress, "NewsBlur: the server's address", {}},
    {"feedbinApiEndpoint", DefaultKind::kAddress, "Feedbin: the server's address", {}},
    {"feedlyApiEndpoint", DefaultKind::kAddress, "Feedly: the server's address", {}},
    {"feverApiEndpoint", DefaultKind::kAddress, "Fever: the server's address", {}},
    {"feedwranglerApiEndpoint", DefaultKind::kAddress, "Feed Wrangler: the server's address", {}},
    {"instapaperApiEndpoint", DefaultKind::kAddress, "Instapaper: the server's address", {}},
    {"pocketApiEndpoint", DefaultKind::kAddress, "Pocket: the server's address", {}},
    {"pocketWebEndpoint", DefaultKind::kAddress, "Pocket: the address of its sign-in pages", {}},
    {"pinboardApiEndpoint", DefaultKind::kAddress, "Pinboard: the server's address", {}},
};

Error refusedValue(const KnownDefault& known, std::string_view text, std::string takes) {
  return Error::make(kLecternErrorDomain, 1, fmt::format("{} cannot be \"{}\"", known.key, text),
                     fmt::format("{} takes {}.", known.key, takes));
}

std::optional<std::int64_t> parseInteger(std::string_view text) {
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

}  // namespace

std::span<const KnownDefault> knownDefaults() { return kKnownDefaults; }

const KnownDefault* knownDefault(std::string_view key) {
  for (const auto& known : kKnownDefaults) {
    if (known.key == key) return &known;
  }
  return nullptr;
}

std::string_view defaultValueMeaning(const KnownDefault& known, const nlohmann::json& value) {
  if (known.kind != DefaultKind::kIndex || !value.is_number_integer()) return {};
  for (const auto& choice : known.choices) {
    if (choice.value == value.get<std::int64_t>()) return choice.meaning;
  }
  return {};
}

Result<nlohmann::json> parseDefaultValue(const KnownDefault& known, std::string_view text) {
  switch (known.kind) {
    case DefaultKind::kIndex: {
      const auto value = parseInteger(text);
      std::string takes;
      for (const auto& choice : known.choices) {
        if (value && *value == choice.value) return nlohmann::json(*value);
        takes += fmt::format("{}{} ({})", takes.empty() ? "" : ", ", choice.value, choice.meaning);
      }
      return fail(refusedValue(known, text, "one of " + takes));
    }
    case DefaultKind::kCount: {
      const auto value = parseInteger(text);
      if (!value || *value < 0) return fail(refusedValue(known, text, "a whole number of 0 or more"));
      return nlohmann::json(*value);
    }
    case DefaultKind::kBoolean:
      if (text == "true" || text == "yes" || text == "1") return nlohmann::json(true);
      if (text == "false" || text == "no" || text == "0") return nlohmann::json(false);
      return fail(refusedValue(known, text, "true or false"));
    case DefaultKind::kText:
      return nlohmann::json(std::string(text));
    case DefaultKind::kAddress:
      if (!text.starts_with("http://") && !text.starts_with("https://")) {
        return fail(refusedValue(known, text, "an http:// or https:// address"));
      }
      return nlohmann::json(std::string(text));
    case DefaultKind::kDictionary: {
      // Only a whole dictionary may replace a dictionary: anything else would lose every entry.
      auto value = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
      if (!value.is_object()) return fail(refusedValue(known, text, "a JSON object"));
      return value;
    }
  }
  return fail(refusedValue(known, text, "no value"));
}

}  // namespace lectern
