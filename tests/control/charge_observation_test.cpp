#include <gtest/gtest.h>

#include "control/charge_gate_reader.hpp"
#include "control/charge_limit_inferrer.hpp"
#include "control/charging_reason_mapper.hpp"

namespace quorel {
namespace {

using Status = BatteryChargeStatus;
constexpr auto kPaused = ChargeGateState::paused;
constexpr auto kCharging = ChargeGateState::charging;
constexpr auto kUnknown = ChargeGateState::unknown;

BatteryChargeReading battery(std::optional<Status> status, std::optional<ChargeBehaviour> behaviour,
                             std::optional<bool> external, std::optional<std::int64_t> capacity,
                             std::optional<std::int64_t> end = std::nullopt,
                             std::optional<std::int64_t> start = std::nullopt) {
  BatteryChargeReading r;
  r.supply = "BAT0";
  r.status = status;
  r.behaviour = behaviour;
  r.externalConnected = external;
  r.capacity_percent = capacity;
  r.endThreshold_percent = end;
  r.startThreshold_percent = start;
  return r;
}

TEST(ChargeGateReaderTest, ReadsTheGateFromBehaviourThenStatus) {
  using B = ChargeBehaviour;
  struct Case {
    const char* what;
    BatteryChargeReading reading;
    ChargeGateState expected;
  };
  const Case cases[] = {
      {"inhibit beats a charging status", battery(Status::charging, B::inhibitCharge, true, 50),
       kPaused},
      {"charging", battery(Status::charging, B::automatic, true, 50), kCharging},
      {"full is an open gate", battery(Status::full, std::nullopt, true, 100), kCharging},
      {"held at the threshold", battery(Status::notCharging, B::automatic, true, 80, 80), kPaused},
      {"held below any threshold", battery(Status::notCharging, std::nullopt, true, 55), kPaused},
      {"not charging off the adapter", battery(Status::notCharging, B::automatic, false, 55),
       kUnknown},
      {"discharging, kernel says auto", battery(Status::discharging, B::automatic, false, 40),
       kCharging},
      {"discharging, no behaviour", battery(Status::discharging, std::nullopt, false, 40),
       kUnknown},
      {"unreadable status", battery(std::nullopt, std::nullopt, true, 40), kUnknown},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ChargeGateReader::state(c.reading), c.expected) << c.what;
  }
  EXPECT_EQ(ChargeGateReader::state(std::nullopt), ChargeGateState::unsupported);
}

TEST(ChargeLimitInferrerTest, ThresholdAnswersBeforeAnyPlateau) {
  ChargeLimitInferrer inferrer;
  auto held = battery(Status::notCharging, ChargeBehaviour::automatic, true, 60, 60, 55);
  EXPECT_EQ(inferrer.update(held, kPaused), (InferredLimit{60, ChargeLimitSource::threshold}));
  held.endThreshold_percent = 100;  // no ceiling: a plateau is still needed
  EXPECT_EQ(inferrer.update(held, kPaused), InferredLimit{});
}

TEST(ChargeLimitInferrerTest, RecognisesAPlateauOnlyAfterSixPausedReadings) {
  ChargeLimitInferrer inferrer;
  const auto at = [](std::int64_t percent) {
    return battery(Status::notCharging, std::nullopt, true, percent);
  };
  for (int i = 0; i < 5; ++i) EXPECT_EQ(inferrer.update(at(80), kPaused), InferredLimit{});
  EXPECT_EQ(inferrer.update(at(81), kPaused), (InferredLimit{80, ChargeLimitSource::plateau}));

  // Readings off the adapter or while charging add nothing, and the limit stands.
  inferrer.update(battery(Status::notCharging, std::nullopt, false, 10), kPaused);
  inferrer.update(battery(Status::charging, std::nullopt, true, 10), kPaused);
  EXPECT_EQ(inferrer.samples(), 6u);
  EXPECT_EQ(inferrer.limit().percent, 80);

  // Leaving the paused state forgets the plateau: it must be seen whole again.
  EXPECT_EQ(inferrer.update(at(80), kCharging), InferredLimit{});
  EXPECT_EQ(inferrer.samples(), 0u);
  for (int i = 0; i < 5; ++i) inferrer.update(at(80), kPaused);
  EXPECT_EQ(inferrer.limit(), InferredLimit{});

  // The window keeps the last twelve, so an old plateau is outvoted by a new one.
  for (int i = 0; i < 12; ++i) inferrer.update(at(60), kPaused);
  EXPECT_EQ(inferrer.samples(), ChargeLimitInferrer::kWindowMax);
  EXPECT_EQ(inferrer.limit().percent, 60);
}

TEST(ChargeLimitInferrerTest, MediansSnapOnlyNearAFirmwareStep) {
  EXPECT_EQ(ChargeLimitInferrer::median({80, 81, 90}), 81.0);
  EXPECT_EQ(ChargeLimitInferrer::median({80, 85, 79, 86}), 82.5);
  EXPECT_EQ(ChargeLimitInferrer::snapToBucket(82.5), std::nullopt);
  EXPECT_EQ(ChargeLimitInferrer::snapToBucket(79.0), 80);
  EXPECT_EQ(ChargeLimitInferrer::snapToBucket(61.0), 60);
  EXPECT_EQ(ChargeLimitInferrer::snapToBucket(100.0), std::nullopt);
}

TEST(ChargingReasonMapperTest, NamesWhyTheBatteryIsNotCharging) {
  using B = ChargeBehaviour;
  struct Case {
    BatteryChargeReading reading;
    std::optional<std::string> expected;
  };
  auto hot = battery(Status::notCharging, std::nullopt, true, 40);
  hot.health = "Overheat";
  const Case cases[] = {
      {battery(Status::notCharging, B::forceDischarge, true, 50),
       "Discharging on purpose (force-discharge)"},
      {battery(Status::charging, B::inhibitCharge, true, 50),
       "Charging inhibited (inhibit-charge)"},
      {battery(Status::notCharging, B::automatic, true, 80, 80, 75), "Battery at charge limit"},
      {battery(Status::notCharging, B::automatic, true, 77, 80, 75), "Charging resumes below 75 %"},
      {battery(Status::notCharging, B::automatic, true, 70, 80, 75), "Charging paused"},
      {battery(Status::notCharging, std::nullopt, true, 100, 100), "Charging paused"},
      {hot, "Battery temperature out of range"},
      {battery(Status::charging, B::automatic, true, 50, 80), std::nullopt},
      {battery(Status::discharging, std::nullopt, false, 50, 40), std::nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ChargingReasonMapper::notChargingReason(c.reading), c.expected)
        << c.expected.value_or("(none)");
  }
}

TEST(ChargingReasonMapperTest, JoinsEverySlowChargingReason) {
  auto r = battery(Status::charging, ChargeBehaviour::automatic, true, 50);
  EXPECT_EQ(ChargingReasonMapper::slowChargingReason(r), std::nullopt);
  r.health = "Cold";
  r.chargeType = "Trickle";
  EXPECT_EQ(ChargingReasonMapper::slowChargingReason(r),
            "Battery temperature out of range; Trickle charging");
  auto weak = battery(Status::discharging, std::nullopt, true, 50);
  EXPECT_EQ(ChargingReasonMapper::slowChargingReason(weak),
            "Adapter supplies less than the system draws");
  weak.behaviour = ChargeBehaviour::forceDischarge;
  EXPECT_EQ(ChargingReasonMapper::slowChargingReason(weak), std::nullopt);
}

TEST(SystemHealthTest, UsesOnePairNeverAMixAndCapsAtFull) {
  BatteryChargeReading r;
  EXPECT_EQ(systemHealthPercent(r), std::nullopt);
  r.energyFull_uWh = 43'500'000;
  r.chargeFullDesign_uAh = 5'000'000;
  EXPECT_EQ(systemHealthPercent(r), std::nullopt);
  r.energyFullDesign_uWh = 50'000'000;
  EXPECT_EQ(systemHealthPercent(r), 87);
  r.energyFullDesign_uWh = 0;
  r.chargeFull_uAh = 4'975'000;
  EXPECT_EQ(systemHealthPercent(r), 100);  // 99.5 rounds up
  r.chargeFull_uAh = 5'400'000;
  EXPECT_EQ(systemHealthPercent(r), 100);
}

}  // namespace
}  // namespace quorel
