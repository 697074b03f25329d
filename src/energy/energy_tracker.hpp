#pragma once
// What the process and the agent energy trackers share: a repeating timer on a queue of their
// own, a sampling pass per tick that feeds an EnergyIntegrator, and a flush of the accumulated
// energy to the history store once a minute (and whenever the agent asks, at sleep and at quit).
// Each tracker supplies only how a batch is sampled and which table its rows go to.
//
// Threading: start(), updateInterval() and stop() are for the main queue; ticks run on the
// tracker's queue; flush() may run on either, concurrently with a tick. The sampling source is
// read outside the lock, and the store's writes are posted, never waited for.

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/clock.hpp"
#include "core/serial_queue.hpp"
#include "energy/energy_integrator.hpp"
#include "store/history_records.hpp"

namespace spdlog {
class logger;
}

namespace quorel {

class QuorelDatabase;

class EnergyTracker {
 public:
  static constexpr double kFlushInterval_s = 60.0;
  // Shorter sampling intervals are raised to this: the sampler's own cache is 10 s, so faster
  // ticks would only spend CPU re-reading it.
  static constexpr double kMinimumInterval_s = 1.0;
  // The sampler never takes fewer, so asking for this many shares its cache with other readers.
  static constexpr int kSampledProcesses = 8;

  EnergyTracker(const EnergyTracker&) = delete;
  EnergyTracker& operator=(const EnergyTracker&) = delete;
  // Cancels the timer and waits for a tick in progress on another thread; must not run on the
  // tracker's own tick.
  ~EnergyTracker();

  // Samples every `interval_s` seconds from now on, first after one interval, and flushes into
  // `database` (may be null: the energy is then integrated and dropped at each flush). Does
  // nothing more than store the database when already ticking at this very interval. An interval
  // that is not a positive number is refused with a warning, leaving the timer as it was; one
  // below kMinimumInterval_s is raised to it.
  void start(double interval_s, QuorelDatabase* database);
  // Reschedules from now with the new interval, on the database last given to start().
  void updateInterval(double seconds);
  // No tick starts after this returns; what has accumulated stays for the next flush().
  void stop();

  // Writes one row per name that observed time since the last flush and empties the
  // accumulators. Returns true when this call handed rows to the database's queue(). Either way,
  // work posted on that queue after this returns runs once every row flushed so far (by this
  // call or a tick's) is written: that is how the agent learns that sleep may proceed. Without a
  // database the accumulated energy is dropped.
  bool flush();

  // One sampling pass, as the timer runs it.
  void sampleOnBackground();

  // Per name, the watts of each batch of the last 11 minutes.
  EnergyIntegrator::RecentBuffer recentBuffer() const;

 protected:
  struct Kind {
    // The log category.
    std::string name;
    // See EnergyIntegrator.
    std::string selfCoveredName;
    // Reads the source and builds a batch; called on the tracker's queue, outside the lock.
    std::function<EnergyBatch()> sample;
    // Hands a flushed batch of rows to the store.
    std::function<void(QuorelDatabase&, std::vector<TrackedEnergyRecord>)> write;
  };

  // The queue and the clock must outlive the tracker.
  EnergyTracker(Kind kind, SerialQueue& queue, const Clock& clock);

 private:
  // Held by a tick for its whole run and by the destructor to wait for it; shared with the timer
  // job so that a tick that starts while the tracker is being destroyed finds it gone.
  struct TickGuard {
    std::mutex running;
    bool alive = true;
  };

  std::optional<double> usableInterval(double seconds) const;
  void schedule(double interval_s);

  const Kind kind_;
  SerialQueue& queue_;
  const Clock& clock_;
  std::shared_ptr<spdlog::logger> log_;
  std::shared_ptr<TickGuard> tickGuard_ = std::make_shared<TickGuard>();

  // Guarded by timerLock_.
  std::mutex timerLock_;
  TimerHandle timer_;
  std::optional<double> interval_s_;

  // Held by flush() from taking the accumulators until their rows are queued; taken before
  // bufferLock_, and never while waiting on the store.
  std::mutex flushLock_;

  // Guarded by bufferLock_.
  mutable std::mutex bufferLock_;
  EnergyIntegrator integrator_;
  QuorelDatabase* database_ = nullptr;
  TimePoint lastFlush_;
};

}  // namespace quorel
