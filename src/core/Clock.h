#pragma once

#include <atomic>
#include <chrono>

namespace lectern {

// A point in time. Stored and exchanged as seconds since 1970 where a number is needed.
using Date = std::chrono::system_clock::time_point;

inline double secondsSince1970(Date date) {
  return std::chrono::duration<double>(date.time_since_epoch()).count();
}
inline Date dateFromSecondsSince1970(double seconds) {
  return Date(std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(seconds)));
}

// The source of "now". Injected wherever behaviour depends on the time, so tests can fix it.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual Date now() const = 0;
};

class SystemClock final : public Clock {
 public:
  Date now() const override { return std::chrono::system_clock::now(); }
};

// A clock that stands still until moved. Safe to read from any thread.
class FixedClock final : public Clock {
 public:
  explicit FixedClock(Date at) : at_(at.time_since_epoch().count()) {}
  Date now() const override { return Date(Date::duration(at_.load())); }
  void set(Date at) { at_ = at.time_since_epoch().count(); }
  void advance(std::chrono::seconds by) { at_ += std::chrono::duration_cast<Date::duration>(by).count(); }

 private:
  std::atomic<Date::rep> at_;
};

}  // namespace lectern
