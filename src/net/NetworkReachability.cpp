#include "net/NetworkReachability.h"

#include <netdb.h>
#include <pthread.h>
#include <sys/socket.h>

#include <charconv>
#include <fstream>
#include <memory>
#include <sstream>

#include "core/Strings.h"
#include "net/ExceptionBarrier.h"

namespace lectern {

bool isLoopbackHost(std::string_view host) {
  const std::string lower = toLowerASCII(host);
  return lower == "localhost" || lower.ends_with(".localhost") || lower.starts_with("127.") || lower == "::1";
}

bool systemHasDefaultRoute() {
  std::ifstream ipv4("/proc/net/route");
  std::ifstream ipv6("/proc/net/ipv6_route");
  return routeTablesHaveDefaultRoute(ipv4, ipv6);
}

bool routeTablesHaveDefaultRoute(std::istream& ipv4, std::istream& ipv6) {
  std::string line;
  std::getline(ipv4, line);  // the column titles
  while (std::getline(ipv4, line)) {
    std::istringstream fields(line);
    std::string interface, destination, gateway, flags;
    fields >> interface >> destination >> gateway >> flags;
    // Destination 0.0.0.0 on an interface that is up (flag 1). A line that does not read is skipped.
    unsigned long flagBits = 0;
    const auto [end, ec] = std::from_chars(flags.data(), flags.data() + flags.size(), flagBits, 16);
    if (ec != std::errc() || end != flags.data() + flags.size()) continue;
    if (destination == "00000000" && interface != "lo" && (flagBits & 1u) != 0) return true;
  }
  while (std::getline(ipv6, line)) {
    std::istringstream fields(line);
    std::string destination, prefixLength, source, sourceLength, nextHop, metric, references, use, flags,
        interface;
    fields >> destination >> prefixLength >> source >> sourceLength >> nextHop >> metric >> references >>
        use >> flags >> interface;
    if (destination == std::string(32, '0') && prefixLength == "00" && interface != "lo" &&
        nextHop != std::string(32, '0')) {
      return true;
    }
  }
  return false;
}

bool hostNameResolves(const std::string& host, std::chrono::milliseconds bound) {
  // getaddrinfo cannot be interrupted, so it runs on a thread of its own that may outlive the wait.
  struct Lookup {
    std::mutex mutex;  // guards done, found
    std::condition_variable changed;
    bool done = false;
    bool found = false;
  };
  auto lookup = std::make_shared<Lookup>();
  std::thread([lookup, host] {
    pthread_setname_np(pthread_self(), "reachability");
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* result = nullptr;
    const bool found = getaddrinfo(host.c_str(), nullptr, &hints, &result) == 0 && result != nullptr;
    if (result != nullptr) freeaddrinfo(result);
    std::lock_guard lock(lookup->mutex);
    lookup->done = true;
    lookup->found = found;
    lookup->changed.notify_all();
  }).detach();
  std::unique_lock lock(lookup->mutex);
  lookup->changed.wait_for(lock, bound, [&] { return lookup->done; });
  return lookup->done && lookup->found;
}

NetworkReachability::NetworkReachability(std::chrono::milliseconds resolveBound,
                                         std::chrono::milliseconds pollInterval, Probes probes)
    : resolveBound_(resolveBound), pollInterval_(pollInterval), probes_(std::move(probes)) {
  if (!probes_.hasRoute) probes_.hasRoute = systemHasDefaultRoute;
  if (!probes_.resolves) probes_.resolves = hostNameResolves;
  thread_ = std::thread([this] { monitor(); });
}

NetworkReachability::~NetworkReachability() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  stop_.notify_all();
  thread_.join();
}

ReachabilityStatus NetworkReachability::status(std::string_view host) {
  if (!host.empty() && isLoopbackHost(host)) return ReachabilityStatus::kReachableViaWiFi;
  if (!probes_.hasRoute()) return ReachabilityStatus::kNotReachable;
  if (host.empty()) return ReachabilityStatus::kReachableViaWiFi;
  // Linux cannot tell a cellular link from another; every reachable host counts as the local network.
  return probes_.resolves(std::string(host), resolveBound_) ? ReachabilityStatus::kReachableViaWiFi
                                                            : ReachabilityStatus::kNotReachable;
}

void NetworkReachability::monitor() {
  pthread_setname_np(pthread_self(), "reachability");
  for (;;) {
    // Probes and observers are other code: nothing they throw may end this thread. A round whose
    // probe threw tells nobody anything.
    ReachabilityStatus now = ReachabilityStatus::kUnknown;
    const auto thrown = exceptionMessageFrom([&] { now = status(); });
    if (thrown) logError("NetworkReachability", "Exception in a reachability probe: {}", *thrown);
    bool changed = false;
    {
      std::unique_lock lock(mutex_);
      if (stopping_) return;
      if (!thrown) {
        changed = lastStatus_ != ReachabilityStatus::kUnknown && now != lastStatus_;
        lastStatus_ = now;
      }
    }
    if (changed) {
      runLoggingExceptions("NetworkReachability", "a reachability observer", [&] { notifyObservers(now); });
    }
    std::unique_lock lock(mutex_);
    if (stop_.wait_for(lock, pollInterval_, [this] { return stopping_; })) return;
  }
}

}  // namespace lectern
