#include "telemetry/power_monitor.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <thread>

#include "support/log_capture.hpp"

namespace quorel {
namespace {

using namespace std::chrono_literals;

PowerSnapshot batterySnapshot(double watts, TimePoint at) {
  PowerSnapshot s;
  s.voltage_mV = 10000;
  s.instantAmperage_mA = static_cast<std::int64_t>(watts * 100);  // 10 V, so W = mA / 100
  s.amperage_mA = s.instantAmperage_mA;
  s.currentCapacity_mAh = 5000;
  s.maxCapacity_mAh = 8000;
  s.nominalCapacity_mAh = 8000;
  s.designCapacity_mAh = 10000;
  s.batteryInstalled = true;
  s.timestamp = at;
  return s;
}

PowerSnapshot chargingSnapshot(double watts, TimePoint at) {
  auto s = batterySnapshot(watts, at);
  s.externalConnected = true;
  s.isCharging = true;
  s.systemPowerIn_mW = 60000;
  return s;
}

// A provider whose answers the test writes in advance. When the script runs out it repeats
// the last answer.
class ScriptedProvider : public PowerDataProvider {
 public:
  explicit ScriptedProvider(const Clock& clock) : clock_(clock) {}
  std::optional<PowerSnapshot> fetchSnapshot() override {
    ++calls;
    if (!script.empty()) {
      last = script.front();
      script.pop_front();
    }
    if (last) last->timestamp = clock_.now();
    return last;
  }
  bool isSimulated() const override { return simulated; }
  std::optional<ComponentPower> simulatedComponentPower() const override { return component; }
  std::optional<ThermalState> simulatedThermalState() const override { return thermal; }

  std::deque<std::optional<PowerSnapshot>> script;
  std::optional<PowerSnapshot> last;
  std::atomic<int> calls{0};
  bool simulated = false;
  std::optional<ComponentPower> component;
  std::optional<ThermalState> thermal;

 private:
  const Clock& clock_;
};

class CountingSampler : public ComponentPowerSampler {
 public:
  explicit CountingSampler(int* count, ComponentPower value) : count_(count), value_(value) {}
  bool isAvailable() const override { return true; }
  std::optional<ComponentPower> sample(Seconds) override {
    ++*count_;
    return value_;
  }

 private:
  int* count_;
  ComponentPower value_;
};

class RecordingSpy : public PowerRecordingStage {
 public:
  struct Entry {
    PowerState state;
    ComponentPowerValidation validation;
    bool fresh;
    bool forceDischarge;
  };
  void record(const RecordingTick& tick, bool forceDischargeActive) override {
    entries.push_back(
        {tick.state, tick.componentValidation, tick.componentFresh, forceDischargeActive});
  }
  void discardSession() override { ++discards; }
  std::vector<HistorySeedSample> seedSamples(TimePoint) override {
    ++seedRequests;
    return seed;
  }
  std::vector<Entry> entries;
  std::vector<HistorySeedSample> seed;
  int seedRequests = 0;
  int discards = 0;
};

class PowerMonitorTest : public ::testing::Test {
 protected:
  void SetUp() override { build(); }

  void build(std::unique_ptr<ComponentPowerSampler> sampler = nullptr) {
    primary = std::make_shared<ScriptedProvider>(clock);
    fallback = std::make_shared<ScriptedProvider>(clock);
    recorder = std::make_shared<RecordingSpy>();
    PowerMonitor::Dependencies deps;
    deps.provider = primary;
    deps.fallbackProvider = fallback;
    deps.clock = &clock;
    deps.pollQueue = &pollQueue;
    deps.mainQueue = &mainQueue;
    deps.componentSampler = std::move(sampler);
    deps.recorder = recorder;
    monitor = PowerMonitor::create(std::move(deps));
    monitor->setOnStateUpdate([this](const PowerState& s, const PowerMonitor::HistorySnapshot& h) {
      states.push_back(s);
      histories.push_back(h);
    });
  }

  // One tick as the timer would run it, then the hand-over to the main queue.
  void tick(Seconds advance = Seconds{0}) {
    clock.advance(advance);
    monitor->poll();
    mainQueue.runPending();
  }

