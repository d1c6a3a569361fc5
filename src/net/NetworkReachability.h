#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <iosfwd>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "core/Reachability.h"

namespace lectern {

// Reachable means a default route is up and the host's name resolves in bounded time (loopback always is).
// Owned by the program; thread-safe; a monitor thread re-checks the route and tells observers there.
class NetworkReachability final : public Reachability {
 public:
  struct Probes {
    std::function<bool()> hasRoute;  // a default route is up
    std::function<bool(const std::string& host, std::chrono::milliseconds bound)>
        resolves;  // the name resolves
  };

  explicit NetworkReachability(std::chrono::milliseconds resolveBound = std::chrono::seconds(5),
                               std::chrono::milliseconds pollInterval = std::chrono::seconds(10),
                               Probes probes = {});
  ~NetworkReachability() override;
  NetworkReachability(const NetworkReachability&) = delete;
  NetworkReachability& operator=(const NetworkReachability&) = delete;

  // Blocks for at most the resolve bound.
  ReachabilityStatus status(std::string_view host = {}) override;

 private:
  void monitor();

  const std::chrono::milliseconds resolveBound_;
  const std::chrono::milliseconds pollInterval_;
  Probes probes_;
  std::mutex mutex_;  // guards stopping_, lastStatus_
  std::condition_variable stop_;
  bool stopping_ = false;
  ReachabilityStatus lastStatus_ = ReachabilityStatus::kUnknown;
  std::thread thread_;
};

// The default probes: /proc/net/route and /proc/net/ipv6_route for a default route through an
// interface other than loopback; getaddrinfo on a helper thread for names.
bool systemHasDefaultRoute();
// The same over the two tables' text; lines that do not read are skipped.
bool routeTablesHaveDefaultRoute(std::istream& ipv4, std::istream& ipv6);
bool hostNameResolves(const std::string& host, std::chrono::milliseconds bound);
bool isLoopbackHost(std::string_view host);

}  // namespace lectern
