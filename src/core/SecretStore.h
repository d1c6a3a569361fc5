#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "core/Error.h"

namespace lectern {

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

// For tests.
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
// Service answers (headless machines, containers).
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

// The Secret Service (GNOME Keyring, KWallet ...) through libsecret when it answers on the session
// bus, else the file store at `fallbackFile`.
std::unique_ptr<SecretStore> makeDefaultSecretStore(const std::filesystem::path& fallbackFile);

}  // namespace lectern
