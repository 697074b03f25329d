#include "telemetry/power_recorder.hpp"

#include <gtest/gtest.h>

#include <cstdlib>

#include "support/log_capture.hpp"
#include "support/zone_guard.hpp"

namespace quorel {
namespace {

using namespace std::chrono_literals;

class FakeRecordingStore : public RecordingStore {
 public:
  void insertPowerSample(const PowerSample& s) override { samples.push_back(s); }
  void insertSession(const SessionRecord& s) override { sessions.push_back(s); }
  void insertCapacityLog(const CapacityLogEntry& e) override { capacity.push_back(e); }
  std::optional<BatteryEpoch> reconcileBatteryEpoch(const std::string& serial, std::int64_t,
                                                    std::int64_t, std::int64_t,
                                                    TimePoint at) override {
    reconciled.push_back(serial);
    // Behaves like the store: a first serial opens nothing to report, a different one does.
    if (reconciled.size() < 2 || reconciled[reconciled.size() - 2] == serial) return std::nullopt;
    return BatteryEpoch{42, at, serial, 0, 0, 0, BatteryEpochSource::automatic};
  }
  std::vector<PowerSample> queryPowerSamples(TimePoint from, TimePoint to, int maxPoints) override {
    query = {secondsBetween(from, to), maxPoints};
    return stored;
  }

  std::vector<PowerSample> samples;
  std::vector<SessionRecord> sessions;
  std::vector<CapacityLogEntry> capacity;
  std::vector<std::string> reconciled;
  std::vector<PowerSample> stored;
  std::optional<std::pair<double, int>> query;  // the span in seconds and the points asked for
};

class PowerRecorderTest : public ::testing::Test {
 protected:
  // Capacity days are local; pin the zone so a day is the same on any machine.
  testing::ZoneGuard zone{"UTC0"};
  // One recording tick `advance` after the previous one, with the given phase and watts.
  void tick(Seconds advance, PowerPhase phase = PowerPhase::draining, double watts = -10,
            bool force = false, std::optional<std::string> serial = std::nullopt) {
    clock.advance(advance);
    snapshot.timestamp = clock.now();
    snapshot.batterySerial = serial;
    state.timestamp = clock.now();
    state.phase = phase;
    state.smoothedWattage = watts;
    recorder.record(RecordingTick{snapshot, state, validation, fresh, clock.now()}, force);
  }

