#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "core/Error.h"

namespace lectern {

// The service name every Lectern password is stored under: the bundle identifier.
inline constexpr std::string_view kPasswordServiceName = "com.quillhq.Lectern";

// Codes of the kLecternErrorDomain errors secret stores give. Their texts name the file or the
// account, never a password.
inline constexpr int kSecretStoreUnreadable = 1201;   // the password file cannot be read
inline constexpr int kSecretStoreCorrupt = 1202;      // it is not what Lectern writes
inline constexpr int kSecretStoreUnwritable = 1203;   // it cannot be saved
inline constexpr int kSecretStoreNotStorable = 1204;  // not UTF-8 text, or holds a NUL character
inline constexpr int kSecretServiceFailed = 1205;     // the Secret Service refused or failed

// Passwords by (service, account), the service being "com.quillhq.Lectern" and the account an
// account's identifier. Implementations are thread-safe; secrets never reach logs or errors.
class SecretStore {
 public:
  virtual ~SecretStore() = default;
  // Nothing stored is not an error: it gives nullopt.
  virtual Result<std::optional<std::string>> password(std::string_view service, std::string_view account) = 0;
  virtual Result<void> setPassword(std::string_view service, std::string_view account, std::string_view password) = 0;
  // Deleting what is not there succeeds.
  virtual Result<void> deletePassword(std::string_view service, std::string_view account) = 0;
  virtual std::string backendName() const = 0;
};

// For tests. Refuses what the other stores cannot keep, so tests see the same failures.
class MemorySecretStore final : public SecretStore {
 public:
  Result<std::optional<std::string>> password(std::string_view service, std::string_view account) override;
  Result<void> setPassword(std::string_view service, std::string_view account, std::string_view password) override;
  Result<void> deletePassword(std::string_view service, std::string_view account) override;
  std::string backendName() const override { return "memory"; }

 private:
  std::mutex mutex_;  // guards secrets_
  std::map<std::pair<std::string, std::string>, std::string> secrets_;
};

// A JSON file readable by the user alone (mode 0600), rewritten atomically. Used when no Secret
// Service answers (headless machines, containers). A file that cannot be read or parsed is an
// error for every call, and is never overwritten: the passwords in it stay for the user to rescue.
// Its shape: {"<service>": {"<account>": "<password>", ...}, ...}.
class FileSecretStore final : public SecretStore {
 public:
  explicit FileSecretStore(std::filesystem::path file);
  Result<std::optional<std::string>> password(std::string_view service, std::string_view account) override;
  Result<void> setPassword(std::string_view service, std::string_view account, std::string_view password) override;
  Result<void> deletePassword(std::string_view service, std::string_view account) override;
  std::string backendName() const override { return "file"; }

 private:
  const std::filesystem::path file_;
  std::mutex mutex_;  // serialises read-modify-write of the file
};

// Chooses its store on the first call that needs one, so that a command which never reads a
// password never asks the session bus whether a Secret Service answers. Thread-safe.
class DeferredSecretStore final : public SecretStore {
 public:
  using Maker = std::function<std::unique_ptr<SecretStore>()>;
  explicit DeferredSecretStore(Maker make) : make_(std::move(make)) {}
  Result<std::optional<std::string>> password(std::string_view service, std::string_view account) override;
  Result<void> setPassword(std::string_view service, std::string_view account, std::string_view password) override;
  Result<void> deletePassword(std::string_view service, std::string_view account) override;
  std::string backendName() const override;

 private:
  SecretStore& store() const;

  Maker make_;
  mutable std::mutex mutex_;  // guards store_
  mutable std::unique_ptr<SecretStore> store_;
};

// Whether this build can use a Secret Service at all (libsecret was there when it was built).
bool secretServiceSupported();

// How long finding out whether a Secret Service answers may take, at most.
inline constexpr std::chrono::milliseconds kSecretServiceProbeTimeout{400};

// Whether a Secret Service answers on the D-Bus bus at `busAddress` (a DBUS_SESSION_BUS_ADDRESS
// value): it runs, or the bus can start it. Never waits longer than `timeout`, however dead or
// silent the bus; false for an empty address and in builds without libsecret.
bool secretServiceAnswers(std::string_view busAddress,
                          std::chrono::milliseconds timeout = kSecretServiceProbeTimeout);

// The Secret Service (GNOME Keyring, KWallet ...) through libsecret when it answers on the session
// bus named by DBUS_SESSION_BUS_ADDRESS, else the file store at `fallbackFile`.
std::unique_ptr<SecretStore> makeDefaultSecretStore(const std::filesystem::path& fallbackFile);
// The same for the bus at `sessionBusAddress` ("" for none). libsecret itself always talks to the
// session bus, so this is for tests and for callers that read the environment themselves.
std::unique_ptr<SecretStore> makeDefaultSecretStore(const std::filesystem::path& fallbackFile,
                                                    std::string_view sessionBusAddress);

}  // namespace lectern
