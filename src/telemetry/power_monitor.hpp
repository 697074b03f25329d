#pragma once
// The heart of the system: one long-lived loop that reads the active power source on a timer,
// smooths and classifies what it reads, keeps the live histories, hands the tick to the
// recording stage, and publishes one PowerState per tick on the main queue.
//
// Threads: setters and onStateUpdate belong to the main queue; poll() and everything it
// touches belong to the poll queue. stateLock_ guards only the handful of fields that both
// sides read, and is never held across a provider, sampler or recorder call.

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "core/clock.hpp"
#include "core/component_power.hpp"
#include "core/power_history.hpp"
#include "core/power_phase.hpp"
#include "core/power_snapshot.hpp"
#include "core/power_state.hpp"
#include "core/serial_queue.hpp"
#include "telemetry/power_data_provider.hpp"
#include "telemetry/power_histories.hpp"

namespace spdlog {
class logger;
}

namespace quorel {

// What the recording stage is given on each tick (only while the sources record history).
struct RecordingTick {
  const PowerSnapshot& snapshot;
  const PowerState& state;
  // The tick's component validation, and whether its value was sampled recently enough to be
  // stored as fresh.
  const ComponentPowerValidation& componentValidation;
  bool componentFresh;
  TimePoint now;
};

// The recording stage of the tick: sessions, persisted samples, battery epochs and the capacity
// log. Called on the poll queue only.
class PowerRecordingStage {
 public:
  virtual ~PowerRecordingStage() = default;
  virtual void record(const RecordingTick& tick, bool forceDischargeActive) = 0;
  // The in-memory state was cleared (the sandbox was entered or left): forget the open session.
  virtual void discardSession() = 0;
  // What the store holds of the last ten minutes, oldest first, to seed the live histories.
  virtual std::vector<HistorySeedSample> seedSamples(TimePoint now) = 0;
};

class PowerMonitor : public std::enable_shared_from_this<PowerMonitor> {
 public:
  using HistorySnapshot = PowerHistorySnapshot;

  struct Dependencies {
    PowerSources sources;
    SerialQueue* pollQueue = nullptr;
    SerialQueue* mainQueue = nullptr;
    std::shared_ptr<PowerRecordingStage> recorder;
  };

  using StateCallback = std::function<void(const PowerState&, const HistorySnapshot&)>;

  // Created stopped. Use create() so that timers and posted work can hold the monitor weakly.
  // `clock` and both queues must outlive the monitor.
  static std::shared_ptr<PowerMonitor> create(Dependencies deps, const Clock& clock);
  ~PowerMonitor();
  PowerMonitor(const PowerMonitor&) = delete;
  PowerMonitor& operator=(const PowerMonitor&) = delete;

  // Invoked on the main queue after every successful tick. Set it before start().
  void setOnStateUpdate(StateCallback callback);

  // Starts the timer; its first tick runs at once.
  void start();
  // Cancels the timer and any wake retry; waits at most 2 seconds for a tick in flight.
  void stop();
  // After system wake: fresh averages, a 5-second window in which near-zero readings are
  // retried instead of trusted, and a restarted timer.
  void resumeAfterWake();
  void resetSmoothing();
  void clearInMemoryHistories();
  // Refills the live histories from the store (after leaving the simulated machine).
  void reseedHistoryFromDatabase();
  // A power source was plugged or unplugged: tick now, out of timer order.
  void powerSourceChanged();
  // Cancels and recreates the timer at the current interval; the new timer ticks at once.
  void restartTimer();

  // The tick. Runs on the poll queue only (tests call it directly on an unstarted queue).
  void poll();

  // Locked accessors shared with the main queue.
  PowerSources sources() const;
  // Takes effect from the next tick; see switchPowerSources for what else a switch resets.
  void setSources(PowerSources sources);
  bool popoverOpen() const;
  void setPopoverOpen(bool open);
  Seconds pollingInterval() const;
  // The caller restarts the timer when the value changed.
  void setPollingInterval(Seconds interval);
  bool componentCardVisible() const;
  void setComponentCardVisible(bool visible);
  bool forceDischargeActive() const;
  void setForceDischargeActive(bool active);

