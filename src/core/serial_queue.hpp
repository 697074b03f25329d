#pragma once
// A serial queue: work posted to it runs one item at a time, in order, on one thread. It is the
// only concurrency primitive the system uses; the poll loop, the store, the HTTP listener and the
// main thread are each one SerialQueue. Built on an asio::io_context, kept out of this header.
//
// Timers run on the injected clock: whether a delayed job is due is decided by
// clock.monotonicNow(), so a queue driven by runPending() under a ManualClock fires its timers
// when the test advances the clock, with no real waiting. A started queue sleeps on one asio
// timer for the real time left until its earliest deadline.
//
// A job that throws does not take the queue down: what escaped is logged at error level with the
// queue's label (and, for a timer, that it was a timer job), and the next job runs.

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "core/clock.hpp"

namespace asio {
class io_context;
}

namespace quorel {

namespace detail {
struct TimerState;
}

// Owns one pending delayed job or repeating timer. A handle must not outlive its queue. Cancelling
// is idempotent and safe from any thread; once cancel() returns, the job will not start (one
// already running finishes). Destroying the handle cancels.
class TimerHandle {
 public:
  TimerHandle() = default;
  explicit TimerHandle(std::shared_ptr<detail::TimerState> state);
  TimerHandle(TimerHandle&&) noexcept = default;
  TimerHandle& operator=(TimerHandle&& other) noexcept;
  TimerHandle(const TimerHandle&) = delete;
  TimerHandle& operator=(const TimerHandle&) = delete;
  ~TimerHandle();

  void cancel();
  // True until cancelled, or, for a one-shot job, until it has started.
  bool pending() const;

 private:
  std::shared_ptr<detail::TimerState> state_;
};

class SerialQueue {
 public:
  // The label names the thread (first 15 characters) and the queue in log lines. The clock
  // must outlive the queue.
  SerialQueue(std::string label, const Clock& clock);
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  const std::string& label() const { return label_; }
  // The clock the queue's timers run on.
  const Clock& clock() const { return clock_; }

  // Runs the queue on a thread of its own.
  void start();
  // Runs the queue on the calling thread until shutdown(); used for the main queue.
  void run();
  // Stops the queue; work not yet started is dropped and timers are cancelled. Joins the
  // queue's own thread unless called from it. Idempotent.
  void shutdown();

  // True when called from work running on this queue.
  bool isCurrent() const;
  // The queue whose work is running on the calling thread, if any.
  static SerialQueue* current();

  void async(std::function<void()> work);

  // Runs `work` on the queue and waits for its result. Refuses (std::logic_error) to run on
  // itself, which would deadlock. Throws std::future_error if the queue shuts down first.
  template <class F>
  std::invoke_result_t<F> sync(F&& work) {
    using R = std::invoke_result_t<F>;
    if (isCurrent()) {
      throw std::logic_error("sync() onto queue '" + label_ + "' from itself would deadlock");
    }
    auto task = std::make_shared<std::packaged_task<R()>>(std::forward<F>(work));
    auto result = task->get_future();
    async([task = std::move(task)] { (*task)(); });
    return result.get();
  }

  // Delays count from clock.monotonicNow() at the call, not from when the queue gets round to
  // them.
  // Runs `work` once after `delay` unless the returned handle is cancelled or destroyed first.
  [[nodiscard]] TimerHandle after(Seconds delay, std::function<void()> work);
  // Runs `work` once after `delay`; nothing but shutdown() stops it.
  void asyncAfter(Seconds delay, std::function<void()> work);
  // Runs `tick` first after `firstDelay`, then every `period` on a fixed schedule that does not
  // drift and does not burst to catch up after a slow tick.
  [[nodiscard]] TimerHandle every(Seconds firstDelay, Seconds period, std::function<void()> tick);

  // Runs, on the calling thread, every job that is ready now, including every timer whose
  // deadline is at or before clock.monotonicNow(), and what those jobs post in turn; returns
  // how many jobs ran. For tests of queues that are never started, so that they need no
  // threads and no sleeping.
  std::size_t runPending();

  // The underlying context, for I/O objects (sockets, signal sets) that must live on this queue.
  asio::io_context& context();

 private:
  // Books a one-shot (no period) or repeating job and wakes the queue if it is now the first due.
  std::shared_ptr<detail::TimerState> schedule(Seconds firstDelay, std::optional<Seconds> period,
                                               std::function<void()> work);

  struct Impl;
  std::string label_;
  const Clock& clock_;
  std::unique_ptr<Impl> impl_;
};

}  // namespace quorel
