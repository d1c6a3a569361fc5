#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/Clock.h"
#include "core/Error.h"
#include "core/MainQueue.h"
#include "core/OperationQueue.h"
#include "core/Reachability.h"
#include "net/Transport.h"
#include "net/oauth/NonceSource.h"
#include "net/oauth/OAuthNonceLedger.h"

namespace lectern {

struct NetworkSessionOptions {
  bool verifyTLS = true;  // only tests turn certificate checks off
  // Bodies kept in memory larger than this fail with -1103; bodies streamed to a file are not limited.
  std::uint64_t maximumResponseSize = 64ull * 1024 * 1024;
  int maximumRedirects = 16;
  bool acceptCookies = true;  // in-memory cookies, a jar per client
  // The idle timeout of every request a client builds: no byte moving for this long fails with
  // -1001. Blocking calls with a zero timeout have no other bound.
  std::chrono::duration<double> defaultTimeoutInterval{60.0};
  std::vector<std::string> preferredLanguages;  // empty: from the environment
  std::string systemRelease;                    // empty: the running kernel's
  // Diagnostic dumps go here, and only when the folder already exists ("dump" in the application folder).
  std::filesystem::path dumpFolder;
  std::shared_ptr<const Clock> clock;        // OAuth timestamps; the system clock when empty
  std::shared_ptr<NonceSource> nonceSource;  // OAuth nonces; fresh UUIDs when empty
};

// The kinds of response parsing, each with its own processing queue.
enum class ResponseProcessing { kNone, kJSON, kXML, kPropertyList, kImage };

// The pending xAuth exchange's callbacks: one pair for the whole program, replaced by each new exchange.
struct XAuthCallbacks {
  std::function<void(std::optional<std::string> token, std::optional<std::string> secret)> success;
  std::function<void(const Error&)> failure;
};

// What every HTTP client shares: transport, main queue, reachability, processing queues, OAuth nonce ledger.
// Made once by the program and outliving every client; thread-safe.
class NetworkSession {
 public:
  // The real transport over libcurl.
  NetworkSession(MainQueue& mainQueue, Reachability& reachability, NetworkSessionOptions options = {});
  // Any transport (tests pass a canned one).
  NetworkSession(MainQueue& mainQueue, Reachability& reachability, std::unique_ptr<Transport> transport,
                 NetworkSessionOptions options = {});
  ~NetworkSession();
  NetworkSession(const NetworkSession&) = delete;
  NetworkSession& operator=(const NetworkSession&) = delete;

  MainQueue& mainQueue() { return mainQueue_; }
  Reachability& reachability() { return reachability_; }
  Transport& transport() { return *transport_; }
  const NetworkSessionOptions& options() const { return options_; }
  const Clock& clock() const { return *options_.clock; }
  NonceSource& nonceSource() { return *options_.nonceSource; }
  OAuthNonceLedger& nonceLedger() { return nonceLedger_; }
  // Parsing runs here, off the network thread and off the main thread.
  OperationQueue& processingQueue(ResponseProcessing kind);
  // Background work of the clients (reachability probes, which may wait on name resolution).
  OperationQueue& backgroundQueue() { return backgroundQueue_; }

  void setPendingXAuthCallbacks(XAuthCallbacks callbacks);
  XAuthCallbacks pendingXAuthCallbacks() const;

 private:
  MainQueue& mainQueue_;
  Reachability& reachability_;
  NetworkSessionOptions options_;
  OAuthNonceLedger nonceLedger_;
  OperationQueue jsonQueue_{"com.ribuklaid.networking.json-request.processing"};
  OperationQueue xmlQueue_{"com.ribuklaid.networking.xml-request.processing"};
  OperationQueue propertyListQueue_{"com.ribuklaid.networking.property-list-request.processing"};
  OperationQueue imageQueue_{"com.ribuklaid.networking.image-request.processing"};
  OperationQueue backgroundQueue_{"com.ribuklaid.networking.background", 2};
  mutable std::mutex xAuthMutex_;  // guards xAuthCallbacks_
  XAuthCallbacks xAuthCallbacks_;
  // Last, so that it stops (and its delegates hear their last word) before the queues go.
  std::unique_ptr<Transport> transport_;
};

}  // namespace lectern
