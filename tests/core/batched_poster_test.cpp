#include "core/batched_poster.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/serial_queue.hpp"
#include "support/wait_until.hpp"

namespace quorel {
namespace {

// The target is never started unless a test says so: runPending() returns how many jobs reached
// it, which is how many times its thread would have been woken.
class BatchedPosterTest : public ::testing::Test {
 protected:
  const SystemClock clock;
  SerialQueue target{"test.target", clock};
};

TEST_F(BatchedPosterTest, ItemsPostedFromAnotherQueueTravelAsOneJobAfterThatQueuesWork) {
  SerialQueue source("test.source", clock);
  std::vector<int> seen;
  BatchedPoster<int> poster(target, [&](int& i) {
    EXPECT_TRUE(target.isCurrent());
    seen.push_back(i);
  });
  source.async([&] {
    for (int i = 0; i < 5; ++i) poster.post(i);
    // Nothing may leave before the handler that produced the items is done.
    EXPECT_EQ(target.runPending(), 0u);
  });
  source.runPending();
  EXPECT_EQ(target.runPending(), 1u);
  EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST_F(BatchedPosterTest, ItemsPostedWhileADrainRunsStartAnotherAndItemsOutliveThePoster) {
  std::vector<int> seen;
  {
    std::function<void(int)> repost;
    BatchedPoster<int> poster(target, [&](int& i) {
      seen.push_back(i);
      if (i == 2) repost(3);  // must not be lost in the batch being run
    });
    repost = [&](int i) { poster.post(i); };
    poster.post(1);
    poster.post(2);
    EXPECT_EQ(target.runPending(), 2u);  // the first drain, then the one item 2 started
    EXPECT_EQ(seen, (std::vector<int>{1, 2, 3}));
    poster.post(4);
  }
  EXPECT_EQ(target.runPending(), 1u);
  EXPECT_EQ(seen.back(), 4);
}

TEST_F(BatchedPosterTest, EveryItemFromManyThreadsRunsOnceInEachThreadsOrder) {
  target.start();
  constexpr int kThreads = 4;
  constexpr int kEach = 2000;
  std::mutex m;
  std::vector<std::vector<int>> seen(kThreads);
  std::atomic<int> done{0};
  BatchedPoster<std::pair<int, int>> poster(target, [&](std::pair<int, int>& item) {
    EXPECT_TRUE(target.isCurrent());
    std::lock_guard lock(m);
    seen[item.first].push_back(item.second);
    ++done;
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) poster.post({t, i});
    });
  }
  for (auto& thread : threads) thread.join();
  testing::waitUntil([&] { return done.load() == kThreads * kEach; }, std::chrono::seconds(10));
  target.shutdown();
  for (int t = 0; t < kThreads; ++t) {
    ASSERT_EQ(seen[t].size(), static_cast<std::size_t>(kEach));
    for (int i = 0; i < kEach; ++i) ASSERT_EQ(seen[t][i], i);
  }
}

}  // namespace
}  // namespace quorel
