#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace lectern {

enum class ReachabilityStatus : int { kUnknown = -1, kNotReachable = 0, kReachableViaWWAN = 1, kReachableViaWiFi = 2 };

// Whether the internet (or one host) can be reached. The program uses the network layer's real
// probe; tests and `--offline` inject their own. Thread-safe.
class Reachability {
 public:
  using Observer = std::function<void(ReachabilityStatus)>;
  virtual ~Reachability() = default;

  // The status for `host`, or for the internet at large when `host` is empty.
  virtual ReachabilityStatus status(std::string_view host = {}) = 0;
  bool isReachable(std::string_view host = {}) {
    const auto s = status(host);
    return s == ReachabilityStatus::kReachableViaWWAN || s == ReachabilityStatus::kReachableViaWiFi;
  }

  // Observers hear status changes (the implementation says on which thread it calls them).
  int addObserver(Observer observer) {
    std::lock_guard lock(mutex_);
    observers_.emplace(++lastToken_, std::move(observer));
    return lastToken_;
  }
  void removeObserver(int token) {
    std::lock_guard lock(mutex_);
    observers_.erase(token);
  }

 protected:
  void notifyObservers(ReachabilityStatus status) {
    std::map<int, Observer> copy;
    {
      std::lock_guard lock(mutex_);
      copy = observers_;
    }
    for (auto& [token, observer] : copy) observer(status);
  }

 private:
  std::mutex mutex_;  // guards observers_, lastToken_
  std::map<int, Observer> observers_;
  int lastToken_ = 0;
};

// A status set by hand: `--offline`, and tests that switch the network off and on.
class FixedReachability final : public Reachability {
 public:
  explicit FixedReachability(ReachabilityStatus status = ReachabilityStatus::kReachableViaWiFi) : status_(status) {}
  ReachabilityStatus status(std::string_view = {}) override { return status_.load(); }
  // Observers are told on the calling thread.
  void set(ReachabilityStatus status) {
    if (status_.exchange(status) != status) notifyObservers(status);
  }

 private:
  std::atomic<ReachabilityStatus> status_;
};

}  // namespace lectern
