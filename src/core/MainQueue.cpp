#include "core/MainQueue.h"


#include "core/Log.h"

namespace lectern {

MainQueue::MainQueue() : mainThread_(std::this_thread::get_id()) {}

MainQueue::~MainQueue() { shutdown(); }

void MainQueue::post(Task task) {
  std::function<void()> wake;
  {
    std::lock_guard lock(mutex_);
    ready_.push_back(std::move(task));
    wake = wakeUp_;
  }
  wake_.notify_all();
  if (wake) wake();
}

std::uint64_t MainQueue::postAfter(Clock::duration delay, Task task) {
  std::uint64_t id;
  std::function<void()> wake;
  {
    std::lock_guard lock(mutex_);
    id = nextId_++;
    scheduled_.emplace(Clock::now() + delay, std::make_pair(id, std::move(task)));
    wake = wakeUp_;
  }
  wake_.notify_all();
  if (wake) wake();
  return id;
}

void MainQueue::setWakeUp(std::function<void()> wake) {
  std::lock_guard lock(mutex_);
  wakeUp_ = std::move(wake);
}

std::optional<MainQueue::Clock::time_point> MainQueue::nextDue() const {
  std::lock_guard lock(mutex_);
  if (!ready_.empty()) return Clock::now();
  if (scheduled_.empty()) return std::nullopt;
  return scheduled_.begin()->first;
}

void MainQueue::cancelScheduled(std::uint64_t id) {
  std::lock_guard lock(mutex_);
  for (auto it = scheduled_.begin(); it != scheduled_.end(); ++it) {
    if (it->second.first == id) {
      scheduled_.erase(it);
      return;
    }
  }
}

void MainQueue::runSync(const Task& task) {
  if (isMainThread()) {
    task();
    return;
  }
  // Whoever sets `started` first runs the task: the loop, or this thread after a shutdown.
  struct Call {
    std::mutex mutex;  // guards started, done
    std::condition_variable changed;
    bool started = false;
    bool done = false;
  };
  auto call = std::make_shared<Call>();
  post([&task, call] {
    {
      std::lock_guard lock(call->mutex);
      if (call->started) return;
      call->started = true;
    }
    task();
    std::lock_guard lock(call->mutex);
    call->done = true;
    call->changed.notify_all();
  });
  std::unique_lock lock(call->mutex);
  while (!call->done) {
    if (call->changed.wait_for(lock, std::chrono::milliseconds(50), [&] { return call->done; })) break;
    bool shutDown;
    {
      std::lock_guard queueLock(mutex_);
      shutDown = shutDown_;
    }
    if (shutDown && !call->started) {
      call->started = true;
      lock.unlock();
      logError("MainQueue", "Main queue shut down; running a synchronous task on its caller's thread");
      task();
      return;
    }
  }
}

bool MainQueue::next(Task& task, Clock::time_point deadline) {
  std::unique_lock lock(mutex_);
  for (;;) {
    if (stopRequested_) return false;
    const auto now = Clock::now();
    // Timed tasks that are due go behind the tasks already waiting, in their order.
    while (!scheduled_.empty() && scheduled_.begin()->first <= now) {
      ready_.push_back(std::move(scheduled_.begin()->second.second));
      scheduled_.erase(scheduled_.begin());
    }
    if (!ready_.empty()) {
      task = std::move(ready_.front());
      ready_.pop_front();
      return true;
    }
    if (now >= deadline) return false;
    auto wakeAt = deadline;
    if (!scheduled_.empty() && scheduled_.begin()->first < wakeAt) wakeAt = scheduled_.begin()->first;
    if (wakeAt == Clock::time_point::max()) {
      wake_.wait(lock);
    } else {
      wake_.wait_until(lock, wakeAt);
    }
  }
}

void MainQueue::run() {
  {
    std::lock_guard lock(mutex_);
    stopRequested_ = false;
  }
  Task task;
  while (next(task, Clock::time_point::max())) {
    task();
    task = nullptr;
  }
}

void MainQueue::stop() {
  {
    std::lock_guard lock(mutex_);
    stopRequested_ = true;
  }
  wake_.notify_all();
}

bool MainQueue::runUntil(const std::function<bool()>& done, Clock::duration timeout) {
  {
    std::lock_guard lock(mutex_);
    stopRequested_ = false;
  }
  const auto start = Clock::now();
  const auto deadline = timeout >= Clock::time_point::max() - start ? Clock::time_point::max() : start + timeout;
  // Short waits, so a `done` that turns true on another thread is seen promptly.
  constexpr auto kPoll = std::chrono::milliseconds(10);
  while (!done()) {
    const auto now = Clock::now();
    if (now >= deadline) return done();
    const auto slice = deadline - now < kPoll ? deadline : now + kPoll;
    Task task;
    if (next(task, slice)) task();
    std::lock_guard lock(mutex_);
    if (stopRequested_) break;
  }
  return done();
}

size_t MainQueue::discardPending() {
  std::deque<Task> ready;
  std::multimap<Clock::time_point, std::pair<std::uint64_t, Task>> scheduled;
  {
    std::lock_guard lock(mutex_);
    ready.swap(ready_);
    scheduled.swap(scheduled_);
  }
  // Destroyed outside the lock: a task's captures may post again as they go.
  return ready.size() + scheduled.size();
}

size_t MainQueue::drain() {
  size_t count = 0;
  Task task;
  while (next(task, Clock::now())) {
    task();
    task = nullptr;
    ++count;
  }
  return count;
}

void MainQueue::shutdown() {
  {
    std::lock_guard lock(mutex_);
    shutDown_ = true;
  }
  wake_.notify_all();
}

RepeatingTimer::RepeatingTimer(MainQueue& queue, std::chrono::milliseconds interval,
                               std::chrono::milliseconds tolerance, std::function<void()> task)
    : queue_(queue), interval_(interval), tolerance_(tolerance), task_(std::move(task)) {
  schedule();
}

RepeatingTimer::~RepeatingTimer() { invalidate(); }

void RepeatingTimer::invalidate() {
  std::lock_guard lock(mutex_);
  valid_ = false;
  queue_.cancelScheduled(scheduledId_);
}

std::chrono::system_clock::time_point RepeatingTimer::fireDate() const {
  std::lock_guard lock(mutex_);
  return fireDate_;
}

void RepeatingTimer::schedule() {
  std::lock_guard lock(mutex_);
  if (!valid_) return;
  fireDate_ = std::chrono::system_clock::now() + interval_;
  scheduledId_ = queue_.postAfter(interval_, [this] {
    {
      std::lock_guard inner(mutex_);
      if (!valid_) return;
    }
    task_();
    schedule();
  });
}

}  // namespace lectern
