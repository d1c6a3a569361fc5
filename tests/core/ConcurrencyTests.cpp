#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <thread>

#include "core/MainQueue.h"
#include "core/OperationQueue.h"

namespace lectern {
namespace {

using namespace std::chrono_literals;

TEST(MainQueue, WorkerRunsBlocksOnTheMainThreadAndWaits) {
  MainQueue main;
  std::atomic<bool> ranOnMain{false};
  std::atomic<bool> workerDone{false};
  int value = 0;
  std::thread worker([&] {
    main.runSync([&] {
      ranOnMain = main.isMainThread();
      value = 42;
    });
    // runSync returned, so the block has finished.
    EXPECT_EQ(value, 42);
    workerDone = true;
  });
  EXPECT_TRUE(main.runUntil([&] { return workerDone.load(); }, 5s));
  worker.join();
  EXPECT_TRUE(ranOnMain);
}

TEST(MainQueue, RunSyncAfterShutdownRunsOnTheCallerInsteadOfHanging) {
  MainQueue main;
  main.shutdown();
  bool ran = false;
  std::thread worker([&] { main.runSync([&] { ran = true; }); });
  worker.join();
  EXPECT_TRUE(ran);
}

TEST(MainQueue, DelayedTasksRunInTimeOrderAndCanBeCancelled) {
  MainQueue main;
  std::vector<int> order;
  main.postAfter(30ms, [&] { order.push_back(3); });
  const auto cancelled = main.postAfter(10ms, [&] { order.push_back(99); });
  main.postAfter(20ms, [&] { order.push_back(2); });
  main.post([&] { order.push_back(1); });
  main.cancelScheduled(cancelled);
  main.runUntil([&] { return order.size() == 3; }, 2s);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(MainQueue, DiscardingDropsQueuedWorkAndReleasesWhatItHolds) {
  MainQueue main;
  auto held = std::make_shared<int>(1);
  bool ran = false;
  main.post([&ran, held] { ran = true; });
  main.postAfter(1h, [&ran, held] { ran = true; });
  EXPECT_EQ(held.use_count(), 3);
  EXPECT_EQ(main.discardPending(), 2u);
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_EQ(main.drain(), 0u);
  EXPECT_FALSE(ran);
}

TEST(RepeatingTimer, FiresRepeatedlyUntilInvalidated) {
  MainQueue main;
  int fired = 0;
  RepeatingTimer timer(main, 5ms, 1ms, [&] { ++fired; });
  main.runUntil([&] { return fired >= 3; }, 2s);
  timer.invalidate();
  const int atStop = fired;
  main.runUntil([] { return false; }, 30ms);
  EXPECT_GE(atStop, 3);
  EXPECT_EQ(fired, atStop);
}

// Counts how many of its operations run at the same moment.
struct ConcurrencyProbe {
  std::atomic<int> running{0};
  std::atomic<int> peak{0};
  void enter() {
    const int now = ++running;
    int seen = peak.load();
    while (now > seen && !peak.compare_exchange_weak(seen, now)) {
    }
  }
  void leave() { --running; }
};

TEST(OperationQueue, NeverRunsMoreThanTheWidthAndWideningStartsWaitingWork) {
  OperationQueue queue("com.quillhq.Lectern.Test", 1);
  ConcurrencyProbe probe;
  std::atomic<bool> release{false};
  for (int i = 0; i < 6; ++i) {
    queue.addOperation([&] {
      probe.enter();
      while (!release) std::this_thread::sleep_for(1ms);
      probe.leave();
    });
  }
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(probe.peak, 1);
  queue.setMaxConcurrentOperationCount(3);
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(probe.peak, 3);
  release = true;
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(queue.operationCount(), 0u);
}

TEST(OperationQueue, ThreadsAreReusedAndWorkWaitingForOtherWorkNeverWaitsForAThread) {
  // Back-to-back operations run on a few threads kept alive between them, not one thread each.
  OperationQueue queue("com.quillhq.Lectern.Test", 1);
  std::mutex mutex;
  std::set<std::thread::id> threads;
  for (int i = 0; i < 40; ++i) {
    queue.addOperation([&] {
      std::lock_guard lock(mutex);
      threads.insert(std::this_thread::get_id());
    });
  }
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_LE(threads.size(), 4u);

  // Every operation of an outer queue blocks until an operation it adds to another queue has
  // run: the threads are never a fixed number that such waits could use up.
  OperationQueue outer("com.quillhq.Lectern.Outer", 8);
  OperationQueue inner("com.quillhq.Lectern.Inner", 8);
  std::atomic<int> finished{0};
  for (int i = 0; i < 8; ++i) {
    outer.addOperation([&] {
      std::atomic<bool> ran{false};
      inner.addOperation([&] { ran = true; });
      while (!ran) std::this_thread::sleep_for(1ms);
      ++finished;
    });
  }
  outer.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(finished, 8);
}

TEST(OperationQueue, CancelledOperationsSkipMainButStillComplete) {
  OperationQueue queue("q", 1);
  std::atomic<bool> gate{false};
  queue.addOperation([&] {
    while (!gate) std::this_thread::sleep_for(1ms);
  });
  std::atomic<bool> mainRan{false};
  std::atomic<bool> completed{false};
  auto op = std::make_shared<BlockOperation>([&] { mainRan = true; });
  op->setCompletionBlock([&] { completed = true; });
  queue.addOperation(op);
  queue.cancelAllOperations();
  gate = true;
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_FALSE(mainRan);
  EXPECT_TRUE(completed);
  EXPECT_TRUE(op->isCancelled());
  EXPECT_TRUE(op->isFinished());
}

// An operation that stays executing after main returns, like a sync operation waiting on I/O.
class AsyncOperation : public Operation {
 public:
  void complete() { finish(); }

 protected:
  void main() override {}
  bool isAsynchronous() const override { return true; }
};

TEST(OperationQueue, AsynchronousOperationsHoldTheirSlotUntilTheyFinish) {
  OperationQueue queue("q", 1);
  auto async = std::make_shared<AsyncOperation>();
  std::atomic<bool> secondRan{false};
  queue.addOperation(async);
  queue.addOperation([&] { secondRan = true; });
  std::this_thread::sleep_for(30ms);
  EXPECT_TRUE(async->isExecuting());
  EXPECT_FALSE(secondRan);
  async->complete();
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_TRUE(secondRan);
}

TEST(OperationQueue, DependentOperationWaitsForAllItsDependencies) {
  OperationQueue queue("q", 4);
  std::atomic<int> done{0};
  std::atomic<int> seenByFinal{-1};
  auto final = std::make_shared<BlockOperation>([&] { seenByFinal = done.load(); });
  std::vector<std::shared_ptr<Operation>> parts;
  for (int i = 0; i < 3; ++i) {
    parts.push_back(std::make_shared<BlockOperation>([&, i] {
      std::this_thread::sleep_for(std::chrono::milliseconds(10 * (3 - i)));
      ++done;
    }));
    final->addDependency(parts.back());
  }
  queue.addOperation(final);  // added first, still runs last
  for (auto& p : parts) queue.addOperation(p);
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(seenByFinal, 3);
}

}  // namespace
}  // namespace lectern
