#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

namespace lectern {

// The main thread's event loop: the main store context, completions of network calls and the
// sync manager's bookkeeping run here. The thread that creates it is the main thread.
// Owned by the program (or a test); everything else borrows it.
class MainQueue {
 public:
  using Task = std::function<void()>;
  using Clock = std::chrono::steady_clock;

  MainQueue();
  ~MainQueue();
  MainQueue(const MainQueue&) = delete;
  MainQueue& operator=(const MainQueue&) = delete;

  bool isMainThread() const { return std::this_thread::get_id() == mainThread_; }

  void post(Task task);
  // Runs `task` once after `delay`; the id cancels it.
  std::uint64_t postAfter(Clock::duration delay, Task task);
  void cancelScheduled(std::uint64_t id);

  // Runs `task` on the main queue and waits for it to finish. On the main thread it runs at
  // once. The main thread must be running the loop (run/runUntil), or this waits until it does;
  // after shutdown() the task runs on the calling thread instead of waiting forever.
  void runSync(const Task& task);

  // Runs tasks until stop() is called.
  void run();
  void stop();
  // Runs tasks until `done` answers true (checked after each task) or `timeout` passes;
  // returns the last answer of `done`.
  bool runUntil(const std::function<bool()>& done, Clock::duration timeout = Clock::duration::max());
  // Runs every task that is due now, then returns how many ran.
  size_t drain();

  // Another event loop drives this queue (a toolkit's): `wake` is called, on the posting thread,
  // whenever a task is posted or scheduled, so that loop comes round and calls drain().
  void setWakeUp(std::function<void()> wake);
  // When the next task is due: now when one is ready; nothing when none is queued or scheduled.
  std::optional<Clock::time_point> nextDue() const;

  // Drops every queued and scheduled task without running it; answers how many there were.
  size_t discardPending();

  // No more waiting for the loop: later runSync calls run inline. Called when the program winds down.
  void shutdown();

 private:
  // Takes the next due task, waiting at most until `deadline`. Returns false on timeout or stop.
  bool next(Task& task, Clock::time_point deadline);

  const std::thread::id mainThread_;
  mutable std::mutex mutex_;  // guards everything below
  std::condition_variable wake_;
  std::deque<Task> ready_;
  std::multimap<Clock::time_point, std::pair<std::uint64_t, Task>> scheduled_;
  std::uint64_t nextId_ = 1;
  bool stopRequested_ = false;
  bool shutDown_ = false;
  std::function<void()> wakeUp_;
};

// Calls `task` every `interval` on the main queue until destroyed or invalidated. The fire may
// come up to `tolerance` late, which lets the queue coalesce wake-ups.
class RepeatingTimer {
 public:
  RepeatingTimer(MainQueue& queue, std::chrono::milliseconds interval, std::chrono::milliseconds tolerance,
                 std::function<void()> task);
  ~RepeatingTimer();
  RepeatingTimer(const RepeatingTimer&) = delete;
  RepeatingTimer& operator=(const RepeatingTimer&) = delete;

  void invalidate();
  std::chrono::system_clock::time_point fireDate() const;
  std::chrono::milliseconds interval() const { return interval_; }
  std::chrono::milliseconds tolerance() const { return tolerance_; }

 private:
  void schedule();

  MainQueue& queue_;
  const std::chrono::milliseconds interval_;
  const std::chrono::milliseconds tolerance_;
  std::function<void()> task_;
  mutable std::mutex mutex_;  // guards scheduledId_, fireDate_, valid_
  std::uint64_t scheduledId_ = 0;
  std::chrono::system_clock::time_point fireDate_;
  bool valid_ = true;
};

}  // namespace lectern
