#include "core/serial_queue.hpp"

#include <pthread.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "core/logging.hpp"

namespace quorel {

namespace {
thread_local SerialQueue* tCurrentQueue = nullptr;

// Marks the calling thread as running `queue` for the scope, restoring any outer marker so
// that runPending() nested inside another queue's work keeps both straight.
class CurrentQueueScope {
 public:
  explicit CurrentQueueScope(SerialQueue* queue) : previous_(tCurrentQueue) {
    tCurrentQueue = queue;
  }
  ~CurrentQueueScope() { tCurrentQueue = previous_; }
  CurrentQueueScope(const CurrentQueueScope&) = delete;
  CurrentQueueScope& operator=(const CurrentQueueScope&) = delete;

 private:
  SerialQueue* previous_;
};

using Duration = MonotonicTime::duration;

Duration toDuration(Seconds s) {
  if (s.count() < 0) s = Seconds{0};
  return std::chrono::round<Duration>(s);
}

// Called inside a catch block: names what escaped a job, and where, so that one bad tick or
// request costs a log line rather than the agent.
void reportEscaped(const std::string& label, std::string_view job) {
  static const auto log = logging::get("SerialQueue");
  try {
    throw;
  } catch (const std::exception& e) {
    log->error("{} on queue '{}' threw: {} — the queue carries on", job, label, e.what());
  } catch (...) {
    log->error(
        "{} on queue '{}' threw something that is not a std::exception — the queue "
        "carries on",
        job, label);
  }
}

// Deadline first; the sequence keeps timers due at the same moment in the order booked.
using TimerKey = std::pair<MonotonicTime, std::uint64_t>;
}  // namespace

namespace detail {
struct TimerBook;

struct TimerState {
  TimerState(std::function<void()> fn, std::optional<Duration> repeat)
      : work(std::move(fn)), period(repeat) {}

  std::function<void()> work;  // touched only by the thread running the queue
  std::optional<Duration> period;
  std::atomic<bool> cancelled{false};
  std::atomic<bool> started{false};
  // The queue's books; null once the queue is gone.
  std::atomic<TimerBook*> book{nullptr};
  // Where the timer sits in the book while it waits; guarded by the book's mutex.
  std::optional<TimerKey> key;
};

// The waiting timers of one queue, ordered by deadline. Booked and cancelled from any thread.
struct TimerBook {
  std::mutex mutex;
  std::map<TimerKey, std::shared_ptr<TimerState>> waiting;
  std::uint64_t nextSequence = 0;

  // True when the timer is now the first due, so that the queue must wake earlier.
  bool book(const std::shared_ptr<TimerState>& state, MonotonicTime deadline) {
    std::lock_guard lock(mutex);
    // Checked under the lock, so that a cancel() racing a repeating timer's re-booking either
    // sees it booked (and removes it) or keeps it from being booked.
    if (state->cancelled.load()) return false;
    const TimerKey key{deadline, nextSequence++};
    state->key = key;
    const auto it = waiting.emplace(key, state).first;
    return it == waiting.begin();
  }

  void remove(TimerState& state) {
    std::lock_guard lock(mutex);
    if (!state.key) return;
    waiting.erase(*state.key);
    state.key.reset();
  }

  // The first timer due at `now` among those booked before `sequenceLimit`, with its deadline;
  // what a job books while this round runs waits for the next one.
  std::pair<std::shared_ptr<TimerState>, MonotonicTime> takeDue(MonotonicTime now,
                                                                std::uint64_t sequenceLimit) {
    std::lock_guard lock(mutex);
    for (auto it = waiting.begin(); it != waiting.end() && it->first.first <= now; ++it) {
      if (it->first.second >= sequenceLimit) continue;
      const MonotonicTime deadline = it->first.first;
      auto state = std::move(it->second);
      waiting.erase(it);
      state->key.reset();
      // A one-shot job leaves the books for good; its handle may then outlive the queue.
      if (!state->period) state->book.store(nullptr);
      return {std::move(state), deadline};
    }
    return {nullptr, {}};
  }

  std::optional<MonotonicTime> earliest() {
    std::lock_guard lock(mutex);
    if (waiting.empty()) return std::nullopt;
    return waiting.begin()->first.first;
  }

