#include "core/batched_poster.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "core/serial_queue.hpp"

namespace quorel {
namespace {

// The queues here are never started: runPending() returns how many jobs reached a queue, which
// is how many times its thread would have been woken.
TEST(BatchedPosterTest, ItemsPostedFromAnotherQueueTravelAsOneJobAfterThatQueuesWork) {
  SerialQueue source("test.source");
  SerialQueue target("test.target");
  BatchedPoster poster(target);
  std::vector<int> seen;
  source.async([&] {
    for (int i = 0; i < 5; ++i) poster.post([&seen, i] { seen.push_back(i); });
    // Nothing may leave before the handler that produced the items is done.
    EXPECT_EQ(target.runPending(), 0u);
  });
  source.runPending();
  EXPECT_EQ(target.runPending(), 1u);
  EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST(BatchedPosterTest, ItemsPostedWhileADrainWaitsJoinItAndLaterOnesStartAnother) {
  SerialQueue target("test.target");
  BatchedPoster poster(target);
  std::vector<int> seen;
  poster.post([&] { seen.push_back(1); });
  poster.post([&] {
    seen.push_back(2);
    // Posted from inside the drain: it must not be lost in the batch being run.
    poster.post([&] { seen.push_back(3); });
  });
  EXPECT_EQ(target.runPending(), 2u);  // the first drain, then the one item 2 started
  EXPECT_EQ(seen, (std::vector<int>{1, 2, 3}));

  poster.post([&] { seen.push_back(4); });
  EXPECT_EQ(target.runPending(), 1u);
  EXPECT_EQ(seen.back(), 4);
}

TEST(BatchedPosterTest, ItemsOutliveThePoster) {
  SerialQueue target("test.target");
  int ran = 0;
  {
    BatchedPoster poster(target);
    poster.post([&] { ++ran; });
  }
  target.runPending();
  EXPECT_EQ(ran, 1);
}

TEST(BatchedPosterTest, EveryItemFromManyThreadsRunsOnceInEachThreadsOrder) {
  SerialQueue target("test.target");
  target.start();
  BatchedPoster poster(target);
  constexpr int kThreads = 4;
  constexpr int kEach = 2000;
  std::mutex m;
  std::vector<std::vector<int>> seen(kThreads);
  std::atomic<int> done{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        poster.post([&, t, i] {
          EXPECT_TRUE(target.isCurrent());
          std::lock_guard lock(m);
          seen[t].push_back(i);
          ++done;
        });
      }
    });
  }
  for (auto& thread : threads) thread.join();
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (done.load() < kThreads * kEach && std::chrono::steady_clock::now() < end) {
    std::this_thread::yield();
  }
  target.shutdown();
  for (int t = 0; t < kThreads; ++t) {
    ASSERT_EQ(seen[t].size(), static_cast<std::size_t>(kEach));
    for (int i = 0; i < kEach; ++i) ASSERT_EQ(seen[t][i], i);
  }
}

}  // namespace
}  // namespace quorel
