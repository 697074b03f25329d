#include "core/serial_queue.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "support/log_capture.hpp"

namespace quorel {
namespace {

using namespace std::chrono_literals;

// Timer rules, on a queue that is never started: the test moves the clock and steps the queue.
class SerialQueueTimerTest : public ::testing::Test {
 protected:
  // Moves the clock and runs what became due; returns the jobs run.
  std::size_t advance(double seconds) {
    clock.advance(Seconds{seconds});
    return q.runPending();
  }

  ManualClock clock;
  SerialQueue q{"test.timers", clock};
  std::vector<std::string> ran;
};

TEST_F(SerialQueueTimerTest, DelayedJobsRunOnceAtTheirDeadlineInDeadlineOrder) {
  q.asyncAfter(Seconds{2}, [&] { ran.push_back("2s"); });
  auto handle = q.after(Seconds{1}, [&] {
    EXPECT_TRUE(q.isCurrent());
    ran.push_back("1s");
  });
  q.asyncAfter(Seconds{2}, [&] { ran.push_back("2s, booked later"); });
  q.asyncAfter(Seconds{0}, [&] { ran.push_back("now"); });
  EXPECT_EQ(q.runPending(), 1u);
  EXPECT_EQ(advance(0.999), 0u);
  EXPECT_TRUE(handle.pending());
  EXPECT_EQ(advance(0.001), 1u);
  EXPECT_FALSE(handle.pending());
  EXPECT_EQ(advance(5), 2u);
  EXPECT_EQ(advance(5), 0u);
  EXPECT_EQ(ran, (std::vector<std::string>{"now", "1s", "2s", "2s, booked later"}));
}

TEST_F(SerialQueueTimerTest, RepeatingTimerKeepsItsScheduleAndSkipsMissedSlots) {
  std::vector<double> at;
  const auto start = clock.monotonicNow();
  auto timer = q.every(Seconds{1}, Seconds{10}, [&] {
    at.push_back(std::chrono::duration<double>(clock.monotonicNow() - start).count());
  });
  EXPECT_EQ(advance(1), 1u);   // t=1
  EXPECT_EQ(advance(12), 1u);  // t=13: the tick due at 11, late; the next stays at 21
  EXPECT_EQ(advance(8), 1u);   // t=21
  EXPECT_EQ(advance(35), 1u);  // t=56: the tick due at 31 runs; 41 and 51 are skipped
  EXPECT_EQ(advance(4), 0u);   // t=60
  EXPECT_EQ(advance(1), 1u);   // t=61
  EXPECT_EQ(at, (std::vector<double>{1, 13, 21, 56, 61}));
}

TEST_F(SerialQueueTimerTest, CancelledDestroyedOrSelfCancelledTimersNeverRunAgain) {
  auto cancelled = q.after(Seconds{1}, [&] { ran.push_back("cancelled"); });
  {
    auto dropped = q.after(Seconds{1}, [&] { ran.push_back("dropped"); });
  }
  TimerHandle self;
  int ticks = 0;
  self = q.every(Seconds{1}, Seconds{1}, [&] {
    ran.push_back("tick");
    if (++ticks == 2) self.cancel();
  });
  auto replaced = q.every(Seconds{1}, Seconds{1}, [&] { ran.push_back("replaced"); });
  replaced = q.after(Seconds{0.5}, [&] { ran.push_back("replacement"); });
  cancelled.cancel();
  EXPECT_FALSE(cancelled.pending());
  for (int i = 0; i < 5; ++i) advance(1);
  EXPECT_EQ(ran, (std::vector<std::string>{"replacement", "tick", "tick"}));
  EXPECT_FALSE(self.pending());
}

TEST_F(SerialQueueTimerTest, JobsPostedByTimerJobsAndTimersBookedByJobsRunInTheSameStep) {
  q.asyncAfter(Seconds{1}, [&] {
    q.async([&] { ran.push_back("posted"); });
    q.asyncAfter(Seconds{0}, [&] { ran.push_back("booked"); });
  });
  EXPECT_EQ(advance(1), 3u);
  EXPECT_EQ(ran, (std::vector<std::string>{"posted", "booked"}));
}

TEST_F(SerialQueueTimerTest, JobThatThrowsIsLoggedWithTheQueueAndTheNextJobStillRuns) {
  testing::LogCapture logs;
  q.async([] { throw std::runtime_error("bad request"); });
  q.async([&] { ran.push_back("after the job"); });
  auto timer = q.every(Seconds{1}, Seconds{1}, [&] {
    ran.push_back("tick");
    throw 42;
  });
  EXPECT_EQ(q.runPending(), 2u);
  EXPECT_EQ(advance(1), 1u);
  EXPECT_EQ(advance(1), 1u);
  EXPECT_EQ(ran, (std::vector<std::string>{"after the job", "tick", "tick"}));
  const auto lines = logs.lines();
  ASSERT_EQ(lines.size(), 3u);
  for (const auto& line : lines) EXPECT_EQ(line.level, spdlog::level::err);
  EXPECT_EQ(lines[0].message,
            "a job on queue 'test.timers' threw: bad request — the queue carries on");
  EXPECT_EQ(lines[1].message,
            "a timer job on queue 'test.timers' threw something that is not a std::exception — "
            "the queue carries on");
}

// Real threads, run under ThreadSanitizer in CI.
class SerialQueueTest : public ::testing::Test {
 protected:
  void SetUp() override { q.start(); }
  const SystemClock clock;
  SerialQueue q{"test.thread", clock};
};

TEST_F(SerialQueueTest, SyncReturnsValuesAndExceptionsAndRefusesItself) {
  EXPECT_EQ(q.sync([] { return 42; }), 42);
  EXPECT_TRUE(q.sync([&] { return q.isCurrent(); }));
  EXPECT_THROW(q.sync([]() -> int { throw std::runtime_error("boom"); }), std::runtime_error);
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

TEST_F(SerialQueueTest, RunningQueueSurvivesAThrowWakesForTimersAndHonoursCancelFromElsewhere) {
  std::atomic<int> ticks{0};
  std::atomic<bool> onQueue{true};
  auto timer = q.every(Seconds{0}, Seconds{0.001}, [&] {
    if (!q.isCurrent()) onQueue = false;
    ++ticks;
  });
  std::atomic<bool> once{false};
  auto oneShot = q.after(Seconds{0.002}, [&] { once = true; });
  ASSERT_TRUE(testing::waitUntil([&] { return ticks.load() >= 3 && once.load(); }));
  timer.cancel();
  // A tick already running may finish; after the queue has drained, none may start.
  q.sync([] {});
  const int atCancel = ticks.load();
  std::atomic<bool> later{false};
  q.asyncAfter(Seconds{0.01}, [&] { later = true; });
  ASSERT_TRUE(testing::waitUntil([&] { return later.load(); }));
  EXPECT_EQ(ticks.load(), atCancel);
  EXPECT_TRUE(onQueue.load());
  EXPECT_FALSE(oneShot.pending());
}

TEST(SerialQueueShutdownTest, ShutdownFailsWaitingSyncInsteadOfHanging) {
  const SystemClock clock;
  auto q = std::make_unique<SerialQueue>("test.shutdown", clock);
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
  ASSERT_TRUE(testing::waitUntil([&] { return calling.load(); }));
  // The post follows the flag within a few instructions; this margin only has to cover those.
  std::this_thread::sleep_for(20ms);
  q.reset();
  caller.join();
  EXPECT_TRUE(threw.load());
}

TEST(SerialQueueShutdownTest, MainQueueRunsPostedWorkOnTheCallerUntilShutdown) {
  const SystemClock clock;
  SerialQueue mainQueue("test.main", clock);
  std::thread::id ranOn;
  bool current = false;
  std::thread poster([&] {
    mainQueue.async([&] {
      ranOn = std::this_thread::get_id();
      current = mainQueue.isCurrent();
      mainQueue.shutdown();
    });
  });
  mainQueue.run();  // returns once the posted job shuts it down
  poster.join();
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_TRUE(current);
  EXPECT_FALSE(mainQueue.isCurrent());
}

}  // namespace
}  // namespace quorel
