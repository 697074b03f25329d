#include "core/serial_queue.hpp"

#include <pthread.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_set>

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

std::chrono::steady_clock::duration toSteady(Seconds s) {
  if (s.count() < 0) s = Seconds{0};
  return std::chrono::duration_cast<std::chrono::steady_clock::duration>(s);
}
}  // namespace

namespace detail {
struct TimerState : std::enable_shared_from_this<TimerState> {
  TimerState(asio::io_context& io, std::function<void()> fn, std::optional<Seconds> repeat)
      : timer(io), work(std::move(fn)), period(repeat) {}

  asio::steady_timer timer;  // touched only on the queue's thread
  std::function<void()> work;
  std::optional<Seconds> period;
  std::atomic<bool> cancelled{false};
  std::atomic<bool> started{false};
  std::function<void(TimerState*)> unregister;  // set by the owning queue
  std::function<void(std::function<void()>)> post;
};
}  // namespace detail

struct SerialQueue::Impl {
  asio::io_context io{1};
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> guard;
  std::thread thread;
  std::mutex timersMutex;
  std::unordered_set<std::shared_ptr<detail::TimerState>> timers;
  std::atomic<bool> stopped{false};

  void arm(const std::shared_ptr<detail::TimerState>& state,
           std::chrono::steady_clock::time_point deadline);
  void fire(const std::shared_ptr<detail::TimerState>& state,
            std::chrono::steady_clock::time_point deadline);
  void forget(detail::TimerState* state) {
    std::lock_guard lock(timersMutex);
    for (auto it = timers.begin(); it != timers.end(); ++it) {
      if (it->get() == state) {
        timers.erase(it);
        return;
      }
    }
  }
};

void SerialQueue::Impl::arm(const std::shared_ptr<detail::TimerState>& state,
                            std::chrono::steady_clock::time_point deadline) {
  state->timer.expires_at(deadline);
  std::weak_ptr<detail::TimerState> weak = state;
  state->timer.async_wait([this, weak, deadline](const std::error_code& ec) {
    auto strong = weak.lock();
    if (!strong || ec) return;
    fire(strong, deadline);
  });
}

void SerialQueue::Impl::fire(const std::shared_ptr<detail::TimerState>& state,
                             std::chrono::steady_clock::time_point deadline) {
  if (state->cancelled.load()) return;
  state->started.store(true);
  if (!state->period) {
    auto work = std::move(state->work);
    forget(state.get());
    if (work) work();
    return;
  }
  state->work();
  if (state->cancelled.load()) return;
  const auto period = toSteady(*state->period);
  const auto now = std::chrono::steady_clock::now();
  auto next = deadline + period;
  // A tick that overran its period skips the missed slots rather than bursting to catch up.
  if (next <= now && period.count() > 0) {
    const auto behind = (now - next) / period + 1;
    next += behind * period;
  }
  arm(state, next);
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
  // A one-shot job that already ran has left the queue's books; nothing to release.
  if (!state->period && state->started.load()) return;
  // The asio timer may only be touched on its queue; the flag above already prevents the job
  // from starting, this just releases the wait early.
  if (state->post) {
    state->post([state] {
      state->timer.cancel();
      if (state->unregister) state->unregister(state.get());
    });
  }
}

bool TimerHandle::pending() const {
  if (!state_ || state_->cancelled.load()) return false;
  return state_->period.has_value() || !state_->started.load();
}

SerialQueue::SerialQueue(std::string label) : label_(std::move(label)), impl_(new Impl) {}

SerialQueue::~SerialQueue() {
  shutdown();
  {
    std::lock_guard lock(impl_->timersMutex);
    for (const auto& t : impl_->timers) {
      t->cancelled.store(true);
      t->post = nullptr;
      t->unregister = nullptr;
    }
    impl_->timers.clear();
  }
}

void SerialQueue::start() {
  if (impl_->thread.joinable()) return;
  impl_->guard.emplace(impl_->io.get_executor());
  impl_->thread = std::thread([this] {
    const std::string name = label_.substr(0, 15);
    pthread_setname_np(pthread_self(), name.c_str());
    CurrentQueueScope scope(this);
    impl_->io.run();
  });
}

void SerialQueue::run() {
  impl_->guard.emplace(impl_->io.get_executor());
  CurrentQueueScope scope(this);
  impl_->io.run();
}

void SerialQueue::shutdown() {
  impl_->stopped.store(true);
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
  auto state = std::make_shared<detail::TimerState>(impl_->io, std::move(work), period);
  state->post = [this](std::function<void()> fn) { async(std::move(fn)); };
  Impl* impl = impl_.get();
  state->unregister = [impl](detail::TimerState* s) { impl->forget(s); };
  {
    std::lock_guard lock(impl_->timersMutex);
    impl_->timers.insert(state);
  }
  // The delay counts from now, not from when the queue gets round to arming the timer.
  const auto deadline = std::chrono::steady_clock::now() + toSteady(firstDelay);
  async([impl, state, deadline] {
    if (!state->cancelled.load()) impl->arm(state, deadline);
  });
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
  return impl_->io.poll();
}

asio::io_context& SerialQueue::context() {
  return impl_->io;
}

}  // namespace quorel
