#pragma once
// The composition root's behaviour, headless: the launch core after the services exist, the
// polling state, daily maintenance, sleep, wake and quit. All of it runs on the main queue.

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "app/settings_manager.hpp"
#include "core/clock.hpp"
#include "core/serial_queue.hpp"
#include "telemetry/power_monitor.hpp"
#include "telemetry/sleep_wake_source.hpp"

namespace spdlog {
class logger;
}

namespace quorel {

class QuorelDatabase;
class EnergyTracker;
class MCPServer;
class MCPServerSwitch;

class AppDelegate {
 public:
  struct Dependencies {
    SerialQueue* mainQueue = nullptr;
    SettingsManager* settings = nullptr;
    std::shared_ptr<PowerMonitor> monitor;
    // Each optional: absent services are simply not driven.
    QuorelDatabase* database = nullptr;
    SleepWakeSource* sleepWake = nullptr;
    MCPServer* mcpServer = nullptr;
    MCPServerSwitch* mcpSwitch = nullptr;
    // The process and AI-agent energy trackers, started at launch on the sampling interval of
    // the settings and flushed at sleep and at quit.
    std::vector<EnergyTracker*> energyTrackers;
    // Told at once of every wake, on the main queue: a timer does not run and no event is seen
    // while asleep, so whoever owes work to that time catches up here.
    std::vector<std::function<void()>> wakeObservers;
  };
  struct Options {
    // --interval: replaces both settings intervals for this run.
    std::optional<Seconds> intervalOverride;
    // Lets the gauge and the network stack settle after wake; a second wake within it replaces
    // the first.
    Seconds wakeSettleDelay{2.0};
    Seconds maintenancePeriod{3600};
  };

  static constexpr double kMaintenanceAgeSeconds = 86400;
  static constexpr int kCapacityRetentionDays = 365;

  // The clock dates pruning, sleep intervals and the daily maintenance; it must outlive the
  // delegate.
  AppDelegate(Dependencies deps, const Clock& clock, Options options);
  ~AppDelegate();
  AppDelegate(const AppDelegate&) = delete;
  AppDelegate& operator=(const AppDelegate&) = delete;

  // Prune at once, the hourly maintenance check, sleep and wake, the server rule, the initial
  // polling interval, then the monitor's start.
  void launch();
  // Stops the maintenance timer and the server, and hands the trackers' last energy to the
  // store. The monitor is not stopped here: an open session is lost with the process.
  void terminate();

  // A client that watches (a --json reader, a status surface) counts as a focused window.
  void setWatched(bool watched);
  void updatePollingState();

  // The machine waits for `permit` to be let go, so what must reach the disk first holds it.
  void handleSleep(SleepPermit permit = {});
  void handleWake();
  void runDailyDatabaseMaintenanceIfNeeded(TimePoint now);

  // For tests.
  bool wakeWorkPending() const { return pendingWakeWork_.pending(); }
  int wakeResumeCount() const { return wakeResumeCount_; }
  bool maintenanceScheduled() const { return maintenanceTimer_.pending(); }
  std::optional<TimePoint> lastPruneDate() const { return lastPruneDate_; }

 private:
  void prune(TimePoint now);
  void followEnergySamplingInterval();
  // Hands what the trackers accumulated to the store; `permit` is let go once it is written.
  void flushEnergy(SleepPermit permit);

  Dependencies deps_;
  const Clock& clock_;
  Options options_;
  std::shared_ptr<spdlog::logger> log_;
  bool watched_ = false;
  std::optional<bool> lastAppliedFocused_;
  std::optional<double> energySamplingInterval_;
  bool lastUIVisible_ = false;
  std::optional<TimePoint> lastPruneDate_;
  std::optional<TimePoint> sleepBeganAt_;
  TimerHandle maintenanceTimer_;
  TimerHandle pendingWakeWork_;
  std::uint64_t settingsSubscription_ = 0;
  int wakeResumeCount_ = 0;
  // Timers and callbacks hold this weakly through it, so none can run into a destroyed delegate.
  std::shared_ptr<AppDelegate*> self_;
};

}  // namespace quorel
