#include "control/helper_controller.hpp"

#include <gtest/gtest.h>

#include <fstream>

#include "platform/linux/sysfs_tree.hpp"
#include "platform/sandbox/simulated_battery_controls.hpp"

namespace quorel {
namespace {

using Writes = std::vector<std::string>;

class HelperControllerTest : public ::testing::Test {
 protected:
  void make(SimulatedBatteryOptions options = {}) {
    battery = std::make_unique<SimulatedBatteryControls>(clock, options);
    controller = std::make_unique<HelperController>(*battery, clock, dir.root(), "2.0.7");
    controller->start();
  }
  // Ticks as the helper's timer would, for `minutes` of the clock's time.
  void run(double minutes) {
    for (double t = 0; t < minutes * 60; t += HelperController::kTickPeriod.count()) {
      clock.advance(HelperController::kTickPeriod);
      controller->tick();
    }
  }
  std::int64_t capacity() { return battery->read().capacity_percent.value(); }

  ManualClock clock;
  testing::SysfsTree dir;
  std::unique_ptr<SimulatedBatteryControls> battery;
  std::unique_ptr<HelperController> controller;
};

TEST_F(HelperControllerTest, ArgumentsAreCheckedBeforeAnyWrite) {
  make();
  for (std::int64_t percent : {19, 101, -5, 0}) {
    auto error = controller->setChargeLimit(percent);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, QuorelHelperErrorCode::codeOutOfRange) << percent;
  }
  for (std::int64_t band : {-1, 51}) {
    EXPECT_EQ(controller->setSailingBand(band)->code, QuorelHelperErrorCode::codeOutOfRange);
  }
  EXPECT_EQ(controller->forceDischarge(true)->code, QuorelHelperErrorCode::codeOutOfRange)
      << "no ceiling to discharge to";
  EXPECT_EQ(battery->writes(), Writes{});
  EXPECT_FALSE(std::filesystem::exists(controller->stateFile()));
}

TEST_F(HelperControllerTest, DischargeStopsByItselfAtTheCeiling) {
  SimulatedBatteryOptions options;
  options.capacity_percent = 90;
  make(options);
  ASSERT_EQ(controller->setChargeLimit(80), std::nullopt);
  ASSERT_EQ(controller->forceDischarge(true), std::nullopt);
  EXPECT_TRUE(controller->state().forceDischargeActive);
  run(15);
  EXPECT_TRUE(controller->state().forceDischargeActive) << "at 0.5 %/min, ten points take 20 min";
  run(10);
  EXPECT_FALSE(controller->state().forceDischargeActive);
  EXPECT_EQ(battery->read().behaviour, ChargeBehaviour::automatic);
  EXPECT_FALSE(controller->state().lastDischargeAbortReason);
  EXPECT_GE(capacity(), 79);
  EXPECT_LE(capacity(), 80);
}

TEST_F(HelperControllerTest, DischargeEndingEarlySaysWhyAndWhen) {
  SimulatedBatteryOptions options;
  options.capacity_percent = 95;
  make(options);
  ASSERT_EQ(controller->setChargeLimit(80), std::nullopt);
  ASSERT_EQ(controller->forceDischarge(true), std::nullopt);
  run(2);
  battery->setAdapterConnected(false);
  const TimePoint unplugged = clock.now();
  run(0.5);
  const auto state = controller->state();
  EXPECT_FALSE(state.forceDischargeActive);
  EXPECT_EQ(state.lastDischargeAbortReason, "adapterDisconnected");
  ASSERT_TRUE(state.lastDischargeAbortAt);
  EXPECT_LE(secondsBetween(unplugged, *state.lastDischargeAbortAt), 15);
}

TEST_F(HelperControllerTest, TopUpChargesToFullThenRestoresTheSameCeiling) {
  SimulatedBatteryOptions options;
  options.capacity_percent = 79;
  make(options);
  ASSERT_EQ(controller->setChargeLimit(80), std::nullopt);
  run(5);
  EXPECT_EQ(capacity(), 80);
  ASSERT_EQ(controller->releaseLimitUntilFullThenRestore(), std::nullopt);
  EXPECT_TRUE(controller->state().topUpActive);
  EXPECT_EQ(controller->state().chargeLimit, 80) << "the ceiling to come back to";
  EXPECT_EQ(battery->read().thresholds, (ChargeThresholds{100, 95}));
  run(25);
  EXPECT_FALSE(controller->state().topUpActive);
  EXPECT_EQ(capacity(), 100);
  EXPECT_EQ(battery->read().thresholds, (ChargeThresholds{80, 75}));

  ASSERT_EQ(controller->releaseLimitUntilFullThenRestore(), std::nullopt);
  ASSERT_EQ(controller->cancelTopUp(), std::nullopt);
  EXPECT_FALSE(controller->state().topUpActive);
  EXPECT_EQ(battery->read().thresholds, (ChargeThresholds{80, 75}));
}

TEST_F(HelperControllerTest, FailuresCarryTheirCodes) {
  SimulatedBatteryOptions none;
  none.endThreshold = none.startThreshold = none.inhibitCharge = none.forceDischarge = false;
  make(none);
  EXPECT_EQ(controller->setChargeLimit(80)->code, QuorelHelperErrorCode::codeUnsupportedCapability);
  EXPECT_EQ(controller->releaseLimitUntilFullThenRestore()->code,
            QuorelHelperErrorCode::codeUnsupportedCapability);

  make();
  battery->failWrites(true);
  auto failed = controller->setChargeLimit(80);
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->code, QuorelHelperErrorCode::codeSMCWriteFailed);
  EXPECT_NE(failed->message.find("Input/output error"), std::string::npos) << failed->message;
  EXPECT_FALSE(controller->state().lastWriteVerified);