  std::uint64_t sequenceLimit() {
    std::lock_guard lock(mutex);
    return nextSequence;
  }

  // The queue is going: nothing booked may run, and handles that outlive it find no book.
  void close() {
    std::lock_guard lock(mutex);
    for (auto& [key, state] : waiting) {
      state->cancelled.store(true);
      state->key.reset();
      state->book.store(nullptr);
    }
    waiting.clear();
  }
};
}  // namespace detail

struct SerialQueue::Impl {
  Impl(const std::string& l, const Clock& c) : label(l), clock(c), wake(io) {}

  const std::string& label;
  const Clock& clock;
  asio::io_context io{1};
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> guard;
  std::thread thread;
  detail::TimerBook timers;
  // Sleeps until the earliest deadline; touched only by the thread running the queue.
  asio::steady_timer wake;
  std::optional<MonotonicTime> wakeArmedFor;
  // Counted on the thread running the queue, so that runPending() reports jobs, not the
  // handlers that keep the timers going.
  std::size_t internalHandlers = 0;
  std::size_t timerJobsRun = 0;

  std::size_t runDueTimers();
  // False when the timer was cancelled before its job could start.
  bool fire(const std::shared_ptr<detail::TimerState>& state, MonotonicTime deadline);
  void armWake();
  // Runs the context until it stops (`poll` false) or until nothing is ready (`poll` true),
  // past any job that throws; returns the handlers run when polling.
  std::size_t runGuarded(bool poll);
};

std::size_t SerialQueue::Impl::runDueTimers() {
  const MonotonicTime now = clock.monotonicNow();
  const std::uint64_t limit = timers.sequenceLimit();
  std::size_t ran = 0;
  for (;;) {
    auto [state, deadline] = timers.takeDue(now, limit);
    if (!state) break;
    if (fire(state, deadline)) ++ran;
  }
  timerJobsRun += ran;
  armWake();
  return ran;
}

bool SerialQueue::Impl::fire(const std::shared_ptr<detail::TimerState>& state,
                             MonotonicTime deadline) {
  if (state->cancelled.load()) return false;
  state->started.store(true);
  if (!state->period) {
    auto work = std::move(state->work);
    try {
      if (work) work();
    } catch (...) {
      reportEscaped(label, "a timer job");
    }
    return true;
  }
  try {
    state->work();
  } catch (...) {
    reportEscaped(label, "a timer job");
  }
  const Duration period = *state->period;
  const MonotonicTime after = clock.monotonicNow();
  MonotonicTime next = deadline + period;
  // A tick that overran its period skips the missed slots rather than bursting to catch up.
  if (next <= after) next += ((after - next) / period + 1) * period;
  // Booking again refuses a timer cancelled meanwhile, from its own tick or another thread.
  timers.book(state, next);
  return true;
}

void SerialQueue::Impl::armWake() {
  const auto earliest = timers.earliest();
  if (earliest == wakeArmedFor) return;
  wakeArmedFor = earliest;
  if (!earliest) {
    wake.cancel();
    return;
  }
  // The clock decides what is due; the asio timer only sleeps for the real time that is left.
  const Duration left = std::max(Duration::zero(), *earliest - clock.monotonicNow());
  wake.expires_after(left);
  wake.async_wait([this](const std::error_code& ec) {
    ++internalHandlers;
    if (ec) return;
    wakeArmedFor.reset();
    runDueTimers();
  });
}

std::size_t SerialQueue::Impl::runGuarded(bool poll) {
  std::size_t handlers = 0;
  for (;;) {
    try {
      if (!poll) {
        io.run();
        return 0;
      }
      // One at a time, so that the count survives a job that throws.
      while (io.poll_one() > 0) ++handlers;
      return handlers;
    } catch (...) {
      // Asio lets the context carry on after a handler throws; the thrower counts as run.
      ++handlers;
      reportEscaped(label, "a job");
    }
  }
}

TimerHandle::TimerHandle(std::shared_ptr<detail::TimerState> state) : state_(std::move(state)) {}

TimerHandle& TimerHandle::operator=(TimerHandle&& other) noexcept {
  if (this != &other) {
    cancel();
    state_ = std::move(other.state_);
  }
  return *this;
}

TimerHandle::~TimerHandle() {
  cancel();
}

void TimerHandle::cancel() {
  if (!state_) return;
  auto state = std::move(state_);
  if (state->cancelled.exchange(true)) return;
  // The flag already keeps the job from starting; leaving the book frees it now rather than at
  // its deadline. A queue woken early for it finds nothing due and sleeps again.
  if (auto* book = state->book.load()) book->remove(*state);
}

bool TimerHandle::pending() const {
  if (!state_ || state_->cancelled.load()) return false;
  return state_->period.has_value() || !state_->started.load();
}

SerialQueue::SerialQueue(std::string label, const Clock& clock)
    : label_(std::move(label)), clock_(clock), impl_(std::make_unique<Impl>(label_, clock_)) {}

SerialQueue::~SerialQueue() {
  shutdown();
  impl_->timers.close();
}

void SerialQueue::start() {
  if (impl_->thread.joinable()) return;
  impl_->guard.emplace(impl_->io.get_executor());
  impl_->thread = std::thread([this] {
    const std::string name = label_.substr(0, 15);
    pthread_setname_np(pthread_self(), name.c_str());
    CurrentQueueScope scope(this);
    impl_->runGuarded(/*poll=*/false);
  });
}

void SerialQueue::run() {
  impl_->guard.emplace(impl_->io.get_executor());
  CurrentQueueScope scope(this);
  impl_->runGuarded(/*poll=*/false);
}

void SerialQueue::shutdown() {
  impl_->guard.reset();
  impl_->io.stop();
  if (impl_->thread.joinable() && impl_->thread.get_id() != std::this_thread::get_id()) {
    impl_->thread.join();
  }
}

bool SerialQueue::isCurrent() const {
  return tCurrentQueue == this;
}

SerialQueue* SerialQueue::current() {
  return tCurrentQueue;
}

void SerialQueue::async(std::function<void()> work) {
  asio::post(impl_->io, std::move(work));
}

std::shared_ptr<detail::TimerState> SerialQueue::schedule(Seconds firstDelay,
                                                          std::optional<Seconds> period,
                                                          std::function<void()> work) {
  std::optional<Duration> repeat;
  if (period) repeat = toDuration(*period);
  auto state = std::make_shared<detail::TimerState>(std::move(work), repeat);
  state->book.store(&impl_->timers);
  const MonotonicTime deadline = clock_.monotonicNow() + toDuration(firstDelay);
  if (impl_->timers.book(state, deadline)) {
    // The wake-up belongs to the queue's thread; it re-arms there for the new first deadline.
    Impl* impl = impl_.get();
    asio::post(impl->io, [impl] {
      ++impl->internalHandlers;
      impl->runDueTimers();
    });
  }
  return state;
}

TimerHandle SerialQueue::after(Seconds delay, std::function<void()> work) {
  return TimerHandle(schedule(delay, std::nullopt, std::move(work)));
}

void SerialQueue::asyncAfter(Seconds delay, std::function<void()> work) {
  schedule(delay, std::nullopt, std::move(work));
}

TimerHandle SerialQueue::every(Seconds firstDelay, Seconds period, std::function<void()> tick) {
  if (period.count() <= 0) {
    throw std::invalid_argument("repeating timer on '" + label_ + "' needs a positive period");
  }
  return TimerHandle(schedule(firstDelay, period, std::move(tick)));
}

std::size_t SerialQueue::runPending() {
  CurrentQueueScope scope(this);
  if (impl_->io.stopped()) impl_->io.restart();
  const std::size_t internalBefore = impl_->internalHandlers;
  const std::size_t timerJobsBefore = impl_->timerJobsRun;
  std::size_t handlers = 0;
  // Jobs may book timers and timer jobs may post jobs: go round until neither has anything.
  for (;;) {
    const std::size_t polled = impl_->runGuarded(/*poll=*/true);
    const std::size_t fired = impl_->runDueTimers();
    handlers += polled;
    if (polled == 0 && fired == 0) break;
  }
  return handlers - (impl_->internalHandlers - internalBefore) +
         (impl_->timerJobsRun - timerJobsBefore);
}

asio::io_context& SerialQueue::context() {
  return impl_->io;
}

}  // namespace quorel
