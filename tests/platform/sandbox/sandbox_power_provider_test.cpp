#include "platform/sandbox/sandbox_power_provider.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "core/power_phase.hpp"

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
  void scenario(const std::function<void(SandboxSettings&)>& edit) { config.update(edit); }

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
  EXPECT_EQ(s.batterySerial, std::nullopt);
  EXPECT_EQ(s.adapterWatts, std::nullopt);
  EXPECT_EQ(s.wallPowerEstimate_mW, std::nullopt);
}

TEST_F(SandboxPowerProviderTest, EachPowerSourceGivesItsFlagsEstimateAndPhase) {
  struct Case {
    SandboxPowerSource source;
    double watts;  // at the default medium load (18 W) and 96 W adapter
    std::int64_t amperage_mA;
    bool charging;
    bool full;
    std::optional<std::int64_t> remaining_min;
    PowerPhase phase;
  };
  const Case cases[] = {
      {SandboxPowerSource::battery, -18, -1216, false, false, 290, PowerPhase::draining},
      // 2288 mAh to go at 5270 mA.
      {SandboxPowerSource::acCharging, 78, 5270, true, false, 26, PowerPhase::charging},
      {SandboxPowerSource::acFull, 0.2, 13, false, true, 0, PowerPhase::full},
      {SandboxPowerSource::acOnHold, 0, 0, false, false, std::nullopt, PowerPhase::onHold},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(toString(c.source));
    scenario([&](SandboxSettings& s) { s.powerSource = c.source; });
    const auto s = fetch();
    EXPECT_DOUBLE_EQ(config.effectiveWattage(), c.watts);
    EXPECT_EQ(s.instantAmperage_mA, c.amperage_mA);
    EXPECT_EQ(s.isCharging, c.charging);
    EXPECT_EQ(s.fullyCharged, c.full);
    EXPECT_EQ(s.externalConnected, c.source != SandboxPowerSource::battery);
    EXPECT_EQ(s.timeRemaining_min, c.remaining_min);
    EXPECT_EQ(settledPhase(), c.phase);
  }
}

TEST_F(SandboxPowerProviderTest, SupplementingWithAWeakAdapterUnderHeavyLoad) {
  scenario([](SandboxSettings& c) {
    c.powerSource = SandboxPowerSource::acSupplementing;
    c.adapterWatts = 30;
    c.systemLoad = SandboxLoadPreset::heavy;
  });
  EXPECT_DOUBLE_EQ(config.effectiveWattage(), -5.0);
  const auto s = fetch();
  EXPECT_EQ(s.instantAmperage_mA, -337);
  EXPECT_TRUE(s.externalConnected);
  EXPECT_FALSE(s.isCharging);
  EXPECT_EQ(s.timeRemaining_min, std::nullopt);
  EXPECT_EQ(s.adapterCurrent_mA, 1500);
  EXPECT_EQ(s.systemLoad_mW, 35000);
  EXPECT_EQ(s.adapterDescription, "30W USB-C Power Adapter");
}

TEST_F(SandboxPowerProviderTest, OnHoldCarriesTheGaugesReasonButHeatDecidesThePhase) {
  scenario([](SandboxSettings& c) { c.powerSource = SandboxPowerSource::acOnHold; });
  EXPECT_EQ(fetch().notChargingReason, 8);
  scenario([](SandboxSettings& c) { c.thermalState = SandboxThermalState::serious; });
  EXPECT_EQ(settledPhase(), PowerPhase::thermalHold);
  scenario([](SandboxSettings& c) { c.powerSource = SandboxPowerSource::acFull; });
  EXPECT_EQ(fetch().notChargingReason, std::nullopt);
}

TEST_F(SandboxPowerProviderTest, AdapterFiguresFollowTheRatingAndTheConnection) {
  scenario([](SandboxSettings& c) {
    c.powerSource = SandboxPowerSource::acCharging;
    c.connectionType = ConnectionType::magsafe3;
  });
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
}

TEST_F(SandboxPowerProviderTest, AdapterFiguresStayExactForOddRatings) {
  // 1.12 and 0.12 are not exact in binary; the estimates must still be the whole milliwatts.
  for (std::int64_t watts : {29, 35, 61, 67, 140, 999}) {
    scenario([&](SandboxSettings& c) {
      c.powerSource = SandboxPowerSource::acOnHold;
      c.adapterWatts = watts;
    });
    const auto s = fetch();
    EXPECT_EQ(s.wallPowerEstimate_mW, watts * 1120) << watts;
    EXPECT_EQ(s.adapterEfficiencyLoss_mW, watts * 120) << watts;
    EXPECT_EQ(s.adapterCurrent_mA, watts * 50) << watts;
  }
}

