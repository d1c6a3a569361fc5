#include "core/OperationQueue.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace lectern {
namespace {

// The threads operations run on. A thread that finishes an operation waits a little for the next
// one instead of ending: a refresh starts a few operations per feed, and making a thread for each
// cost hundreds of thread starts per pass. Never a bound: a task that finds no idle thread gets a
// new one, so an operation waiting for another never waits for a thread.
class WorkerThreads {
 public:
  static WorkerThreads& shared() {
    // Never destroyed: idle threads may still wait on it while the program exits.
    static auto* pool = new WorkerThreads();
    return *pool;
  }

  void run(std::function<void()> task) {
    {
      std::lock_guard lock(mutex_);
      if (idle_ > static_cast<int>(tasks_.size())) {
        tasks_.push_back(std::move(task));
        available_.notify_one();
        return;
      }
    }
    std::thread([this, task = std::move(task)]() mutable {
      task();
      task = nullptr;
      work();
    }).detach();
  }

 private:
  static constexpr auto kIdleTime = std::chrono::seconds(2);

  void work() {
    std::unique_lock lock(mutex_);
    for (;;) {
      ++idle_;
      const bool woken = available_.wait_for(lock, kIdleTime, [this] { return !tasks_.empty(); });
      --idle_;
      if (!woken) return;
      std::function<void()> task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      task();
      task = nullptr;  // its captures go before the thread waits again
      lock.lock();
    }
  }

  std::mutex mutex_;  // guards tasks_, idle_
  std::condition_variable available_;
  std::deque<std::function<void()>> tasks_;
  int idle_ = 0;
};

}  // namespace

void Operation::cancel() {
  std::function<void()> onCancel;
  {
    std::lock_guard lock(mutex_);
    if (cancelled_) return;
    cancelled_ = true;
    onCancel = onCancel_;
  }
  // The queue starts a waiting operation now, so it finishes without waiting for room.
  if (onCancel) onCancel();
}

bool Operation::isCancelled() const {
  std::lock_guard lock(mutex_);
  return cancelled_;
}

bool Operation::isExecuting() const {
  std::lock_guard lock(mutex_);
  return state_ == State::kExecuting;
}

bool Operation::isFinished() const {
  std::lock_guard lock(mutex_);
  return state_ == State::kFinished;
}

bool Operation::isReady() const {
  std::vector<std::shared_ptr<Operation>> deps;
  {
    std::lock_guard lock(mutex_);
    if (state_ != State::kReady) return false;
    deps = dependencies_;
  }
  return std::all_of(deps.begin(), deps.end(), [](const auto& d) { return d->isFinished(); });
}

void Operation::setCompletionBlock(std::function<void()> block) {
  std::lock_guard lock(mutex_);
  completion_ = std::move(block);
}

void Operation::addDependency(std::shared_ptr<Operation> other) {
  std::lock_guard lock(mutex_);
  dependencies_.push_back(std::move(other));
}

void Operation::waitUntilFinished() const {
  std::unique_lock lock(mutex_);
  finished_.wait(lock, [this] { return state_ == State::kFinished; });
}

void Operation::start() {
  {
    std::lock_guard lock(mutex_);
    if (state_ != State::kReady) return;
    state_ = State::kExecuting;
  }
  // A cancelled operation never starts its work: it finishes straight away.
  if (isCancelled()) {
    finish();
    return;
  }
  main();
  mainDidReturn();
  if (!isAsynchronous()) finish();
}

void Operation::finish() {
  std::function<void()> completion;
  std::function<void()> onFinish;
  {
    std::lock_guard lock(mutex_);
    if (state_ == State::kFinished) return;
    state_ = State::kFinished;
    completion = std::move(completion_);
    onFinish = std::move(onFinish_);
    onCancel_ = nullptr;
    dependencies_.clear();
  }
  finished_.notify_all();
  if (completion) completion();
  if (onFinish) onFinish();
}

struct OperationQueue::State {
  std::string name;
  mutable std::mutex mutex;  // guards every member below
  mutable std::condition_variable changed;
  int maxConcurrent = kDefaultMaxConcurrentOperationCount;
  int running = 0;        // started and not finished
  int liveThreads = 0;    // worker threads still inside Operation::start
  std::vector<std::shared_ptr<Operation>> operations;  // added and not finished, in order
  std::vector<Operation*> started;
};

