#pragma once
// The heart of the system: one long-lived loop that reads the active power source on a timer,
// smooths and classifies what it reads, keeps the live histories, hands the tick to the
// recording stage, and publishes one PowerState per tick on the main queue.
//
// Threads: setters and onStateUpdate belong to the main queue; poll() and everything it
// touches belong to the poll queue. stateLock_ guards only the handful of fields that both
// sides read, and is never held across a provider, sampler or recorder call.

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/clock.hpp"
#include "core/component_power.hpp"
#include "core/power_history.hpp"
#include "core/power_phase.hpp"
#include "core/power_snapshot.hpp"
#include "core/power_state.hpp"
#include "core/serial_queue.hpp"
#include "telemetry/power_data_provider.hpp"

namespace spdlog {
class logger;
}

namespace quorel {

// What the recording stage is given on each tick (only when database recording is not skipped).
struct RecordingTick {
  const PowerSnapshot& snapshot;
  const PowerState& state;
  // The tick's component validation, and whether its value was sampled recently enough to be
  // stored as fresh.
  const ComponentPowerValidation& componentValidation;
  bool componentFresh;
  TimePoint now;
};

// One stored sample, as far as the live histories need it at start.
struct HistorySeedSample {
  TimePoint timestamp;
  double wattage = 0;
  std::optional<double> powerInW, systemLoadW, ecpuW, pcpuW, gpuW, aneW, dramW;
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
  // A copy of the live histories, handed out only while somebody is looking.
  struct HistorySnapshot {
    std::vector<double> wattageValues;
    std::vector<TimePoint> wattageTimestamps;
    std::vector<double> systemPowerInValues;
    std::vector<TimePoint> systemPowerInTimestamps;
    std::vector<double> systemLoadValues;
    std::vector<TimePoint> systemLoadTimestamps;
    // Keys "ECPU", "PCPU", "GPU", "ANE", "DRAM", each present only when it holds samples.
    std::map<std::string, std::vector<double>> componentData;
    std::map<std::string, std::vector<TimePoint>> componentTimestamps;

    static HistorySnapshot empty() { return {}; }
    bool operator==(const HistorySnapshot&) const = default;
  };

  struct Dependencies {
    std::shared_ptr<PowerDataProvider> provider;
    // Asked from the third consecutive failed tick on; may be null.
    std::shared_ptr<PowerDataProvider> fallbackProvider;
    const Clock* clock = nullptr;
    SerialQueue* pollQueue = nullptr;
    SerialQueue* mainQueue = nullptr;
    // Each optional: a machine without the source simply reports the figure as unavailable.
    std::unique_ptr<ComponentPowerSampler> componentSampler;
    std::unique_ptr<PowerRailReader> railReader;
    std::shared_ptr<const ThermalStateSource> thermalSource;
    std::shared_ptr<PowerRecordingStage> recorder;
  };

  using StateCallback = std::function<void(const PowerState&, const HistorySnapshot&)>;

  // Created stopped. Use create() so that timers and posted work can hold the monitor weakly.
  static std::shared_ptr<PowerMonitor> create(Dependencies deps);
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
  std::shared_ptr<PowerDataProvider> provider() const;
  void setProvider(std::shared_ptr<PowerDataProvider> provider);
  bool popoverOpen() const;
  void setPopoverOpen(bool open);
  bool skipDatabaseRecording() const;
  void setSkipDatabaseRecording(bool skip);
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
  explicit PowerMonitor(Dependencies deps);

  void seedHistoryFromDatabase();
  void seedComponentPowerBaseline();
  void scheduleWakeReanchorRetry();
  void resetSmoothingOnPollQueue(TimePoint at);
  void failedTick();
  HistorySnapshot buildHistorySnapshot() const;

  // Immutable after construction.
  const Clock& clock_;
  SerialQueue& pollQueue_;
  SerialQueue& mainQueue_;
  std::shared_ptr<PowerDataProvider> fallbackProvider_;
  std::unique_ptr<ComponentPowerSampler> componentSampler_;
  std::unique_ptr<PowerRailReader> railReader_;
  std::shared_ptr<const ThermalStateSource> thermalSource_;
  std::shared_ptr<PowerRecordingStage> recorder_;
  std::shared_ptr<spdlog::logger> log_;

  // Guarded by stateLock_.
  mutable std::mutex stateLock_;
  std::shared_ptr<PowerDataProvider> provider_;
  bool popoverOpen_ = false;
  bool skipDatabaseRecording_ = false;
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
  PowerHistory history_, systemPowerInHistory_, systemLoadHistory_;
  PowerHistory ecpuHistory_, pcpuHistory_, gpuHistory_, aneHistory_, dramHistory_;
  std::optional<PowerSnapshot> lastSnapshot_;
  long consecutiveFailures_ = 0;
  bool usingFallback_ = false;
  TimePoint lastWakeTime_;
  std::optional<TimePoint> lastIOReportTime_;
  std::optional<ComponentPower> lastComponentPower_;
  std::optional<SystemPowerRails> lastSystemPowerRails_;
  std::optional<TimePoint> lastRailSampleTime_;
  std::optional<TimePoint> lastHistoryTime_;
  bool historySeeded_ = false;

  static constexpr double kHistoryTimeInterval = 30;
  static constexpr double kHiddenComponentSampleInterval = 20;
  static constexpr double kVisibleComponentSampleInterval = 5;
};

}  // namespace quorel
