#pragma once

#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "accounts/ServiceDependencies.h"
#include "core/Clock.h"
#include "core/MainQueue.h"
#include "core/Paths.h"
#include "core/Reachability.h"
#include "core/SecretStore.h"
#include "core/UserDefaults.h"
#include "net/NetworkSession.h"
#include "store/Account.h"
#include "store/QKDataManager.h"
#include "support/TestSupport.h"

namespace lectern::test {

// A fresh library in a temporary folder with the real service factory registered, a fixed clock,
// an in-memory keychain and a network session. The test's thread is the main thread.
class AccountsTest : public ::testing::Test {
 protected:
  AccountsTest();
  ~AccountsTest() override;

  ObjectContext& context();
  // An account of `service` made by the store alone, saved.
  std::shared_ptr<Account> makeAccount(std::string_view service,
                                       std::optional<std::string> username = "reader");
  // Runs the main queue until `done` or ten seconds pass; returns `done()`.
  bool pumpUntil(const std::function<bool()>& done);
  std::optional<std::string> secret(std::string_view identifier);
  // The "Accounts" entry of `identifier`, or null.
  nlohmann::json storedPreferences(std::string_view identifier) const;

  TempDir temp_;
  Paths paths_;
  UserDefaults defaults_;
  MainQueue mainQueue_;
  FixedClock clock_;
  FixedReachability reachability_;
  MemorySecretStore secrets_;
  NetworkSession session_;
  ServiceDependencies dependencies_;
  std::unique_ptr<QKDataManager> manager_;
};

// A feed server on 127.0.0.1 and an ephemeral port: "/feed.xml" (an RSS feed titled "Lectern
// Notes"), "/untitled.xml" (a feed without title), "/missing.xml" (404) and "/page.html" (an HTML
// page, no feed). Counts the requests it answers.
class FeedServer {
 public:
  FeedServer();
  ~FeedServer();
  std::string url(std::string_view path) const;
  int requests() const { return requests_.load(); }

 private:
  httplib::Server server_;
  std::thread thread_;
  int port_ = 0;
  std::atomic<int> requests_{0};
};

}  // namespace lectern::test
