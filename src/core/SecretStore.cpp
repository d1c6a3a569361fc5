#include "core/SecretStore.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <thread>

#include "core/Log.h"
#include "core/Strings.h"
#include "core/UserDefaults.h"

#ifdef LECTERN_HAVE_LIBSECRET
#include <libsecret/secret.h>
#endif

namespace lectern {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr std::string_view kLogCategory = "SecretStore";

bool isStorableText(std::string_view text) {
  return isValidUTF8(text) && text.find('\0') == std::string_view::npos;
}

// Every backend keeps text: the Secret Service takes C strings and the file is JSON.
Result<void> checkStorable(std::string_view service, std::string_view account, std::string_view password) {
  if (isStorableText(service) && isStorableText(account) && isStorableText(password)) return {};
  return fail(kLecternErrorDomain, kSecretStoreNotStorable,
              "Cannot store the password of " + sanitizeUTF8(account),
              "A password, its service and its account must be UTF-8 text without NUL characters.");
}

Error fileError(int code, std::string_view description, const fs::path& file, std::string_view why) {
  return Error::make(kLecternErrorDomain, code, fmt::format("{} {}", description, file.string()), why);
}

bool isPasswordDocument(const json& doc) {
  if (!doc.is_object()) return false;
  for (const json& accounts : doc) {
    if (!accounts.is_object()) return false;
    for (const json& password : accounts) {
      if (!password.is_string()) return false;
    }
  }
  return true;
}

Result<json> loadPasswordFile(const fs::path& file) {
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return json::object();
    return std::unexpected(
        fileError(kSecretStoreUnreadable, "Cannot read the password file", file, std::strerror(errno)));
  }
  std::string text;
  char buffer[8192];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const int err = errno;
      ::close(fd);
      return std::unexpected(
          fileError(kSecretStoreUnreadable, "Cannot read the password file", file, std::strerror(err)));
    }
    if (n == 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);

  if (trimView(text).empty()) return json::object();  // made by hand, perhaps: nothing to lose
  json doc = json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!isPasswordDocument(doc)) {
    return std::unexpected(
        fileError(kSecretStoreCorrupt, "Cannot read the password file", file,
                  "It is damaged. Repair it, or move it away and enter the passwords again."));
  }
  return doc;
}

Result<void> savePasswordFile(const fs::path& file, const json& doc) {
  auto written =
      writeFileAtomically(file, doc.dump(2) + "\n", fs::perms::owner_read | fs::perms::owner_write);
  if (!written) {
    return std::unexpected(fileError(kSecretStoreUnwritable, "Cannot save the password file", file,
                                     written.error().recoverySuggestion));
  }
  return {};
}

// ---------------------------------------------------------------------------------------------
// The Secret Service

#ifdef LECTERN_HAVE_LIBSECRET

struct GErrorDeleter {
  void operator()(GError* error) const { g_error_free(error); }
};
using GErrorPtr = std::unique_ptr<GError, GErrorDeleter>;

struct GObjectDeleter {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectDeleter>;

// Cancels `cancellable` when `timeout` passes before the watchdog is destroyed.
class Watchdog {
 public:
  Watchdog(GCancellable* cancellable, std::chrono::milliseconds timeout)
      : thread_([this, cancellable, timeout] {
          std::unique_lock lock(mutex_);
          const bool finished = finishedChanged_.wait_for(lock, timeout, [this] { return finished_; });
          if (!finished) g_cancellable_cancel(cancellable);
        }) {}
  ~Watchdog() {
    {
      std::lock_guard lock(mutex_);
      finished_ = true;
    }
    finishedChanged_.notify_one();
    thread_.join();
  }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

 private:
  std::mutex mutex_;  // guards finished_
  std::condition_variable finishedChanged_;
  bool finished_ = false;
  std::thread thread_;  // last: starts once the rest is ready
};

constexpr const char* kSecretServiceBusName = "org.freedesktop.secrets";

// A call to the bus itself; nullptr when it fails or is cancelled.
GVariant* callBus(GDBusConnection* bus, const char* method, GVariant* parameters, const char* replyType,
                  GCancellable* cancellable, std::chrono::milliseconds timeout) {
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_sync(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                "org.freedesktop.DBus", method, parameters,
                                                G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NONE,
                                                static_cast<gint>(timeout.count()), cancellable, &error);
  GErrorPtr owned(error);
  return reply;
}

bool probeSecretService(const std::string& address, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  const auto left = [deadline] {
    return std::max(std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()),
                    std::chrono::milliseconds(1));
  };
  GObjectPtr<GCancellable> cancellable(g_cancellable_new());
  // The handshake takes a cancellable but no timeout: a bus that accepts and never answers
  // would hold it forever.
  Watchdog watchdog(cancellable.get(), timeout);
  GError* error = nullptr;
  // Not a "message bus connection": GIO would then send Hello itself with D-Bus's 25-second
  // timeout and no way to cancel it, so Hello is sent below like any other call.
  GObjectPtr<GDBusConnection> bus(g_dbus_connection_new_for_address_sync(
      address.c_str(), G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT, nullptr, cancellable.get(), &error));
  GErrorPtr owned(error);
  if (!bus) return false;