TEST_F(SandboxPowerProviderTest, ZeroWattsDividesByOneInTheTimeEstimate) {
  scenario([](SandboxSettings& c) {
    c.powerSource = SandboxPowerSource::acCharging;
    c.wattageOverride = 0.0;
  });
  EXPECT_EQ(fetch().timeRemaining_min, (8171 - 5883) * 60);
  scenario([](SandboxSettings& c) { c.powerSource = SandboxPowerSource::battery; });
  EXPECT_EQ(fetch().timeRemaining_min, 5883 * 60);
}

TEST_F(SandboxPowerProviderTest, OverrideBeatsEveryRule) {
  scenario([](SandboxSettings& c) { c.wattageOverride = 12.5; });
  EXPECT_DOUBLE_EQ(config.effectiveWattage(), 12.5);
  const auto s = fetch();
  EXPECT_EQ(s.instantAmperage_mA, 844);
  EXPECT_FALSE(s.externalConnected);
  // Energy into the battery while unplugged is legal in a scenario; the phase stays honest.
  EXPECT_EQ(settledPhase(), PowerPhase::draining);
  for (auto source : {SandboxPowerSource::acFull, SandboxPowerSource::acOnHold,
                      SandboxPowerSource::acSupplementing, SandboxPowerSource::acCharging}) {
    scenario([&](SandboxSettings& c) { c.powerSource = source; });
    EXPECT_DOUBLE_EQ(config.effectiveWattage(), 12.5) << toString(source);
  }
}

TEST_F(SandboxPowerProviderTest, PercentageExtremesAndDailyBounds) {
  struct Case {
    double percent;
    std::int64_t capacity_mAh, minSoc, maxSoc;
  };
  // 97.6 % keeps the truncated 97 for its lower bound, not 98.
  for (const auto& c : {Case{0, 0, 0, 5}, Case{9.9, 808, 0, 14}, Case{97.6, 7974, 82, 100},
                        Case{100, 8171, 85, 100}}) {
    scenario([&](SandboxSettings& s) { s.batteryPercentage = c.percent; });
    const auto s = fetch();
    EXPECT_EQ(s.currentCapacity_mAh, c.capacity_mAh) << c.percent;
    EXPECT_EQ(s.dailyMinSoc, c.minSoc) << c.percent;
    EXPECT_EQ(s.dailyMaxSoc, c.maxSoc) << c.percent;
  }
  EXPECT_EQ(fetch().maxCapacity_mAh, 8171);
  scenario([](SandboxSettings& s) { s.batteryPercentage = 0; });
  EXPECT_EQ(fetch().timeRemaining_min, 0);
}

TEST_F(SandboxPowerProviderTest, DecimalInputsTruncateToWhatWasTyped) {
  scenario([](SandboxSettings& c) {
    c.temperature = 34.59;  // 3458.9999999999995 in doubles
    c.batteryHealth = 100;
    c.batteryPercentage = 50;
  });
  const auto s = fetch();
  EXPECT_EQ(s.temperature_cC, 3459);
  EXPECT_EQ(s.maxCapacity_mAh, 8693);
  EXPECT_EQ(s.currentCapacity_mAh, 4346);  // 4346.5 truncated
  scenario([](SandboxSettings& c) { c.temperature = -5.5; });
  EXPECT_EQ(fetch().temperature_cC, -550);
}

TEST_F(SandboxPowerProviderTest, DesktopModelsHaveNoBattery) {
  for (auto [model, installed] : {std::pair{MacModel::macStudio, false},
                                  {MacModel::macPro, false},
                                  {MacModel::macMini, false},
                                  {MacModel::iMac, false},
                                  {MacModel::macBookAir, true},
                                  {MacModel::macBookNeo, true},
                                  {MacModel::unknown, true}}) {
    scenario([&](SandboxSettings& c) { c.macModel = model; });
    EXPECT_EQ(fetch().batteryInstalled, installed) << toString(model);
    EXPECT_EQ(settledPhase() == PowerPhase::noBattery, !installed) << toString(model);
  }
}

}  // namespace
}  // namespace quorel
