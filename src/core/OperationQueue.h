#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace lectern {

class OperationQueue;

// A unit of work run by an OperationQueue on a worker thread. States move ready -> executing ->
// finished; a cancelled operation that has not started finishes without running `main`, at once:
// it never waits for room in its queue. Cancellation is cooperative: `main` checks isCancelled().
class Operation : public std::enable_shared_from_this<Operation> {
 public:
  Operation() = default;
  virtual ~Operation() = default;
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;

  virtual void cancel();
  bool isCancelled() const;
  bool isExecuting() const;
  bool isFinished() const;
  // True when every dependency has finished.
  bool isReady() const;

  // Runs once, on the thread that finishes the operation, after it is marked finished.
  void setCompletionBlock(std::function<void()> block);
  // This operation starts only after `other` has finished (cancelled or not).
  void addDependency(std::shared_ptr<Operation> other);
  void waitUntilFinished() const;

  // Runs the operation on the calling thread. The queue calls it; call it yourself only for an
  // operation that is in no queue.
  void start();

 protected:
  virtual void main() = 0;
  // An asynchronous operation stays executing after `main` returns, until it calls finish().
  virtual bool isAsynchronous() const { return false; }
  // Called on the operation's thread right after `main` returns.
  virtual void mainDidReturn() {}
  void finish();

 private:
  friend class OperationQueue;
  enum class State { kReady, kExecuting, kFinished };

  mutable std::mutex mutex_;  // guards every member below
  mutable std::condition_variable finished_;
  State state_ = State::kReady;
  bool cancelled_ = false;
  std::function<void()> completion_;
  std::vector<std::shared_ptr<Operation>> dependencies_;
  std::function<void()> onFinish_;  // set by the queue that owns it
  std::function<void()> onCancel_;  // set by the queue that owns it
};

// An operation made of one function.
class BlockOperation final : public Operation {
 public:
  explicit BlockOperation(std::function<void()> block) : block_(std::move(block)) {}

 protected:
  void main() override { block_(); }

 private:
  std::function<void()> block_;
};

// Runs operations on worker threads, at most `maxConcurrentOperationCount` at a time, in the
// order they were added among those that are ready. Thread-safe.
class OperationQueue {
 public:
  static constexpr int kDefaultMaxConcurrentOperationCount = 4;

  explicit OperationQueue(std::string name, int maxConcurrentOperationCount = kDefaultMaxConcurrentOperationCount);
  // Cancels what is left and waits for running operations to end.
  ~OperationQueue();
  OperationQueue(const OperationQueue&) = delete;
  OperationQueue& operator=(const OperationQueue&) = delete;

  const std::string& name() const { return name_; }
  int maxConcurrentOperationCount() const;
  // Takes effect at once: a wider queue starts waiting operations now.
  void setMaxConcurrentOperationCount(int count);

  void addOperation(std::shared_ptr<Operation> operation);
  std::shared_ptr<Operation> addOperation(std::function<void()> block);
  // Operations added but not finished, in the order they were added.
  std::vector<std::shared_ptr<Operation>> operations() const;
  size_t operationCount() const;
  void cancelAllOperations();
  // Blocks until no operation is left. Do not call it on the main thread while operations wait
  // on the main queue: pump the main queue instead (MainQueue::runUntil).
  void waitUntilAllOperationsAreFinished() const;

 private:
  struct State;
  // Starts waiting operations while there is room. Static so that a late finish, on any
  // thread, needs only the shared state and never the queue object.
  static void pump(const std::shared_ptr<State>& state);

  const std::string name_;
  std::shared_ptr<State> state_;
};

}  // namespace lectern
