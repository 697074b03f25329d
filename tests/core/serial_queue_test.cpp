#include "core/serial_queue.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace quorel {
namespace {

using namespace std::chrono_literals;

// Waits for a condition that another thread makes true; the bound only guards against a hang,
// the tests never depend on how long anything takes.
template <class Pred>
bool eventually(Pred pred, std::chrono::milliseconds bound = 5000ms) {
  const auto end = std::chrono::steady_clock::now() + bound;
  while (!pred()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

TEST(SerialQueueTest, RunsWorkInPostedOrderOnOneThread) {
  SerialQueue q("test.order");
  q.start();
  std::vector<int> seen;
  std::thread::id worker;
  std::atomic<bool> sameThread{true};
  for (int i = 0; i < 100; ++i) {
    q.async([&, i] {
      if (i == 0) worker = std::this_thread::get_id();
      if (std::this_thread::get_id() != worker) sameThread = false;
      seen.push_back(i);
    });
  }
  q.sync([] {});
  ASSERT_EQ(seen.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(seen[i], i);
  EXPECT_TRUE(sameThread);
  EXPECT_NE(worker, std::this_thread::get_id());
}

TEST(SerialQueueTest, SyncReturnsValueAndRefusesItself) {
  SerialQueue q("test.sync");
  q.start();
  EXPECT_EQ(q.sync([] { return 42; }), 42);
  EXPECT_FALSE(q.isCurrent());
  EXPECT_TRUE(q.sync([&] { return q.isCurrent(); }));
  std::string error;
  q.sync([&] {
    try {
      q.sync([] { return 0; });
    } catch (const std::logic_error& e) {
      error = e.what();
    }
  });
  EXPECT_NE(error.find("deadlock"), std::string::npos);
}

TEST(SerialQueueTest, SyncPropagatesExceptions) {
  SerialQueue q("test.throw");
  q.start();
  EXPECT_THROW(q.sync([]() -> int { throw std::runtime_error("boom"); }), std::runtime_error);
  EXPECT_EQ(q.sync([] { return 1; }), 1);
}

TEST(SerialQueueTest, CancelledOrDestroyedHandleMeansTheWorkNeverRuns) {
  SerialQueue q("test.cancel");
  q.start();
  std::atomic<int> ran{0};
  auto handle = q.after(Seconds{0.05}, [&] { ++ran; });
  EXPECT_TRUE(handle.pending());
  handle.cancel();
  EXPECT_FALSE(handle.pending());
  {
    auto dropped = q.after(Seconds{0.02}, [&] { ++ran; });
  }
  // A later job on the same queue proves both deadlines have long passed.
  std::atomic<bool> later{false};
  q.asyncAfter(Seconds{0.1}, [&] { later = true; });
  ASSERT_TRUE(eventually([&] { return later.load(); }));
  EXPECT_EQ(ran.load(), 0);
}

TEST(SerialQueueTest, DelayedWorkRunsOnceOnTheQueue) {
  SerialQueue q("test.after");
  q.start();
  std::atomic<int> ran{0};
  std::atomic<bool> onQueue{false};
  auto handle = q.after(Seconds{0.001}, [&] {
    onQueue = q.isCurrent();
    ++ran;
  });
  ASSERT_TRUE(eventually([&] { return ran.load() == 1; }));
  EXPECT_TRUE(onQueue.load());
  EXPECT_FALSE(handle.pending());
  q.sync([] {});
  EXPECT_EQ(ran.load(), 1);
}

TEST(SerialQueueTest, RepeatingTimerFiresImmediatelyThenRepeatsUntilCancelled) {
  SerialQueue q("test.every");
  q.start();
  std::atomic<int> ticks{0};
  auto timer = q.every(Seconds{0}, Seconds{0.005}, [&] { ++ticks; });
  ASSERT_TRUE(eventually([&] { return ticks.load() >= 3; }));
  timer.cancel();
  // After cancel() returns and the queue has drained, no further tick may start.
  q.sync([] {});
  const int atCancel = ticks.load();
  std::atomic<bool> later{false};
  q.asyncAfter(Seconds{0.03}, [&] { later = true; });
  ASSERT_TRUE(eventually([&] { return later.load(); }));
  EXPECT_EQ(ticks.load(), atCancel);
}

TEST(SerialQueueTest, TimerCancelledFromItsOwnTickStops) {
  SerialQueue q("test.selfcancel");
  q.start();
  std::atomic<int> ticks{0};
  TimerHandle timer;
  std::mutex m;
  {
    std::lock_guard lock(m);
    timer = q.every(Seconds{0}, Seconds{0.001}, [&] {
      if (++ticks == 2) {
        std::lock_guard inner(m);
        timer.cancel();
      }
    });
  }
  ASSERT_TRUE(eventually([&] { return ticks.load() >= 2; }));
  std::atomic<bool> later{false};
  q.asyncAfter(Seconds{0.02}, [&] { later = true; });
  ASSERT_TRUE(eventually([&] { return later.load(); }));
  EXPECT_EQ(ticks.load(), 2);
}

TEST(SerialQueueTest, RejectsNonPositivePeriod) {
  SerialQueue q("test.period");
  EXPECT_THROW((void)q.every(Seconds{0}, Seconds{0}, [] {}), std::invalid_argument);
}

TEST(SerialQueueTest, RunPendingDrivesAnUnstartedQueueOnTheCallingThread) {
  SerialQueue q("test.manual");
  int ran = 0;
  bool current = false;
  q.async([&] {
    ++ran;
    current = q.isCurrent();
  });
  EXPECT_EQ(ran, 0);
  EXPECT_EQ(q.runPending(), 1u);
  EXPECT_EQ(ran, 1);
  EXPECT_TRUE(current);
  EXPECT_FALSE(q.isCurrent());
  EXPECT_EQ(q.runPending(), 0u);
}

TEST(SerialQueueTest, ShutdownFailsWaitingSyncInsteadOfHanging) {
  auto q = std::make_unique<SerialQueue>("test.shutdown");
  SerialQueue* queue = q.get();  // the caller never touches the owning pointer
  // Never started: the sync below can only end through shutdown dropping its job.
  std::atomic<bool> calling{false};
  std::atomic<bool> threw{false};
  std::thread caller([&] {
    calling = true;
    try {
      queue->sync([] { return 1; });
    } catch (const std::future_error&) {
      threw = true;
    }
  });
  ASSERT_TRUE(eventually([&] { return calling.load(); }));
  // The post follows the flag within a few instructions; this margin only has to cover those.
  std::this_thread::sleep_for(20ms);
  q.reset();
  caller.join();
  EXPECT_TRUE(threw.load());
}

TEST(SerialQueueTest, MainQueueRunsOnCallerUntilShutdown) {
  SerialQueue mainQueue("test.main");
  std::thread poster([&] { mainQueue.async([&] { mainQueue.shutdown(); }); });
  mainQueue.run();  // returns once the posted job shuts it down
  poster.join();
  SUCCEED();
}

}  // namespace
}  // namespace quorel