  ManualClock clock{fromUnixSeconds(1'800'000'000)};
  FakeRecordingStore store;
  std::vector<BatteryEpoch> replaced;
  PowerRecorder recorder{store, clock, [this](const BatteryEpoch& e) { replaced.push_back(e); }};
  PowerSnapshot snapshot = [] {
    PowerSnapshot s;
    s.batteryInstalled = true;
    s.designCapacity_mAh = 8693;
    s.nominalCapacity_mAh = 8171;
    s.cycleCount = 187;
    s.temperature_cC = 3450;
    return s;
  }();
  PowerState state = [] {
    PowerState s;
    s.batteryInstalled = true;
    s.batteryPercentage = 72;
    s.temperature_C = 34.5;
    return s;
  }();
  ComponentPowerValidation validation =
      ComponentPowerValidator::validate(ComponentPower{3, 4, 6, 0.5, 4.5, true}, 18.0);
  bool fresh = true;
  testing::LogCapture logs;
};

TEST_F(PowerRecorderTest, SessionOfExactlySixtySecondsIsDroppedSixtyOneKept) {
  for (auto step : {0s, 30s, 30s}) tick(step);
  tick(0s, PowerPhase::charging, 40);  // ends the 60-second session
  EXPECT_TRUE(store.sessions.empty());
  for (auto step : {31s, 30s}) tick(step, PowerPhase::charging, 40);
  tick(0s);  // ends a 61-second charging session
  ASSERT_EQ(store.sessions.size(), 1u);
  const auto& s = store.sessions[0];
  EXPECT_EQ(s.mode, PowerSessionMode::charging);
  EXPECT_DOUBLE_EQ(s.collectedDuration_s, 61);
  EXPECT_NEAR(s.totalWh, 40.0 * 61 / 3600, 1e-9);
  EXPECT_NEAR(s.avgWattage, 40.0, 1e-9);
}

TEST_F(PowerRecorderTest, GapsCountAsMissingAndLowerConfidence) {
  for (auto step : {0s, 100s, 400s}) tick(step);  // slept 400 s: beyond the 300-second limit
  tick(100s, PowerPhase::charging, 30);
  ASSERT_EQ(store.sessions.size(), 1u);
  const auto& s = store.sessions[0];
  // The closing tick belongs to the next session: 100 s seen, 400 s slept through.
  EXPECT_DOUBLE_EQ(s.collectedDuration_s, 100);
  EXPECT_DOUBLE_EQ(s.missingDuration_s, 400);
  EXPECT_DOUBLE_EQ(s.confidence, 0.2);
  EXPECT_EQ(s.mode, PowerSessionMode::battery);
  EXPECT_DOUBLE_EQ(s.endPct, 72);
}

TEST_F(PowerRecorderTest, ModesClassifyTheSessionAndNoBatteryLeavesItAlone) {
  tick(0s, PowerPhase::onHold, 0, /*force=*/true);
  EXPECT_EQ(recorder.currentSession()->mode, PowerSessionMode::forceDischarge);
  tick(1s, PowerPhase::onHold, 0);
  EXPECT_EQ(recorder.currentSession()->mode, PowerSessionMode::holding);
  tick(1s, PowerPhase::bootSurge, -2);
  EXPECT_EQ(recorder.currentSession()->mode, PowerSessionMode::supplementing);
  // A session cut short after one point has observed nothing and is not kept.
  EXPECT_TRUE(store.sessions.empty());

  // Without a battery the open session is left alone.
  tick(1s);
  state.batteryInstalled = false;
  snapshot.batteryInstalled = false;
  tick(30s, PowerPhase::noBattery, 0);
  ASSERT_TRUE(recorder.currentSession());
  EXPECT_EQ(recorder.currentSession()->mode, PowerSessionMode::battery);
  EXPECT_DOUBLE_EQ(recorder.sessionEnergy().collectedSeconds, 0);
}

TEST_F(PowerRecorderTest, SamplesEveryThirtySecondsWithObservedDurations) {
  for (auto step : {0s, 10s, 20s, 310s}) tick(step);
  ASSERT_EQ(store.samples.size(), 3u);
  EXPECT_FALSE(store.samples[0].observedDurationS) << "nothing persisted before the first";
  EXPECT_EQ(store.samples[1].observedDurationS, 30.0);
  EXPECT_EQ(store.samples[2].observedDurationS, 0.0) << "a gap over 300 s observed nothing";

  fresh = false;
  tick(30s);
  ASSERT_EQ(store.samples.size(), 4u);
  EXPECT_EQ(store.samples[3].componentQuality, HistoricalValueQuality::unavailable);
  EXPECT_EQ(store.samples[3].componentRejectionReason, "component sample not fresh");
  EXPECT_FALSE(store.samples[3].gpuW);
}

TEST(PowerRecorderSampleTest, QualityLabelsFollowWhatWasMeasured) {
  PowerState s;
  s.externalConnected = true;
  s.systemPowerIn_W = 60;
  s.wallPowerEstimate_W = 50;  // claims less than the 60 W demonstrably coming in
  s.thermalState = ThermalState::serious;
  auto rejectedWall = PowerRecorder::makeSample(s, ComponentPowerValidation{}, std::nullopt);
  EXPECT_EQ(rejectedWall.wallEstimateQuality, HistoricalValueQuality::rejected);
  EXPECT_EQ(rejectedWall.systemPowerQuality, HistoricalValueQuality::inferred);

  s.wallPowerEstimate_W = 67.2;
  s.systemPowerRails = SystemPowerRails{18.0, 5.0, 60.0, 2.4, 0.0, 0.4};
  auto measured = PowerRecorder::makeSample(s, ComponentPowerValidation{}, 30.0);
  EXPECT_EQ(measured.wallEstimateQuality, HistoricalValueQuality::legacy);
  EXPECT_EQ(measured.systemPowerQuality, HistoricalValueQuality::measured);
  EXPECT_EQ(measured.dcInW, 60.0);

  PowerState onAdapterNoTelemetry;
  onAdapterNoTelemetry.externalConnected = true;
  auto none = PowerRecorder::makeSample(onAdapterNoTelemetry, ComponentPowerValidation{}, {});
  EXPECT_EQ(none.systemPowerQuality, HistoricalValueQuality::unavailable);
  EXPECT_EQ(none.wallEstimateQuality, HistoricalValueQuality::unavailable);
}

TEST_F(PowerRecorderTest, SerialMustBeSeenOnTwoPollsRunning) {
  const auto seen = [&](const char* serial) { tick(2s, PowerPhase::draining, -10, false, serial); };
  seen("A");
  EXPECT_TRUE(store.reconciled.empty()) << "the first sighting is not yet believed";
  seen("A");
  EXPECT_EQ(store.reconciled, std::vector<std::string>{"A"});
  seen("A");
  EXPECT_EQ(store.reconciled.size(), 1u) << "a known serial costs the store nothing";

  for (int i = 0; i < 6; ++i) seen(i % 2 ? "A" : "B");
  EXPECT_EQ(store.reconciled.size(), 1u) << "alternating serials never confirm";
  EXPECT_TRUE(replaced.empty());
  seen("B");
  seen("B");
  ASSERT_EQ(replaced.size(), 1u);
  EXPECT_EQ(replaced[0].serial, "B");
  EXPECT_EQ(logs.count("battery replacement detected — serial changed, opened epoch 42"), 1u);
}

TEST_F(PowerRecorderTest, CapacityLogOnFirstReadingOnChangeAndOncePerDay) {
  tick(0s);
  ASSERT_EQ(store.capacity.size(), 1u);
  EXPECT_NEAR(store.capacity[0].healthPct, 8171.0 / 8693 * 100, 1e-9);
  EXPECT_DOUBLE_EQ(store.capacity[0].maxTemperature_C, 34.5);
  tick(60s);
  EXPECT_EQ(store.capacity.size(), 1u);
  snapshot.nominalCapacity_mAh = 8100;  // -0.8 points of health
  snapshot.maxTemperature = 42;
  tick(60s);
  ASSERT_EQ(store.capacity.size(), 2u);
  EXPECT_DOUBLE_EQ(store.capacity[1].maxTemperature_C, 42) << "the lifetime maximum wins";
  tick(24h);
  EXPECT_EQ(store.capacity.size(), 3u) << "a new day logs even without change";
  snapshot.designCapacity_mAh = 0;
  tick(24h);
  EXPECT_EQ(store.capacity.size(), 3u) << "no design capacity, no health";
}

}  // namespace
}  // namespace quorel