  battery->failWrites(false);
  std::filesystem::remove_all(dir.root());
  std::ofstream(dir.root()) << "a file where the directory should be";
  EXPECT_EQ(controller->setChargeLimit(80)->code, QuorelHelperErrorCode::codePersistenceFailed);
  std::filesystem::remove(dir.root());
}

TEST_F(HelperControllerTest, ResetAllPutsBackWhatWasFoundAndForgetsTheState) {
  SimulatedBatteryOptions options;
  options.end_percent = 95;
  options.start_percent = 40;
  options.capacity_percent = 90;
  make(options);
  ASSERT_EQ(controller->setChargeLimit(60), std::nullopt);
  ASSERT_EQ(controller->forceDischarge(true), std::nullopt);
  ASSERT_EQ(controller->setClamshellKeepAwake(true), std::nullopt);
  EXPECT_TRUE(controller->state().sleepDisabledByQuorel);

  ASSERT_EQ(controller->resetAll(), std::nullopt);
  EXPECT_EQ(battery->read().thresholds, (ChargeThresholds{95, 40}));
  EXPECT_EQ(battery->read().behaviour, ChargeBehaviour::automatic);
  EXPECT_FALSE(battery->keepingAwake());
  EXPECT_FALSE(std::filesystem::exists(controller->stateFile()));
  const auto state = controller->state();
  EXPECT_FALSE(state.forceDischargeActive);
  EXPECT_FALSE(state.sleepDisabledByQuorel);
  EXPECT_EQ(state.chargeLimit, 95);

  const auto writesAfterReset = battery->writes().size();
  run(10);
  EXPECT_EQ(battery->writes().size(), writesAfterReset);
}

TEST_F(HelperControllerTest, AStateFileThatMakesNoSenseIsNotApplied) {
  std::ofstream(dir.root() / HelperController::kStateFileName) << R"({"ceiling":5,"band":5})";
  make();
  run(5);
  EXPECT_EQ(battery->writes(), Writes{});
}

}  // namespace
}  // namespace quorel