OperationQueue::OperationQueue(std::string name, int maxConcurrentOperationCount)
    : name_(std::move(name)), state_(std::make_shared<State>()) {
  state_->name = name_;
  state_->maxConcurrent = std::max(1, maxConcurrentOperationCount);
}

OperationQueue::~OperationQueue() {
  cancelAllOperations();
  waitUntilAllOperationsAreFinished();
  std::unique_lock lock(state_->mutex);
  state_->changed.wait(lock, [this] { return state_->liveThreads == 0; });
}

int OperationQueue::maxConcurrentOperationCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->maxConcurrent;
}

void OperationQueue::setMaxConcurrentOperationCount(int count) {
  {
    std::lock_guard lock(state_->mutex);
    state_->maxConcurrent = std::max(1, count);
  }
  pump(state_);
}

void OperationQueue::addOperation(std::shared_ptr<Operation> operation) {
  // The hooks go on before the operation is listed: another thread's pump may start a listed
  // operation at once, and one that finished without its hook would stay listed for ever.
  std::weak_ptr<State> weakState = state_;
  Operation* raw = operation.get();
  {
    std::lock_guard lock(operation->mutex_);
    // Called by Operation::finish on whatever thread finishes it.
    operation->onFinish_ = [weakState, raw] {
      auto state = weakState.lock();
      if (!state) return;
      {
        std::lock_guard lock(state->mutex);
        auto& ops = state->operations;
        auto it = std::find_if(ops.begin(), ops.end(), [raw](const auto& op) { return op.get() == raw; });
        const bool wasStarted = std::find(state->started.begin(), state->started.end(), raw) != state->started.end();
        if (wasStarted) {
          --state->running;
          std::erase(state->started, raw);
        }
        if (it != ops.end()) ops.erase(it);
      }
      state->changed.notify_all();
      pump(state);
    };
    operation->onCancel_ = [weakState] {
      if (auto state = weakState.lock()) pump(state);
    };
  }
  {
    std::lock_guard lock(state_->mutex);
    state_->operations.push_back(operation);
  }
  pump(state_);
}

std::shared_ptr<Operation> OperationQueue::addOperation(std::function<void()> block) {
  auto operation = std::make_shared<BlockOperation>(std::move(block));
  addOperation(operation);
  return operation;
}

std::vector<std::shared_ptr<Operation>> OperationQueue::operations() const {
  std::lock_guard lock(state_->mutex);
  return state_->operations;
}

size_t OperationQueue::operationCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->operations.size();
}

void OperationQueue::cancelAllOperations() {
  for (const auto& op : operations()) op->cancel();
}

void OperationQueue::waitUntilAllOperationsAreFinished() const {
  std::unique_lock lock(state_->mutex);
  state_->changed.wait(lock, [this] { return state_->operations.empty(); });
}

void OperationQueue::pump(const std::shared_ptr<State>& state) {
  std::vector<std::shared_ptr<Operation>> toStart;
  {
    std::lock_guard lock(state->mutex);
    for (const auto& op : state->operations) {
      const bool started = std::find(state->started.begin(), state->started.end(), op.get()) != state->started.end();
      if (started || !op->isReady()) continue;
      // A cancelled operation only finishes: it takes no room, so it never waits behind others.
      if (state->running >= state->maxConcurrent && !op->isCancelled()) continue;
      state->started.push_back(op.get());
      ++state->running;
      ++state->liveThreads;
      toStart.push_back(op);
    }
  }
  for (auto& op : toStart) {
    WorkerThreads::shared().run([state = state, op]() mutable {
      pthread_setname_np(pthread_self(), state->name.substr(0, 15).c_str());
      op->start();
      // The thread's reference goes before the queue hears the thread is done: an operation's
      // destructor must not run after its queue (and what the queue's owner destroys next) is gone.
      op.reset();
      {
        std::lock_guard lock(state->mutex);
        --state->liveThreads;
      }
      state->changed.notify_all();
    });
  }
}

}  // namespace lectern
