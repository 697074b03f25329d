#include "telemetry/power_monitor.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <thread>

#include "support/log_capture.hpp"
#include "telemetry/provider_switch.hpp"

namespace quorel {
namespace {

using namespace std::chrono_literals;

// The provider stamps the time; charging adds an adapter and 60 W coming in.
PowerSnapshot batterySnapshot(double watts, bool charging = false) {
  PowerSnapshot s;
  s.voltage_mV = 10000;
  s.instantAmperage_mA = static_cast<std::int64_t>(watts * 100);  // 10 V, so W = mA / 100
  s.amperage_mA = s.instantAmperage_mA;
  s.currentCapacity_mAh = 5000;
  s.maxCapacity_mAh = 8000;
  s.nominalCapacity_mAh = 8000;
  s.designCapacity_mAh = 10000;
  s.batteryInstalled = true;
  s.externalConnected = s.isCharging = charging;
  if (charging) s.systemPowerIn_mW = 60000;
  return s;
}

// A provider whose answers the test writes in advance. When the script runs out it repeats
// the last answer.
struct ScriptedProvider : PowerDataProvider {
  explicit ScriptedProvider(const Clock& c) : clock(c) {}
  std::optional<PowerSnapshot> fetchSnapshot() override {
    ++calls;
    if (!script.empty()) {
      last = script.front();
      script.pop_front();
    }
    if (last) last->timestamp = clock.now();
    return last;
  }
  const Clock& clock;
  std::deque<std::optional<PowerSnapshot>> script;
  std::optional<PowerSnapshot> last;
  std::atomic<int> calls{0};
};

// Component, rail and thermal sources that answer what the test set; the sampler counts reads.
struct FixedSampler : ComponentPowerSampler {
  explicit FixedSampler(ComponentPower v) : value(v) {}
  bool isAvailable() const override { return true; }
  std::optional<ComponentPower> sample() override { return ++calls, value; }
  ComponentPower value;
  int calls = 0;
};
struct FixedRails : PowerRailReader {
  std::optional<SystemPowerRails> sample() override { return value; }
  SystemPowerRails value;
};
struct FixedThermal : ThermalStateSource {
  explicit FixedThermal(ThermalState s) : state(s) {}
  ThermalState currentThermalState() const override { return state; }
  ThermalState state;
};

struct RecordingSpy : PowerRecordingStage {
  struct Entry {
    ComponentPowerValidation validation;
    bool fresh, forceDischarge;
  };
  void record(const RecordingTick& tick, bool forceDischargeActive) override {
    entries.push_back({tick.componentValidation, tick.componentFresh, forceDischargeActive});
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

  void build(std::shared_ptr<ComponentPowerSampler> sampler = nullptr,
             std::shared_ptr<const ThermalStateSource> thermal = nullptr) {
    primary = std::make_shared<ScriptedProvider>(clock);
    fallback = std::make_shared<ScriptedProvider>(clock);
    recorder = std::make_shared<RecordingSpy>();
    monitor =
        PowerMonitor::create({{primary, fallback, std::move(sampler), nullptr, std::move(thermal)},
                              &pollQueue,
                              &mainQueue,
                              recorder},
                             clock);
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
  void tickOnBattery(double watts, Seconds advance = Seconds{0}) {
    primary->last = batterySnapshot(watts);
    tick(advance);
  }
  void runPosted() {
    pollQueue.runPending();
    mainQueue.runPending();
  }

  ManualClock clock;
  SerialQueue pollQueue{"test.poll", clock};
  SerialQueue mainQueue{"test.main", clock};
  std::shared_ptr<ScriptedProvider> primary, fallback;
  std::shared_ptr<RecordingSpy> recorder;
  std::shared_ptr<PowerMonitor> monitor;
  std::vector<PowerState> states;
  std::vector<PowerMonitor::HistorySnapshot> histories;
  testing::LogCapture logs;
};

TEST_F(PowerMonitorTest, FallbackEngagesFromTheThirdFailureAndDropsOnRecovery) {
  primary->script = {std::nullopt, std::nullopt, std::nullopt, std::nullopt, batterySnapshot(-12)};
  fallback->last = batterySnapshot(-4);
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
  tick(2s);
  EXPECT_EQ(fallback->calls.load(), 2) << "the primary stays first in line";
  EXPECT_FALSE(monitor->diagnosticsOnPollQueue().usingFallback);
  EXPECT_EQ(monitor->diagnosticsOnPollQueue().consecutiveFailures, 0);
  EXPECT_EQ(logs.count("primary provider failed for 3 ticks — engaging fallback provider"), 1u);
  EXPECT_EQ(logs.count("primary provider recovered after 4 failures — disengaging fallback"), 1u);
}

TEST_F(PowerMonitorTest, PlugInResetsTheAverageAndAGapBeyondMaxDtRestartsIt) {
  tickOnBattery(-10, 2s);
  tick(2s);
  primary->last = batterySnapshot(40, true);
  tick(2s);
  EXPECT_DOUBLE_EQ(states.back().smoothedWattage, 40.0);
  EXPECT_EQ(states.back().phase, PowerPhase::charging);

  // Idle interval 30 s: maxDt is 75 s.
  monitor->setPollingInterval(30s);
  tickOnBattery(-10, 100s);
  tickOnBattery(-20, 70s);
  EXPECT_DOUBLE_EQ(states.back().smoothedWattage, 0.3 * -20 + 0.7 * -10);
  tickOnBattery(-30, 76s);
  EXPECT_DOUBLE_EQ(states.back().smoothedWattage, -30) << "a gap over 75 s restarts the average";
}

TEST_F(PowerMonitorTest, WakeDropsNearZeroReadingsUntilAnchoredOrFiveSecondsPass) {
  tickOnBattery(-10, 2s);
  primary->last = batterySnapshot(0.1);
  monitor->resumeAfterWake();
  runPosted();  // the wake job (and maybe the restarted timer's first tick)
  ASSERT_EQ(states.size(), 1u);
  tick(1s);
  EXPECT_EQ(states.size(), 1u) << "a near-zero reading just after wake is dropped";
  EXPECT_TRUE(monitor->diagnosticsOnPollQueue().wakeRetryPending);

  // A real reading inside the window is taken, and clears the gate.
  tickOnBattery(-8, 1s);
  ASSERT_EQ(states.size(), 2u);
  EXPECT_DOUBLE_EQ(states.back().smoothedWattage, -8) << "wake reset the average";
  EXPECT_FALSE(monitor->diagnosticsOnPollQueue().wakeRetryPending);
  tickOnBattery(0.1, 1s);
  EXPECT_EQ(states.size(), 3u) << "once anchored, small readings are trusted";

  // Without a real reading the gate closes on its own five seconds after wake.
  monitor->resumeAfterWake();
  runPosted();
  tick(4s);
  EXPECT_EQ(states.size(), 3u);
  tick(2s);
  EXPECT_EQ(states.size(), 4u);
}

TEST_F(PowerMonitorTest, ComponentsFollowCardVisibilityAndHistoryKeepsEvery30Seconds) {
  auto sampler = std::make_shared<FixedSampler>(ComponentPower{1, 2, 3, 0.5, 1, true});
  build(sampler);
  tickOnBattery(-15);
  EXPECT_EQ(histories.back(), PowerMonitor::HistorySnapshot::empty()) << "copied while unwatched";
  monitor->setPopoverOpen(true);
  for (int i = 0; i < 9; ++i) tick(2s);  // 18 s: hidden cadence is 20 s
  EXPECT_EQ(sampler->calls, 1);
  tick(2s);
  EXPECT_EQ(sampler->calls, 2);
  EXPECT_EQ(states.back().componentPower, sampler->value);
  for (int i = 0; i < 20; ++i) tick(2s);  // on to 60 s at a 2-second timer
  auto h = histories.back();
  EXPECT_EQ(h.wattageValues.size(), 3u);  // at 0, 30 and 60 s
  EXPECT_TRUE(h.systemPowerInValues.empty()) << "no input telemetry on battery";
  EXPECT_EQ(h.componentTimestamps.at("DRAM").size(), 3u);

  // Stalled CPU counters keep CPU and DRAM out; GPU and ANE go on.
  sampler->value.cpuAndMemoryAvailable = false;
  tick(30s);
  h = histories.back();
  for (const char* key : {"ECPU", "PCPU", "DRAM"}) EXPECT_EQ(h.componentData.at(key).size(), 3u);
  for (const char* key : {"GPU", "ANE"}) EXPECT_EQ(h.componentData.at(key).size(), 4u);
}

TEST_F(PowerMonitorTest, MissingOrRejectedComponentsLeaveTheStateWithoutThem) {
  tickOnBattery(-15);  // no sampler at all
  ASSERT_EQ(recorder->entries.size(), 1u);
  EXPECT_EQ(recorder->entries[0].validation.quality, HistoricalValueQuality::unavailable);
  EXPECT_FALSE(recorder->entries[0].fresh);

  build(std::make_shared<FixedSampler>(ComponentPower{1, 2, 91, 0, 1, true}));  // GPU > 90 W
  tickOnBattery(-15);
  tick(2s);  // within the cadence: the rejected reading left nothing to reuse
  ASSERT_EQ(recorder->entries.size(), 2u);
  EXPECT_EQ(recorder->entries[0].validation.quality, HistoricalValueQuality::rejected);
  EXPECT_TRUE(recorder->entries[0].fresh);
  EXPECT_EQ(recorder->entries[1].validation.quality, HistoricalValueQuality::unavailable);
  for (const auto& state : states) EXPECT_FALSE(state.componentPower.has_value());
}

TEST_F(PowerMonitorTest, StartSeedsHistoriesOnceFromTheStore) {
  recorder->seed.emplace_back().timestamp = clock.now() - 5min;
  recorder->seed[0].wattage = -7.0;
  recorder->seed[0].gpuW = 2.5;
  monitor->setPollingInterval(3600s);
  monitor->start();
  monitor->start();  // a second start (after wake) must not seed again
  pollQueue.runPending();
  monitor->stop();
  EXPECT_EQ(recorder->seedRequests, 1);
  monitor->setPopoverOpen(true);
  tickOnBattery(-15, 1s);
  const auto& h = histories.back();
  EXPECT_EQ(h.wattageValues, (std::vector<double>{-7.0, -15.0}));
  EXPECT_EQ(h.componentData.at("GPU"), std::vector<double>{2.5});
  EXPECT_EQ(h.componentData.count("ECPU"), 0u) << "keys exist only with samples";
}

// Switching machines swaps every source at once: no tick reads one machine's battery with the
// other's counters, rails or heat, and the simulated machine stores nothing from its first tick.
TEST_F(PowerMonitorTest, SwitchingMachinesSwapsTheWholeSetAndOnlyTheRealOneRecords) {
  auto realSampler = std::make_shared<FixedSampler>(ComponentPower{1, 1, 1, 0, 1, true});
  build(realSampler, std::make_shared<FixedThermal>(ThermalState::nominal));
  monitor->setPopoverOpen(true);
  monitor->setForceDischargeActive(true);
  tickOnBattery(-10);
  ASSERT_EQ(recorder->entries.size(), 1u);
  EXPECT_TRUE(recorder->entries[0].forceDischarge);

  auto simProvider = std::make_shared<ScriptedProvider>(clock);
  simProvider->last = batterySnapshot(30, true);
  auto simSampler = std::make_shared<FixedSampler>(ComponentPower{2, 2, 2, 0, 2, true});
  auto simRails = std::make_shared<FixedRails>();
  simRails->value.systemTotalWatts = 18;
  switchPowerSources(*monitor, {simProvider, nullptr, simSampler, simRails,
                                std::make_shared<FixedThermal>(ThermalState::serious), false});
  runPosted();  // the clearing, the reset and the tick the switch posts
  tick(2s);

  EXPECT_EQ(recorder->entries.size(), 1u) << "the simulated machine recorded a tick";
  EXPECT_EQ(primary->calls.load(), 1);
  EXPECT_EQ(realSampler->calls, 1);
  EXPECT_EQ(simSampler->calls, 1) << "the switch starts the counters afresh";
  const PowerState& s = states.back();
  EXPECT_DOUBLE_EQ(s.smoothedWattage, 30) << "no average carried over from the other machine";
  EXPECT_EQ(s.thermalState, ThermalState::serious);
  EXPECT_EQ(s.componentPower, simSampler->value);
  EXPECT_EQ(s.systemPowerRails, simRails->value);
  EXPECT_EQ(histories.back().wattageValues, std::vector<double>{30}) << "histories cleared";

  // Back on the real machine: recording resumes and the histories come from the store.
  const int seedsBefore = recorder->seedRequests;
  monitor->setForceDischargeActive(false);
  switchPowerSources(*monitor, {primary, fallback, realSampler, nullptr, nullptr});
  runPosted();
  EXPECT_EQ(recorder->seedRequests, seedsBefore + 1);
  ASSERT_EQ(recorder->entries.size(), 2u);
  EXPECT_FALSE(recorder->entries[1].forceDischarge);
  EXPECT_EQ(states.back().systemPowerRails, std::nullopt) << "no rails left from the simulation";
  EXPECT_EQ(states.back().thermalState, ThermalState::nominal);
}

TEST_F(PowerMonitorTest, StateCarriesDerivedFiguresAndTheSmoothedGaugeTime) {
  auto snap = batterySnapshot(20, true);
  build(nullptr, std::make_shared<FixedThermal>(ThermalState::fair));
  // 0.1 * 200 + 0.9 * 100, truncated; values below 1 pass through unsmoothed.
  const std::pair<int, int> steps[] = {{100, 100}, {200, 110}, {0, 0}};
  for (auto [given, shown] : steps) {
    snap.timeRemaining_min = given;
    primary->last = snap;
    tick(2s);
    EXPECT_EQ(states.back().timeRemaining_min, shown) << given;
  }
  const auto& s = states.back();
  EXPECT_DOUBLE_EQ(s.batteryPercentage, 62.5);
  EXPECT_EQ(s.thermalState, ThermalState::fair);
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
      {"held: no estimate", PowerPhase::onHold, -10, drain10, std::nullopt},
      {"74 Wh at 10 W", PowerPhase::draining, -1, drain10, -444},
      {"a rate that means nothing", PowerPhase::draining, -0.2, {0, 0, 0}, std::nullopt},
      {"no battery", PowerPhase::draining, -10, drain10, std::nullopt, 5000, false},
      // Only two samples below -0.3 W: the smoothed -20 W, not the mean of those two.
      {"too few qualify", PowerPhase::draining, -20, twoQualify, -222},
      {"44.4 Wh missing at 30 W", PowerPhase::charging, 30, charge30, 88},
      {"nothing missing", PowerPhase::charging, 30, charge30, std::nullopt, 8000},
      {"6000 min or more: none", PowerPhase::charging, 0.6, {0.6, 0.6, 0.6}, std::nullopt, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto snap = batterySnapshot(c.smoothed_W);
    snap.voltage_mV = 14800;
    snap.currentCapacity_mAh = c.current_mAh;
    snap.batteryInstalled = c.installed;
    EXPECT_EQ(PowerMonitor::calculateTimeRemaining(snap, c.phase, c.smoothed_W, c.recent_W),
              c.expected_min);
  }
}

// Runs the real queues on their own threads, so ThreadSanitizer sees the setters, the timer and
// the tick interleave.
TEST(PowerMonitorThreadedTest, IntervalChangeTicksAtOnceAndStopEndsTicking) {
  SystemClock clock;
  const auto eventually = [&](auto pred) {
    for (const auto end = clock.monotonicNow() + 5s; !pred();) {
      if (clock.monotonicNow() > end) return false;
      std::this_thread::sleep_for(1ms);
    }
    return true;
  };
  SerialQueue pollQueue("test.poll.t", clock);
  SerialQueue mainQueue("test.main.t", clock);
  pollQueue.start();
  mainQueue.start();
  auto provider = std::make_shared<ScriptedProvider>(clock);
  provider->last = batterySnapshot(-10);
  auto monitor = PowerMonitor::create(
      {{provider, nullptr, nullptr, nullptr, nullptr}, &pollQueue, &mainQueue, nullptr}, clock);
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

  monitor->stop();
  mainQueue.sync([] {});
}

}  // namespace
}  // namespace quorel