  ManualClock clock;
  SerialQueue pollQueue{"test.poll", clock};
  SerialQueue mainQueue{"test.main", clock};
  std::shared_ptr<ScriptedProvider> primary;
  std::shared_ptr<ScriptedProvider> fallback;
  std::shared_ptr<RecordingSpy> recorder;
  std::shared_ptr<PowerMonitor> monitor;
  std::vector<PowerState> states;
  std::vector<PowerMonitor::HistorySnapshot> histories;
  testing::LogCapture logs;
};

TEST_F(PowerMonitorTest, FallbackEngagesFromTheThirdFailureAndDropsOnRecovery) {
  primary->script = {std::nullopt, std::nullopt, std::nullopt, std::nullopt,
                     batterySnapshot(-12, clock.now())};
  fallback->last = batterySnapshot(-4, clock.now());
  tick(2s);
  tick(2s);
  EXPECT_TRUE(states.empty()) << "a failed tick must not publish";
  EXPECT_EQ(fallback->calls.load(), 0) << "two failures are not yet enough";
  tick(2s);
  EXPECT_EQ(fallback->calls.load(), 1);
  ASSERT_EQ(states.size(), 1u);
  EXPECT_DOUBLE_EQ(states.back().smoothedWattage, -4);
  tick(2s);
  EXPECT_EQ(fallback->calls.load(), 2) << "the fallback is asked on every failed tick from 3 on";
  EXPECT_EQ(monitor->diagnosticsOnPollQueue().consecutiveFailures, 4);
  EXPECT_TRUE(monitor->diagnosticsOnPollQueue().usingFallback);
  tick(2s);
  EXPECT_EQ(fallback->calls.load(), 2) << "the primary stays first in line";
  EXPECT_FALSE(monitor->diagnosticsOnPollQueue().usingFallback);
  EXPECT_EQ(monitor->diagnosticsOnPollQueue().consecutiveFailures, 0);
  EXPECT_EQ(logs.count("primary provider failed for 3 ticks — engaging IOPS fallback"), 1u);
  EXPECT_EQ(logs.count("primary provider recovered after 4 failures — disengaging fallback"), 1u);
}

TEST_F(PowerMonitorTest, BothFailingLogsAtOneAndEveryTenth) {
  primary->last = std::nullopt;
  fallback->last = std::nullopt;
  for (int i = 0; i < 21; ++i) tick(2s);
  EXPECT_TRUE(states.empty());
  std::size_t staleLines = 0;
  for (const auto& l : logs.lines()) {
    if (l.message.find("UI data is stale") != std::string::npos) {
      ++staleLines;
      EXPECT_EQ(l.level, spdlog::level::err);
      EXPECT_EQ(l.logger, "PowerMonitor");
    }
  }
  EXPECT_EQ(staleLines, 3u);  // at 1, 10 and 20
  EXPECT_EQ(logs.count("both primary and fallback providers returned nil (20 consecutive "
                       "failures) — UI data is stale"),
            1u);
  EXPECT_EQ(logs.count("primary provider failed for 3 ticks — engaging IOPS fallback"), 1u);
}

TEST_F(PowerMonitorTest, PlugInResetsBothAveragesBeforeTheNewReading) {
  primary->last = batterySnapshot(-10, clock.now());
  tick(2s);
  tick(2s);
  primary->last = chargingSnapshot(40, clock.now());
  tick(2s);
  ASSERT_EQ(states.size(), 3u);
  EXPECT_DOUBLE_EQ(states[2].smoothedWattage, 40.0);
  EXPECT_EQ(states[2].phase, PowerPhase::charging);
  tick(2s);
  EXPECT_DOUBLE_EQ(states[3].smoothedWattage, 40.0) << "same reading blends to itself";
}

TEST_F(PowerMonitorTest, AverageBlendsWithinMaxDtAndRestartsBeyondIt) {
  // Idle interval 30 s: maxDt is 75 s.
  monitor->setPollingInterval(30s);
  primary->last = batterySnapshot(-10, clock.now());
  tick();
  primary->last = batterySnapshot(-20, clock.now());
  tick(70s);
  EXPECT_DOUBLE_EQ(states.back().smoothedWattage, 0.3 * -20 + 0.7 * -10);
  primary->last = batterySnapshot(-30, clock.now());
  tick(76s);
  EXPECT_DOUBLE_EQ(states.back().smoothedWattage, -30) << "a gap over 75 s restarts the average";

  // At 2 s the floor of 60 s applies, not 5 s.
  monitor->setPollingInterval(2s);
  primary->last = batterySnapshot(-10, clock.now());
  tick(59s);
  EXPECT_DOUBLE_EQ(states.back().smoothedWattage, 0.3 * -10 + 0.7 * -30);
  tick(61s);
  EXPECT_DOUBLE_EQ(states.back().smoothedWattage, -10);
}

TEST_F(PowerMonitorTest, WakeDropsNearZeroReadingsUntilTheDeadlineThenTrustsThem) {
  primary->last = batterySnapshot(-10, clock.now());
  tick(2s);
  ASSERT_EQ(states.size(), 1u);
  primary->last = batterySnapshot(0.1, clock.now());
  monitor->resumeAfterWake();
  pollQueue.runPending();  // runs the wake job (and maybe the restarted timer's first tick)
  mainQueue.runPending();
  const auto published = states.size();
  EXPECT_EQ(published, 1u);
  tick(1s);
  EXPECT_EQ(states.size(), published) << "a near-zero reading just after wake is dropped";
  EXPECT_TRUE(monitor->diagnosticsOnPollQueue().wakeRetryPending);

  // A real reading inside the window is taken, and clears the gate.
  primary->last = batterySnapshot(-8, clock.now());
  tick(1s);
  ASSERT_EQ(states.size(), published + 1);
  EXPECT_DOUBLE_EQ(states.back().smoothedWattage, -8) << "wake reset the average";
  EXPECT_FALSE(monitor->diagnosticsOnPollQueue().wakeRetryPending);
  primary->last = batterySnapshot(0.1, clock.now());
  tick(1s);
  EXPECT_EQ(states.size(), published + 2) << "once anchored, small readings are trusted";
}

TEST_F(PowerMonitorTest, WakeGateExpiresAfterFiveSeconds) {
  primary->last = batterySnapshot(0.0, clock.now());
  monitor->resumeAfterWake();
  pollQueue.runPending();
  mainQueue.runPending();
  const auto published = states.size();
  EXPECT_EQ(published, 0u);
  tick(4s);
  EXPECT_EQ(states.size(), published);
  tick(2s);  // 6 s after wake
  EXPECT_EQ(states.size(), published + 1);
  EXPECT_EQ(states.back().phase, PowerPhase::draining);
}

TEST_F(PowerMonitorTest, ComponentCadenceFollowsCardVisibility) {
  int samples = 0;
  pollQueue.runPending();
  build(std::make_unique<CountingSampler>(&samples, ComponentPower{1, 2, 3, 0, 1, true}));
  primary->last = batterySnapshot(-15, clock.now());
  tick();
  EXPECT_EQ(samples, 1);
  for (int i = 0; i < 9; ++i) tick(2s);  // 18 s: hidden cadence is 20 s
  EXPECT_EQ(samples, 1);
  tick(2s);
  EXPECT_EQ(samples, 2);
  ASSERT_TRUE(states.back().componentPower.has_value());
  EXPECT_DOUBLE_EQ(states.back().componentPower->gpuWatts, 3);

  monitor->setComponentCardVisible(true);
  tick(4s);
  EXPECT_EQ(samples, 2);
  tick(1s);
  EXPECT_EQ(samples, 3);
}

TEST_F(PowerMonitorTest, NoSamplerMeansUnavailableComponentsAndTheTickGoesOn) {
  primary->last = batterySnapshot(-15, clock.now());
  tick();
  ASSERT_EQ(states.size(), 1u);
  EXPECT_FALSE(states[0].componentPower.has_value());
  ASSERT_EQ(recorder->entries.size(), 1u);
  EXPECT_EQ(recorder->entries[0].validation.quality, HistoricalValueQuality::unavailable);
  EXPECT_EQ(recorder->entries[0].validation.rejectionReason,
            "IOReport component telemetry unavailable");
  EXPECT_FALSE(recorder->entries[0].fresh);
}

TEST_F(PowerMonitorTest, RejectedComponentIsDroppedFromStateAndPassedAsRejected) {
  primary->simulated = true;
  primary->component = ComponentPower{1, 2, 91, 0, 1, true};  // GPU above its 90 W bound
  primary->last = batterySnapshot(-15, clock.now());
  tick();
  ASSERT_EQ(states.size(), 1u);
  EXPECT_FALSE(states[0].componentPower.has_value());
  ASSERT_EQ(recorder->entries.size(), 1u);
  EXPECT_EQ(recorder->entries[0].validation.quality, HistoricalValueQuality::rejected);
  EXPECT_TRUE(recorder->entries[0].fresh);
  // Within the cadence the stored value is reused; a rejected reading left nothing to reuse.
  tick(2s);
  ASSERT_EQ(recorder->entries.size(), 2u);
  EXPECT_EQ(recorder->entries[1].validation.quality, HistoricalValueQuality::unavailable);
  EXPECT_EQ(recorder->entries[1].validation.rejectionReason,
            "IOReport component telemetry unavailable");
}

TEST_F(PowerMonitorTest, HistoryKeepsA30SecondCadenceWhateverTheTimer) {
  primary->simulated = true;
  primary->component = ComponentPower{1, 2, 3, 0.5, 1, true};
  primary->last = batterySnapshot(-15, clock.now());
  monitor->setPopoverOpen(true);
  tick();
  for (int i = 0; i < 30; ++i) tick(2s);                          // 60 s at a 2-second timer
  EXPECT_EQ(monitor->diagnosticsOnPollQueue().historyCount, 3u);  // at 0, 30 and 60 s
  const auto& h = histories.back();
  EXPECT_EQ(h.wattageValues.size(), 3u);
  EXPECT_EQ(h.wattageTimestamps.size(), 3u);
  EXPECT_TRUE(h.systemPowerInValues.empty()) << "no input telemetry on battery";
  ASSERT_EQ(h.componentData.count("GPU"), 1u);
  EXPECT_EQ(h.componentData.at("GPU").size(), 3u);
  EXPECT_EQ(h.componentTimestamps.at("DRAM").size(), 3u);
  EXPECT_EQ(h.componentData.size(), 5u);
}

TEST_F(PowerMonitorTest, StalledCpuCountersKeepCpuAndDramOutOfHistory) {
  primary->simulated = true;
  primary->component = ComponentPower{1, 2, 3, 0.5, 1, false};
  primary->last = batterySnapshot(-15, clock.now());
  monitor->setPopoverOpen(true);
  tick();
  const auto& h = histories.back();
  EXPECT_EQ(h.componentData.count("ECPU"), 0u);
  EXPECT_EQ(h.componentData.count("PCPU"), 0u);
  EXPECT_EQ(h.componentData.count("DRAM"), 0u);
  EXPECT_EQ(h.componentData.count("GPU"), 1u);
  EXPECT_EQ(h.componentData.count("ANE"), 1u);
}

TEST_F(PowerMonitorTest, StartSeedsHistoriesOnceFromTheStore) {
  HistorySeedSample old;
  old.timestamp = clock.now() - std::chrono::minutes(5);
  old.wattage = -7.0;
  old.gpuW = 2.5;
  recorder->seed = {old};
  monitor->setPollingInterval(3600s);
  monitor->start();
  monitor->start();  // a second start (after wake) must not seed again
  pollQueue.runPending();
  monitor->stop();
  EXPECT_EQ(recorder->seedRequests, 1);
  monitor->setPopoverOpen(true);
  primary->last = batterySnapshot(-15, clock.now());
  tick(1s);
  const auto& h = histories.back();
  ASSERT_EQ(h.wattageValues.size(), 2u);
  EXPECT_EQ(h.wattageValues[0], -7.0);
  EXPECT_EQ(h.componentData.at("GPU"), std::vector<double>{2.5});
  EXPECT_EQ(h.componentData.count("ECPU"), 0u);

  monitor->clearInMemoryHistories();
  pollQueue.runPending();
  EXPECT_EQ(recorder->discards, 1);
  monitor->reseedHistoryFromDatabase();
  pollQueue.runPending();
  EXPECT_EQ(recorder->seedRequests, 2);
  EXPECT_EQ(monitor->diagnosticsOnPollQueue().historyCount, 1u);
}

TEST_F(PowerMonitorTest, HistoryCopiesOnlyWhileWatched) {
  primary->last = batterySnapshot(-15, clock.now());
  tick();
  EXPECT_EQ(histories.back(), PowerMonitor::HistorySnapshot::empty());
  monitor->setPopoverOpen(true);
  tick(2s);
  EXPECT_EQ(histories.back().wattageValues.size(), 1u);
  EXPECT_TRUE(histories.back().componentData.empty()) << "keys exist only with samples";
}

TEST_F(PowerMonitorTest, SkippingRecordingStillFillsHistories) {
  monitor->setSkipDatabaseRecording(true);
  primary->last = batterySnapshot(-15, clock.now());
  tick();
  tick(30s);
  EXPECT_TRUE(recorder->entries.empty());
  EXPECT_EQ(monitor->diagnosticsOnPollQueue().historyCount, 2u);
  monitor->setSkipDatabaseRecording(false);
  monitor->setForceDischargeActive(true);
  tick(2s);
  ASSERT_EQ(recorder->entries.size(), 1u);
  EXPECT_TRUE(recorder->entries[0].forceDischarge);
}

TEST_F(PowerMonitorTest, StateCarriesDerivedFigures) {
  auto snap = chargingSnapshot(20, clock.now());
  snap.adapterCurrent_mA = 3000;
  snap.adapterVoltage_mV = 20000;
  snap.temperature_cC = 3456;
  snap.wallPowerEstimate_mW = 67200;
  snap.iopsPercent = 63;
  primary->last = snap;
  primary->thermal = ThermalState::fair;
  tick();
  const auto& s = states.back();
  EXPECT_DOUBLE_EQ(s.batteryPercentage, 62.5);
  EXPECT_EQ(s.displayPercent(), 63);
  EXPECT_DOUBLE_EQ(s.batteryHealth, 80.0);
  EXPECT_DOUBLE_EQ(*s.adapterActualWatts, 60.0);
  EXPECT_DOUBLE_EQ(s.temperature_C, 34.56);
  EXPECT_DOUBLE_EQ(*s.systemPowerIn_W, 60.0);
  EXPECT_DOUBLE_EQ(*s.wallPowerEstimate_W, 67.2);
  EXPECT_EQ(s.thermalState, ThermalState::fair);
  EXPECT_FALSE(s.adapterEfficiency.has_value());
  EXPECT_TRUE(s.diagnostics.has_value());
}

TEST_F(PowerMonitorTest, GaugeTimeRemainingIsSmoothedAndTruncated) {
  auto snap = batterySnapshot(-10, clock.now());
  snap.timeRemaining_min = 100;
  primary->last = snap;
  tick();
  EXPECT_EQ(states.back().timeRemaining_min, 100);
  snap.timeRemaining_min = 200;
  primary->last = snap;
  tick(2s);
  EXPECT_EQ(states.back().timeRemaining_min, 110);  // 0.1 * 200 + 0.9 * 100
  snap.timeRemaining_min = 0;
  primary->last = snap;
  tick(2s);
  EXPECT_EQ(states.back().timeRemaining_min, 0) << "values below 1 pass through unsmoothed";
}

TEST(CalculateTimeRemainingTest, MinutesFromTheRecentRateOrElseTheSmoothedOne) {
  const std::vector<double> drain10(3, -10.0);
  const std::vector<double> charge30(3, 30.0);
  std::vector<double> twoQualify(18, 0.0);
  twoQualify.insert(twoQualify.end(), {-50, -50});
  struct Case {
    const char* name;
    PowerPhase phase;
    double smoothed_W;
    std::vector<double> recent_W;
    std::optional<std::int64_t> expected_min;
    std::int64_t current_mAh = 5000;  // of 8000, at 14.8 V
    bool installed = true;
  };
  const Case cases[] = {
      {"no samples", PowerPhase::draining, -10, {}, std::nullopt},
      {"two samples are too few", PowerPhase::draining, -10, {-10, -10}, std::nullopt},
      {"held: no estimate", PowerPhase::onHold, -10, drain10, std::nullopt},
      {"74 Wh at 10 W", PowerPhase::draining, -1, drain10, -444},
      {"a rate that means nothing", PowerPhase::draining, -0.2, {0, 0, 0}, std::nullopt},
      {"no battery", PowerPhase::draining, -10, drain10, std::nullopt, 5000, false},
      // Only two samples below -0.3 W: the smoothed -20 W, not the mean of those two.
      {"too few qualify", PowerPhase::draining, -20, twoQualify, -222},
      {"44.4 Wh missing at 30 W", PowerPhase::charging, 30, charge30, 88},
      {"nothing missing", PowerPhase::charging, 30, charge30, std::nullopt, 8000},
      {"6000 minutes or more is no estimate",
       PowerPhase::charging,
       0.6,
       {0.6, 0.6, 0.6},
       std::nullopt,
       0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto snap = batterySnapshot(c.smoothed_W, TimePoint{});
    snap.voltage_mV = 14800;
    snap.currentCapacity_mAh = c.current_mAh;
    snap.batteryInstalled = c.installed;
    EXPECT_EQ(PowerMonitor::calculateTimeRemaining(snap, c.phase, c.smoothed_W, c.recent_W),
              c.expected_min);
  }
}

// These run the real queues on their own threads, so ThreadSanitizer sees the setters, the
// timer and the tick interleave.
class PowerMonitorThreadedTest : public ::testing::Test {
 protected:
  template <class Pred>
  static bool eventually(Pred pred) {
    const auto end = std::chrono::steady_clock::now() + 5s;
    while (!pred()) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(1ms);
    }
    return true;
  }
};

TEST_F(PowerMonitorThreadedTest, IntervalChangeTicksAtOnceAndStopEndsTicking) {
  SystemClock clock;
  SerialQueue pollQueue("test.poll.t", clock);
  SerialQueue mainQueue("test.main.t", clock);
  pollQueue.start();
  mainQueue.start();
  auto provider = std::make_shared<ScriptedProvider>(clock);
  provider->last = batterySnapshot(-10, clock.now());
  PowerMonitor::Dependencies deps;
  deps.provider = provider;
  deps.clock = &clock;
  deps.pollQueue = &pollQueue;
  deps.mainQueue = &mainQueue;
  auto monitor = PowerMonitor::create(std::move(deps));
  std::atomic<int> published{0};
  monitor->setOnStateUpdate(
      [&](const PowerState&, const PowerMonitor::HistorySnapshot&) { ++published; });
  monitor->setPollingInterval(3600s);
  monitor->start();
  ASSERT_TRUE(eventually([&] { return published.load() == 1; })) << "start ticks at once";

  monitor->setPollingInterval(1800s);
  monitor->restartTimer();
  ASSERT_TRUE(eventually([&] { return published.load() == 2; })) << "a restart ticks at once";

  // Setters from this thread while the poll queue ticks every few milliseconds.
  monitor->setPollingInterval(Seconds{0.002});
  monitor->restartTimer();
  for (int i = 0; i < 200; ++i) {
    monitor->setPopoverOpen(i % 2 == 0);
    monitor->setComponentCardVisible(i % 3 == 0);
    monitor->setForceDischargeActive(i % 5 == 0);
  }
  ASSERT_TRUE(eventually([&] { return provider->calls.load() > 10; }));
  monitor->stop();
  const int callsAtStop = provider->calls.load();
  pollQueue.sync([] {});
  std::this_thread::sleep_for(20ms);  // ten periods: any surviving timer would have fired
  EXPECT_EQ(provider->calls.load(), callsAtStop);

  // A stopped monitor runs again after wake.
  monitor->resumeAfterWake();
  ASSERT_TRUE(eventually([&] { return provider->calls.load() > callsAtStop; }));
  monitor->stop();
  mainQueue.sync([] {});
}

}  // namespace
}  // namespace quorel
