#include "services/pinboard/PinboardPacer.h"

#include <fmt/format.h>

#include <algorithm>
#include <thread>

#include "core/Log.h"
#include "core/UserDefaults.h"
#include "store/QKAccountPreferences.h"

namespace lectern {
namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;

constexpr std::string_view kLogCategory = "QKPinboardClient";
constexpr milliseconds kCancellationPoll{50};
constexpr std::string_view kLastCallKey = "pinboardLastCall";
constexpr std::string_view kLastAllPostsKey = "pinboardLastAllPosts";

std::string_view keyOf(PinboardPacer::Call call) {
  return call == PinboardPacer::Call::kAllPosts ? kLastAllPostsKey : kLastCallKey;
}

class LocalMemory final : public PinboardPacer::Memory {
 public:
  std::optional<Date> lastCall(PinboardPacer::Call call) const override {
    std::lock_guard lock(mutex_);
    return call == PinboardPacer::Call::kAllPosts ? lastAllPosts_ : lastCall_;
  }
  void rememberCall(PinboardPacer::Call call, Date at) override {
    std::lock_guard lock(mutex_);
    (call == PinboardPacer::Call::kAllPosts ? lastAllPosts_ : lastCall_) = at;
  }

 private:
  mutable std::mutex mutex_;  // guards both dates
  std::optional<Date> lastCall_;
  std::optional<Date> lastAllPosts_;
};

// Read and written straight through the user defaults, which other processes read too.
class PreferencesMemory final : public PinboardPacer::Memory {
 public:
  PreferencesMemory(UserDefaults& defaults, std::string identifier)
      : defaults_(defaults), identifier_(std::move(identifier)) {}

  std::optional<Date> lastCall(PinboardPacer::Call call) const override {
    const auto value = QKAccountPreferences(defaults_, identifier_).valueForKey(keyOf(call));
    if (!value.is_number()) return std::nullopt;
    return dateFromSecondsSince1970(value.get<double>());
  }
  void rememberCall(PinboardPacer::Call call, Date at) override {
    QKAccountPreferences preferences(defaults_, identifier_);
    if (auto stored = preferences.setValue(keyOf(call), secondsSince1970(at)); !stored) {
      logError(kLogCategory, "Failed to remember the time of a Pinboard call: {}", stored.error().message());
    }
  }

 private:
  UserDefaults& defaults_;
  const std::string identifier_;
};

bool sleepFor(milliseconds duration, const std::function<bool()>& isCancelled) {
  const auto until = std::chrono::steady_clock::now() + duration;
  while (true) {
    if (isCancelled && isCancelled()) return false;
    const auto now = std::chrono::steady_clock::now();
    if (now >= until) return true;
    std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(until - now, kCancellationPoll));
  }
}

}  // namespace

PinboardPacer::PinboardPacer(const Clock& clock, Intervals intervals, std::shared_ptr<Memory> memory, Sleep sleep)
    : clock_(clock),
      intervals_(intervals),
      memory_(memory ? std::move(memory) : std::make_shared<LocalMemory>()),
      sleep_(sleep ? std::move(sleep) : Sleep(sleepFor)) {}

milliseconds PinboardPacer::waitBefore(Call kind) const {
  std::lock_guard lock(mutex_);
  return waitBeforeLocked(kind);
}

milliseconds PinboardPacer::waitBeforeLocked(Call kind) const {
  const Date now = clock_.now();
  milliseconds wait{0};
  auto after = [&](Call call, milliseconds interval) {
    const auto last = memory_->lastCall(call);
    // A time in the future (a clock set back) counts from now, so a wait never exceeds its interval.
    if (!last) return;
    const Date from = std::min(*last, now);
    wait = std::max(wait, duration_cast<milliseconds>(from + interval - now));
  };
  after(Call::kAny, intervals_.call);
  if (kind == Call::kAllPosts) after(Call::kAllPosts, intervals_.allPosts);
  return std::max(wait, milliseconds{0});
}

bool PinboardPacer::takeTurn(Call kind, const std::function<bool()>& isCancelled) {
  bool logged = false;
  std::unique_lock lock(mutex_);
  while (true) {
    const milliseconds wait = waitBeforeLocked(kind);
    if (wait <= milliseconds{0}) break;
    const std::optional<Date> seen = memory_->lastCall(Call::kAny);
    lock.unlock();
    if (!logged) {
      logInfo(kLogCategory, "Pinboard: waiting {} before the next call (one call every {}, the full list every {})",
              describeWait(wait), describeWait(intervals_.call), describeWait(intervals_.allPosts));
      logged = true;
    }
    const bool waited = sleep_(wait, isCancelled);
    lock.lock();
    if (!waited) return false;
    // The wait was served: the call goes unless another one took the turn meanwhile. (Asking the
    // clock again would wait for ever with a clock that stands still.)
    if (memory_->lastCall(Call::kAny) == seen) break;
  }
  const Date now = clock_.now();
  memory_->rememberCall(Call::kAny, now);
  if (kind == Call::kAllPosts) memory_->rememberCall(Call::kAllPosts, now);
  return true;
}

std::shared_ptr<PinboardPacer::Memory> pinboardPreferencesMemory(UserDefaults& defaults,
                                                                 std::string accountIdentifier) {
  return std::make_shared<PreferencesMemory>(defaults, std::move(accountIdentifier));
}

std::string describeWait(milliseconds wait) {
  if (wait < std::chrono::seconds(1)) return fmt::format("{} ms", std::max<std::int64_t>(wait.count(), 0));
  // Rounded up: "try again in 3 s" must not be a second early.
  const auto seconds = (wait.count() + 999) / 1000;
  if (seconds < 60) return fmt::format("{} s", seconds);
  if (seconds % 60 == 0) return fmt::format("{} min", seconds / 60);
  return fmt::format("{} min {} s", seconds / 60, seconds % 60);
}

}  // namespace lectern