  bool answers = false;
  if (GVariant* hello = callBus(bus.get(), "Hello", nullptr, "(s)", cancellable.get(), left())) {
    g_variant_unref(hello);
    if (GVariant* reply = callBus(bus.get(), "NameHasOwner", g_variant_new("(s)", kSecretServiceBusName),
                                  "(b)", cancellable.get(), left())) {
      gboolean running = FALSE;
      g_variant_get(reply, "(b)", &running);
      g_variant_unref(reply);
      answers = running != FALSE;
    }
    if (!answers) {
      if (GVariant* reply =
              callBus(bus.get(), "ListActivatableNames", nullptr, "(as)", cancellable.get(), left())) {
        const gchar** names = nullptr;
        g_variant_get(reply, "(^a&s)", &names);
        for (size_t i = 0; names != nullptr && names[i] != nullptr; ++i) {
          answers = answers || std::strcmp(names[i], kSecretServiceBusName) == 0;
        }
        g_free(names);
        g_variant_unref(reply);
      }
    }
  }
  g_dbus_connection_close_sync(bus.get(), nullptr, nullptr);
  return answers;
}

const SecretSchema& lecternSchema() {
  static const SecretSchema schema = [] {
    SecretSchema s{};
    s.name = "com.quillhq.Lectern.Password";
    s.flags = SECRET_SCHEMA_NONE;
    s.attributes[0] = {"service", SECRET_SCHEMA_ATTRIBUTE_STRING};
    s.attributes[1] = {"account", SECRET_SCHEMA_ATTRIBUTE_STRING};
    return s;
  }();
  return schema;
}

// Passwords in the user's keyring through libsecret. Calls may block (an unlock prompt), so they
// belong on a background thread; libsecret's synchronous calls run their own main loop, so any may.
class LibsecretSecretStore final : public SecretStore {
 public:
  Result<std::optional<std::string>> password(std::string_view service, std::string_view account) override {
    const std::string s(service), a(account);
    GError* error = nullptr;
    gchar* found = secret_password_lookup_sync(&lecternSchema(), nullptr, &error, "service", s.c_str(),
                                               "account", a.c_str(), nullptr);
    if (error != nullptr) {
      return std::unexpected(serviceError("Cannot read the password of ", account, error));
    }
    if (found == nullptr) return std::nullopt;
    std::string value(found);
    secret_password_free(found);  // wipes the memory
    return value;
  }

  Result<void> setPassword(std::string_view service, std::string_view account,
                           std::string_view password) override {
    if (auto storable = checkStorable(service, account, password); !storable) return storable;
    const std::string s(service), a(account), p(password);
    const std::string label = fmt::format("Lectern password for {}", a);
    GError* error = nullptr;
    secret_password_store_sync(&lecternSchema(), SECRET_COLLECTION_DEFAULT, label.c_str(), p.c_str(), nullptr,
                               &error, "service", s.c_str(), "account", a.c_str(), nullptr);
    if (error != nullptr) {
      return std::unexpected(serviceError("Cannot store the password of ", account, error));
    }
    return {};
  }

  Result<void> deletePassword(std::string_view service, std::string_view account) override {
    const std::string s(service), a(account);
    GError* error = nullptr;
    // False without an error means there was nothing to delete.
    secret_password_clear_sync(&lecternSchema(), nullptr, &error, "service", s.c_str(), "account", a.c_str(),
                               nullptr);
    if (error != nullptr) {
      return std::unexpected(serviceError("Cannot delete the password of ", account, error));
    }
    return {};
  }

  std::string backendName() const override { return "libsecret"; }

 private:
  static Error serviceError(std::string_view action, std::string_view account, GError* error) {
    GErrorPtr owned(error);
    return Error::make(kLecternErrorDomain, kSecretServiceFailed, std::string(action) + sanitizeUTF8(account),
                       error->message != nullptr ? error->message : "The Secret Service failed.");
  }
};

#endif  // LECTERN_HAVE_LIBSECRET

}  // namespace

// ---------------------------------------------------------------------------------------------

Result<std::optional<std::string>> MemorySecretStore::password(std::string_view service,
                                                               std::string_view account) {
  std::lock_guard lock(mutex_);
  const auto it = secrets_.find({std::string(service), std::string(account)});
  if (it == secrets_.end()) return std::nullopt;
  return it->second;
}