  static std::optional<std::int64_t> calculateTimeRemaining(const PowerSnapshot& snap,
                                                            PowerPhase phase,
                                                            double smoothedWattage,
                                                            const std::vector<double>& recent);

  // Poll-queue state exposed for tests of the loop's rules.
  struct Diagnostics {
    long consecutiveFailures;
    bool usingFallback;
    bool wakeRetryPending;
    std::size_t historyCount;
  };
  Diagnostics diagnosticsOnPollQueue() const;

 private:
  static constexpr double kHistoryTimeInterval = 30;
  static constexpr double kHiddenComponentSampleInterval = 20;
  static constexpr double kVisibleComponentSampleInterval = 5;

  PowerMonitor(Dependencies deps, const Clock& clock);

  // The shared fields one tick works with, copied under the lock once.
  struct TickSettings {
    // Shared, not copied: a tick takes the set with one reference.
    std::shared_ptr<const PowerSources> sources;
    Seconds interval{30};
    double componentInterval = kHiddenComponentSampleInterval;
    bool forceDischargeActive = false;
    bool watched = false;
  };
  struct SmoothedReading {
    double wattage = 0;
    std::optional<std::int64_t> timeRemaining_min;
  };
  struct ComponentReading {
    ComponentPowerValidation validation;
    // Sampled recently enough to be stored and charted as fresh.
    bool fresh = false;
  };

  // The stages of poll(), in order.
  TickSettings tickSettings() const;
  std::optional<PowerSnapshot> readSnapshot(const PowerSources& sources);
  bool awaitingWakeReanchor(double rawWatts, TimePoint now);
  SmoothedReading smooth(const PowerSnapshot& snap, double rawWatts, Seconds interval,
                         TimePoint now);
  ComponentReading sampleComponents(ComponentPowerSampler* sampler,
                                    std::optional<double> consumptionW, double cadence,
                                    TimePoint now);
  void appendHistories(const PowerSnapshot& snap, double smoothedWattage,
                       const ComponentReading& component, TimePoint now);
  void classify(PowerState& state, const PowerSnapshot& snap, const ThermalStateSource* thermal,
                TimePoint now) const;
  std::optional<SystemPowerRails> sampleRails(PowerRailReader* reader, double cadence,
                                              TimePoint now);
  void publish(PowerState state, bool watched);

  void seedHistoryFromDatabase();
  void seedComponentPowerBaseline();
  void scheduleWakeReanchorRetry();
  void resetSmoothingOnPollQueue(TimePoint at);
  void failedTick();

  // Immutable after construction.
  const Clock& clock_;
  SerialQueue& pollQueue_;
  SerialQueue& mainQueue_;
  std::shared_ptr<PowerRecordingStage> recorder_;
  std::shared_ptr<spdlog::logger> log_;

  // Guarded by stateLock_.
  mutable std::mutex stateLock_;
  std::shared_ptr<const PowerSources> sources_;
  bool popoverOpen_ = false;
  Seconds pollingInterval_{30};
  bool componentCardVisible_ = false;
  bool forceDischargeActive_ = false;
  TimerHandle timer_;

  // Main queue only.
  StateCallback onStateUpdate_;

  // Poll queue only.
  ExponentialMovingAverage wattageEMA_{0.3};
  ExponentialMovingAverage timeEMA_{0.1};
  std::optional<TimePoint> wakeReanchorDeadline_;
  TimerHandle wakeReanchorRetryWork_;
  PowerHistories histories_;
  std::optional<PowerSnapshot> lastSnapshot_;
  long consecutiveFailures_ = 0;
  bool usingFallback_ = false;
  TimePoint lastWakeTime_;
  std::optional<TimePoint> lastComponentSampleTime_;
  std::optional<ComponentPower> lastComponentPower_;
  std::optional<SystemPowerRails> lastSystemPowerRails_;
  std::optional<TimePoint> lastRailSampleTime_;
  std::optional<TimePoint> lastHistoryTime_;
  bool historySeeded_ = false;
};

}  // namespace quorel
