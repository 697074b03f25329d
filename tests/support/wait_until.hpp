#pragma once
// Waits for a condition that another thread makes true. The bound only guards against a hang: no
// test depends on how long anything takes. `step` runs between looks, e.g. to turn a queue.

#include <chrono>
#include <concepts>
#include <thread>

#include "core/clock.hpp"

namespace quorel::testing {

template <class Pred, std::invocable Step>
bool waitUntil(Pred pred, Step step, std::chrono::milliseconds bound = std::chrono::seconds(5)) {
  const SystemClock clock;
  const auto end = clock.monotonicNow() + bound;
  while (!pred()) {
    if (clock.monotonicNow() > end) return false;
    step();
    std::this_thread::yield();
  }
  return true;
}

template <class Pred>
bool waitUntil(Pred pred, std::chrono::milliseconds bound = std::chrono::seconds(5)) {
  return waitUntil(
      pred, [] {}, bound);
}

}  // namespace quorel::testing