Result<void> MemorySecretStore::setPassword(std::string_view service, std::string_view account,
                                            std::string_view password) {
  if (auto storable = checkStorable(service, account, password); !storable) return storable;
  std::lock_guard lock(mutex_);
  secrets_[{std::string(service), std::string(account)}] = std::string(password);
  return {};
}

Result<void> MemorySecretStore::deletePassword(std::string_view service, std::string_view account) {
  std::lock_guard lock(mutex_);
  secrets_.erase({std::string(service), std::string(account)});
  return {};
}

FileSecretStore::FileSecretStore(std::filesystem::path file) : file_(std::move(file)) {}

Result<std::optional<std::string>> FileSecretStore::password(std::string_view service,
                                                             std::string_view account) {
  std::lock_guard lock(mutex_);
  auto doc = loadPasswordFile(file_);
  if (!doc) return std::unexpected(doc.error());
  // Names that are not UTF-8 cannot be keys of the file, so nothing is stored under them.
  if (!isValidUTF8(service) || !isValidUTF8(account)) return std::nullopt;
  const auto accounts = doc->find(std::string(service));
  if (accounts == doc->end()) return std::nullopt;
  const auto entry = accounts->find(std::string(account));
  if (entry == accounts->end()) return std::nullopt;
  return entry->get<std::string>();
}

Result<void> FileSecretStore::setPassword(std::string_view service, std::string_view account,
                                          std::string_view password) {
  if (auto storable = checkStorable(service, account, password); !storable) return storable;
  std::lock_guard lock(mutex_);
  auto doc = loadPasswordFile(file_);
  if (!doc) return std::unexpected(doc.error());
  (*doc)[std::string(service)][std::string(account)] = std::string(password);
  return savePasswordFile(file_, *doc);
}

Result<void> FileSecretStore::deletePassword(std::string_view service, std::string_view account) {
  std::lock_guard lock(mutex_);
  auto doc = loadPasswordFile(file_);
  if (!doc) return std::unexpected(doc.error());
  if (!isValidUTF8(service) || !isValidUTF8(account)) return {};
  const auto accounts = doc->find(std::string(service));
  if (accounts == doc->end() || accounts->erase(std::string(account)) == 0) return {};
  if (accounts->empty()) doc->erase(accounts);
  return savePasswordFile(file_, *doc);
}

SecretStore& DeferredSecretStore::store() const {
  std::lock_guard lock(mutex_);
  if (!store_) store_ = make_();
  return *store_;
}

Result<std::optional<std::string>> DeferredSecretStore::password(std::string_view service, std::string_view account) {
  return store().password(service, account);
}

Result<void> DeferredSecretStore::setPassword(std::string_view service, std::string_view account,
                                              std::string_view password) {
  return store().setPassword(service, account, password);
}

Result<void> DeferredSecretStore::deletePassword(std::string_view service, std::string_view account) {
  return store().deletePassword(service, account);
}

std::string DeferredSecretStore::backendName() const { return store().backendName(); }

bool secretServiceSupported() {
#ifdef LECTERN_HAVE_LIBSECRET
  return true;
#else
  return false;
#endif
}

bool secretServiceAnswers([[maybe_unused]] std::string_view busAddress,
                          [[maybe_unused]] std::chrono::milliseconds timeout) {
#ifdef LECTERN_HAVE_LIBSECRET
  return !busAddress.empty() && probeSecretService(std::string(busAddress), timeout);
#else
  return false;
#endif
}

std::unique_ptr<SecretStore> makeDefaultSecretStore(const std::filesystem::path& fallbackFile) {
  const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  return makeDefaultSecretStore(fallbackFile, address != nullptr ? address : "");
}

std::unique_ptr<SecretStore> makeDefaultSecretStore(const std::filesystem::path& fallbackFile,
                                                    std::string_view sessionBusAddress) {
  if (secretServiceAnswers(sessionBusAddress)) {
#ifdef LECTERN_HAVE_LIBSECRET
    logInfo(kLogCategory, "Passwords are kept by the Secret Service");
    return std::make_unique<LibsecretSecretStore>();
#endif
  }
  // Said once, when the file comes into use; after that the log would only repeat itself.
  std::error_code ec;
  if (std::filesystem::exists(fallbackFile, ec)) {
    logDebugMessage(kLogCategory, "No Secret Service answers; passwords are kept in {}", fallbackFile.string());
  } else {
    logInfo(kLogCategory, "No Secret Service answers; passwords are kept in {}", fallbackFile.string());
  }
  return std::make_unique<FileSecretStore>(fallbackFile);
}

}  // namespace lectern
