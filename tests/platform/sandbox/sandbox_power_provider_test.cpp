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

TEST_F(SandboxPowerProviderTest, OverrideBeatsEveryRuleEvenAtZero) {
  scenario({.wattageOverride = 12.5});
  EXPECT_DOUBLE_EQ(config.effectiveWattage(), 12.5);
  const auto s = fetch();
  EXPECT_EQ(s.instantAmperage_mA, 844);
  EXPECT_FALSE(s.externalConnected);
  // Energy into the battery while unplugged is legal in a scenario; the phase stays honest.
  EXPECT_EQ(settledPhase(), PowerPhase::draining);
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

TEST_F(SandboxPowerProviderTest, DesktopModelsHaveNoBattery) {
  // clang-format off
  for (auto [model, installed] : {std::pair{MacModel::macStudio, false}, {MacModel::macPro, false},
                                  {MacModel::macBookAir, true}}) {
    // clang-format on
    scenario({.macModel = model});
    EXPECT_EQ(fetch().batteryInstalled, installed) << toString(model);
    EXPECT_EQ(settledPhase() == PowerPhase::noBattery, !installed) << toString(model);
  }
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
