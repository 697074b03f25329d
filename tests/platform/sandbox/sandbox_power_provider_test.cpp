#include "platform/sandbox/sandbox_power_provider.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "core/power_phase.hpp"
#include "platform/sandbox/sandbox_power_sources.hpp"
#include "telemetry/power_monitor.hpp"
#include "telemetry/provider_switch.hpp"

namespace quorel {
namespace {

using namespace std::chrono_literals;

class SandboxPowerProviderTest : public ::testing::Test {
 protected:
  PowerSnapshot fetch() {
    auto s = provider.fetchSnapshot();
    EXPECT_TRUE(s) << "the simulated machine never fails to read";
    return s.value_or(PowerSnapshot{});
  }
  void scenario(const SandboxSettings& settings) { config.set(settings); }

  // The phase the monitor would settle on once its average has reached the raw figure.
  PowerPhase settledPhase() {
    const auto s = fetch();
    return phaseFrom(
        s, config.effectiveWattage(),
        PowerPhaseDetectionContext{platformThermalState(config.values().thermalState), 600});
  }

  SandboxConfig config;
  ManualClock clock;
  SandboxPowerProvider provider{config, clock};
};

TEST_F(SandboxPowerProviderTest, DefaultMachineDrainsAtEighteenWatts) {
  const auto s = fetch();
  EXPECT_EQ(s.designCapacity_mAh, 8693);
  EXPECT_EQ(s.maxCapacity_mAh, 8171);  // 94 % of 8693
  EXPECT_EQ(s.nominalCapacity_mAh, 8171);
  EXPECT_EQ(s.currentCapacity_mAh, 5883);  // 72 % of that
  EXPECT_EQ(s.cellQmax, (std::vector<std::int64_t>{2723, 2723, 2723}));
  EXPECT_EQ(s.voltage_mV, 14800);
  EXPECT_EQ(s.instantAmperage_mA, -1216);  // -18 W / 14.8 V
  EXPECT_EQ(s.amperage_mA, -1216);
  EXPECT_EQ(s.avgTimeToEmpty_min, 290);  // 5883 mAh at 1216 mA
  EXPECT_EQ(s.systemLoad_mW, 18000);
  // Without a serial the battery epoch logic stays idle; on battery there is no adapter.
  EXPECT_FALSE(s.batterySerial || s.adapterWatts || s.wallPowerEstimate_mW);
}

TEST_F(SandboxPowerProviderTest, EachPowerSourceGivesItsFlagsEstimateAndPhase) {
  struct Case {
    SandboxPowerSource source;
    std::int64_t adapterWatts;
    SandboxLoadPreset load;
    double watts;
    std::int64_t amperage_mA;
    bool charging;
    bool full;
    std::optional<std::int64_t> remaining_min;
    std::optional<PowerPhase> phase;  // not judged when absent
  };
  using enum SandboxPowerSource;
  using enum SandboxLoadPreset;
  const Case cases[] = {
      {battery, 96, medium, -18, -1216, false, false, 290, PowerPhase::draining},
      // 2288 mAh to go at 5270 mA.
      {acCharging, 96, medium, 78, 5270, true, false, 26, PowerPhase::charging},
      {acFull, 96, medium, 0.2, 13, false, true, 0, PowerPhase::full},
      {acOnHold, 96, medium, 0, 0, false, false, std::nullopt, PowerPhase::onHold},
      // An adapter stronger than the load supplements nothing: its surplus goes into the pack.
      {acSupplementing, 96, medium, 78, 5270, false, false, std::nullopt, std::nullopt},
      // A weak adapter under heavy load: the pack makes up the difference.
      {acSupplementing, 30, heavy, -5, -337, false, false, std::nullopt, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(toString(c.source));
    scenario({.powerSource = c.source, .adapterWatts = c.adapterWatts, .systemLoad = c.load});
    const auto s = fetch();
    EXPECT_DOUBLE_EQ(config.effectiveWattage(), c.watts);
    EXPECT_EQ(s.instantAmperage_mA, c.amperage_mA);
    EXPECT_EQ(s.isCharging, c.charging);
    EXPECT_EQ(s.fullyCharged, c.full);
    EXPECT_EQ(s.externalConnected, c.source != battery);
    EXPECT_EQ(s.timeRemaining_min, c.remaining_min);
    if (c.phase) {
      EXPECT_EQ(settledPhase(), *c.phase);
    }
  }
}

TEST_F(SandboxPowerProviderTest, OnHoldCarriesTheGaugesReasonButHeatDecidesThePhase) {
  scenario({.powerSource = SandboxPowerSource::acOnHold});
  EXPECT_EQ(fetch().notChargingReason, 8);
  scenario(
      {.powerSource = SandboxPowerSource::acOnHold, .thermalState = SandboxThermalState::serious});
  EXPECT_EQ(settledPhase(), PowerPhase::thermalHold);
  scenario({.powerSource = SandboxPowerSource::acFull});
  EXPECT_EQ(fetch().notChargingReason, std::nullopt);
}

TEST_F(SandboxPowerProviderTest, AdapterFiguresFollowTheRatingAndTheConnection) {
  scenario(
      {.powerSource = SandboxPowerSource::acCharging, .connectionType = ConnectionType::magsafe3});
  const auto s = fetch();
  EXPECT_EQ(s.adapterCurrent_mA, 4800);
  EXPECT_EQ(s.systemPowerIn_mW, 96000);
  EXPECT_EQ(s.systemCurrentIn_mA, 4800);
  EXPECT_EQ(s.portMaxPower_mW, 96000);
  EXPECT_EQ(s.connectionType, ConnectionType::magsafe3);
  using Profile = std::map<std::string, std::int64_t>;
  // The active profile is the one the adapter delivers through.
  ASSERT_TRUE(s.activePDProfileIndex);
  EXPECT_EQ(s.usbPDProfiles->at(static_cast<std::size_t>(*s.activePDProfileIndex)),
            (Profile{{"Voltage", 20000}, {"Current", 4800}}));
  scenario({.powerSource = SandboxPowerSource::acSupplementing, .adapterWatts = 30});
  EXPECT_EQ(fetch().adapterDescription, "30W USB-C Power Adapter");
}

TEST_F(SandboxPowerProviderTest, AdapterFiguresStayExactForOddRatings) {
  // 1.12 and 0.12 are not exact in binary; the estimates must still be the whole milliwatts.
  for (std::int64_t watts : {29, 35, 61, 67, 140, 999}) {
    scenario({.powerSource = SandboxPowerSource::acOnHold, .adapterWatts = watts});
    const auto s = fetch();
    EXPECT_EQ(s.wallPowerEstimate_mW, watts * 1120) << watts;
    EXPECT_EQ(s.adapterEfficiencyLoss_mW, watts * 120) << watts;
    EXPECT_EQ(s.adapterCurrent_mA, watts * 50) << watts;
  }
}

TEST_F(SandboxPowerProviderTest, OverrideBeatsEveryRuleEvenAtZero) {
  scenario({.wattageOverride = 12.5});
  EXPECT_DOUBLE_EQ(config.effectiveWattage(), 12.5);
  const auto s = fetch();
  EXPECT_EQ(s.instantAmperage_mA, 844);
  EXPECT_FALSE(s.externalConnected);
  // Energy into the battery while unplugged is legal in a scenario; the phase stays honest.
  EXPECT_EQ(settledPhase(), PowerPhase::draining);
  for (auto source : {SandboxPowerSource::acFull, SandboxPowerSource::acOnHold,
                      SandboxPowerSource::acSupplementing, SandboxPowerSource::acCharging}) {
    scenario({.powerSource = source, .wattageOverride = 12.5});
    EXPECT_DOUBLE_EQ(config.effectiveWattage(), 12.5) << toString(source);
  }
  // Zero watts divides by one in the time estimate.
  scenario({.powerSource = SandboxPowerSource::acCharging, .wattageOverride = 0.0});
  EXPECT_EQ(fetch().timeRemaining_min, (8171 - 5883) * 60);
  scenario({.wattageOverride = 0.0});
  EXPECT_EQ(fetch().timeRemaining_min, 5883 * 60);
}

TEST_F(SandboxPowerProviderTest, PercentageExtremesAndDailyBounds) {
  struct Case {
    double percent;
    std::int64_t capacity_mAh, minSoc, maxSoc;
  };
  // 97.6 % keeps the truncated 97 for its lower bound, not 98.
  for (const auto& c : {Case{0, 0, 0, 5}, Case{9.9, 808, 0, 14}, Case{97.6, 7974, 82, 100},
                        Case{100, 8171, 85, 100}}) {
    scenario({.batteryPercentage = c.percent});
    const auto s = fetch();
    EXPECT_EQ(s.currentCapacity_mAh, c.capacity_mAh) << c.percent;
    EXPECT_EQ(s.dailyMinSoc, c.minSoc) << c.percent;
    EXPECT_EQ(s.dailyMaxSoc, c.maxSoc) << c.percent;
    EXPECT_EQ(s.timeRemaining_min == 0, c.percent == 0) << c.percent;
  }
}

TEST_F(SandboxPowerProviderTest, DecimalInputsTruncateToWhatWasTyped) {
  // 34.59 is 3458.9999999999995 hundredths in doubles.
  scenario({.batteryPercentage = 50, .batteryHealth = 100, .temperature = 34.59});
  const auto s = fetch();
  EXPECT_EQ(s.temperature_cC, 3459);
  EXPECT_EQ(s.maxCapacity_mAh, 8693);
  EXPECT_EQ(s.currentCapacity_mAh, 4346);  // 4346.5 truncated
  scenario({.temperature = -5.5});
  EXPECT_EQ(fetch().temperature_cC, -550);
}

TEST_F(SandboxPowerProviderTest, DesktopModelsHaveNoBattery) {
  // clang-format off
  for (auto [model, installed] : {std::pair{MacModel::macStudio, false}, {MacModel::macPro, false},
                                  {MacModel::macMini, false}, {MacModel::iMac, false},
                                  {MacModel::macBookAir, true}, {MacModel::macBookNeo, true},
                                  {MacModel::unknown, true}}) {
    // clang-format on
    scenario({.macModel = model});
    EXPECT_EQ(fetch().batteryInstalled, installed) << toString(model);
    EXPECT_EQ(settledPhase() == PowerPhase::noBattery, !installed) << toString(model);
  }
}

class NoRecording : public PowerRecordingStage {
 public:
  void record(const RecordingTick&, bool) override { ++records; }
  void discardSession() override {}
  std::vector<HistorySeedSample> seedSamples(TimePoint) override { return {}; }
  int records = 0;
};

// The simulated machine behind the real monitor loop, as the agent runs it.
TEST_F(SandboxPowerProviderTest, MonitorShowsTheScenarioAtOnceAndRecordsNothing) {
  SerialQueue pollQueue("test.poll", clock);
  SerialQueue mainQueue("test.main", clock);
  auto recorder = std::make_shared<NoRecording>();
  PowerMonitor::Dependencies deps;
  deps.sources = sandboxPowerSources(config, clock);
  deps.pollQueue = &pollQueue;
  deps.mainQueue = &mainQueue;
  deps.recorder = recorder;
  auto monitor = PowerMonitor::create(std::move(deps), clock);
  std::vector<PowerState> states;
  monitor->setOnStateUpdate(
      [&](const PowerState& s, const PowerMonitor::HistorySnapshot&) { states.push_back(s); });
  auto tick = [&] {
    clock.advance(2s);
    monitor->poll();
    mainQueue.runPending();
  };

  tick();
  ASSERT_EQ(states.size(), 1u);
  EXPECT_EQ(states.back().componentPower, componentPower(SandboxLoadPreset::medium));
  EXPECT_EQ(states.back().systemPowerRails,
            (SystemPowerRails{18.0, 18.0, std::nullopt, 0.0, 0.0, 0.4}));
  EXPECT_EQ(states.back().thermalState, ThermalState::nominal);

  scenario({.powerSource = SandboxPowerSource::acSupplementing,
            .adapterWatts = 30,
            .systemLoad = SandboxLoadPreset::extreme,
            .thermalState = SandboxThermalState::critical});
  simulationParametersChanged(*monitor);
  pollQueue.runPending();
  mainQueue.runPending();
  const PowerState& s = states.back();
  EXPECT_EQ(s.componentPower, (ComponentPower{5.0, 18.0, 28.0, 3.0, 11.0, true}));
  // 65 W of load, 35 W of it from the pack (a magnitude), 30 W from the adapter.
  EXPECT_EQ(s.systemPowerRails, (SystemPowerRails{65.0, 35.0, 30.0, 2.4, 0.0, 0.4}));
  EXPECT_EQ(s.thermalState, ThermalState::critical);
  EXPECT_EQ(s.phase, PowerPhase::thermalHold);
  EXPECT_NEAR(s.smoothedWattage, -35.0, 0.02) << "the raw figure, not an average";

  for (int i = 0; i < 20; ++i) tick();
  EXPECT_EQ(recorder->records, 0) << "the simulated machine wrote to the history store";
}

TEST(SandboxLoadPresetTest, EveryRowPassesTheComponentValidator) {
  // The simulated machine must never produce readings its own pipeline would reject.
  for (auto preset : {SandboxLoadPreset::idle, SandboxLoadPreset::light, SandboxLoadPreset::medium,
                      SandboxLoadPreset::heavy, SandboxLoadPreset::extreme}) {
    const auto v =
        ComponentPowerValidator::validate(componentPower(preset), systemLoadWatts(preset));
    EXPECT_EQ(v.quality, HistoricalValueQuality::measured) << toString(preset);
  }
}

}  // namespace
}  // namespace quorel
