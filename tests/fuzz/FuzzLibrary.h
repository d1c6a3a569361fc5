#pragma once

// A whole library for one fuzz input: a store in a fresh temporary folder, the real service
// factory and sync manager, and a network whose every answer comes from the input. Made and
// torn down per input, so an input replays alone exactly as the fuzzer ran it.

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "core/Clock.h"
#include "core/MainQueue.h"
#include "core/Paths.h"
#include "core/Reachability.h"
#include "core/SecretStore.h"
#include "core/UserDefaults.h"
#include "net/CannedTransport.h"
#include "net/NetworkSession.h"
#include "store/QKDataManager.h"
#include "sync/QKSyncManager.h"
#include "sync/SyncEnvironment.h"

namespace lectern::fuzz {

// Server answers in the order requests arrive. An answer may start with a status line
// ("HTTP 401\n"); otherwise it is a 200. Its type is the first one the request accepts, JSON when
// it names none. Once the answers run out every request gets 404, so paging always ends.
class AnswerScript {
 public:
  explicit AnswerScript(std::vector<std::string_view> answers);
  CannedTransport::Answer next(const HttpRequest& request);
  int served() const { return served_.load(); }

 private:
  std::mutex lock_;
  std::vector<std::string> answers_;
  std::atomic<int> served_{0};
};

class FuzzLibrary {
 public:
  // `answer` plays the server for every request of this library's network.
  explicit FuzzLibrary(CannedTransport::Handler answer);
  ~FuzzLibrary();
  FuzzLibrary(const FuzzLibrary&) = delete;
  FuzzLibrary& operator=(const FuzzLibrary&) = delete;

  ObjectContext& context();
  // One sync of the account, waited for (at most a minute).
  void sync(const std::shared_ptr<Account>& account);
  MainQueue& mainQueue() { return mainQueue_; }
  SecretStore& secrets() { return secrets_; }

 private:
  std::filesystem::path folder_;
  Paths paths_;
  UserDefaults defaults_;
  MainQueue mainQueue_;
  FixedClock clock_;
  FixedReachability reachability_;
  MemorySecretStore secrets_;
  NetworkSession session_;
  std::unique_ptr<QKDataManager> dataManager_;
  SyncEnvironment environment_;
  std::unique_ptr<QKSyncManager> manager_;
};

}  // namespace lectern::fuzz
