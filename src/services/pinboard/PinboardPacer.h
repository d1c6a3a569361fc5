#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "core/Clock.h"

namespace lectern {

class UserDefaults;

// Pinboard answers 429 to a user who calls more than once every few seconds, or who asks for the
// full list more than once every few minutes. The pacer makes calls wait their turn instead.
// Shared by one client's threads; thread-safe.
class PinboardPacer {
 public:
  enum class Call { kAny, kAllPosts };

  struct Intervals {
    std::chrono::milliseconds call{3'000};
    std::chrono::milliseconds allPosts{300'000};
  };

  // When the account last called, and last asked for the full list: kept across processes, so that
  // a second `lectern sync` knows about the first. Thread-safe.
  class Memory {
   public:
    virtual ~Memory() = default;
    virtual std::optional<Date> lastCall(Call call) const = 0;
    virtual void rememberCall(Call call, Date at) = 0;
  };

  // Waits `duration` unless `isCancelled` says stop first: false when it did.
  using Sleep = std::function<bool(std::chrono::milliseconds duration, const std::function<bool()>& isCancelled)>;

  // Nothing for `memory` keeps the times in this object only; nothing for `sleep` sleeps for real,
  // looking at the cancellation every 50 ms.
  PinboardPacer(const Clock& clock, Intervals intervals, std::shared_ptr<Memory> memory = nullptr,
                Sleep sleep = {});

  const Intervals& intervals() const { return intervals_; }
  // How long a call of `kind` made now would have to wait (zero when it may go).
  std::chrono::milliseconds waitBefore(Call kind) const;
  // Waits until a call of `kind` may go, then notes it as made now. False (and nothing noted)
  // when cancelled while waiting. A wait is logged with its reason.
  bool takeTurn(Call kind, const std::function<bool()>& isCancelled = {});

 private:
  std::chrono::milliseconds waitBeforeLocked(Call kind) const;

  const Clock& clock_;
  const Intervals intervals_;
  std::shared_ptr<Memory> memory_;
  Sleep sleep_;
  mutable std::mutex mutex_;  // guards the memory's read-then-write of a turn
};

// The times in the account's preferences ("pinboardLastCall", "pinboardLastAllPosts", seconds
// since 1970), under the account's unique identifier.
std::shared_ptr<PinboardPacer::Memory> pinboardPreferencesMemory(UserDefaults& defaults, std::string accountIdentifier);

// "4 min 12 s", "3 s", "250 ms": a wait as the person reads it.
std::string describeWait(std::chrono::milliseconds wait);

}  // namespace lectern
