#include "core/component_power.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <string>

namespace quorel {
namespace {

ComponentPower reading(double ecpu, double pcpu, double gpu, double ane, double dram,
                       bool cpuAndMemory = true) {
  return ComponentPower{ecpu, pcpu, gpu, ane, dram, cpuAndMemory};
}

const std::string kUnavailable = "IOReport component telemetry unavailable";
const std::string kNonFinite = "non-finite or negative component rail";
const std::string kBounds = "component aggregate exceeds physical rail bounds";
const std::string kWholeSystem = "component aggregate exceeds whole-system consumption";
const std::string kStalled = "CPU and DRAM energy counters stalled";

void expectRejected(const ComponentPowerValidation& v, const std::string& reason) {
  EXPECT_EQ(v.value, std::nullopt);
  EXPECT_EQ(v.quality, HistoricalValueQuality::rejected);
  EXPECT_EQ(v.rejectionReason, reason);
}

TEST(ComponentPowerValidatorTest, NothingReadIsUnavailable) {
  const auto v = ComponentPowerValidator::validate(std::nullopt, 12.0);
  EXPECT_EQ(v.value, std::nullopt);
  EXPECT_EQ(v.quality, HistoricalValueQuality::unavailable);
  EXPECT_EQ(v.rejectionReason, kUnavailable);
}

TEST(ComponentPowerValidatorTest, PlausibleReadingIsMeasured) {
  const auto c = reading(1.2, 4.0, 6.0, 0.5, 4.5);
  const auto v = ComponentPowerValidator::validate(c, 18.0);
  EXPECT_EQ(v.value, c);
  EXPECT_EQ(v.quality, HistoricalValueQuality::measured);
  EXPECT_EQ(v.rejectionReason, std::nullopt);
}

TEST(ComponentPowerValidatorTest, NonFiniteOrNegativeRailIsRejected) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  expectRejected(ComponentPowerValidator::validate(reading(nan, 1, 1, 1, 1), std::nullopt),
                 kNonFinite);
  expectRejected(ComponentPowerValidator::validate(reading(1, inf, 1, 1, 1), std::nullopt),
                 kNonFinite);
  expectRejected(ComponentPowerValidator::validate(reading(1, 1, 1, 1, -0.01), std::nullopt),
                 kNonFinite);
  // A stalled reading with a negative GPU figure is rejected, not kept: the rail rule comes first.
  expectRejected(ComponentPowerValidator::validate(reading(0, 0, -1, 0, 0, false), 5.0),
                 kNonFinite);
  // Zero everywhere is a legitimate idle reading.
  EXPECT_EQ(ComponentPowerValidator::validate(reading(0, 0, 0, 0, 0), std::nullopt).quality,
            HistoricalValueQuality::measured);
}

TEST(ComponentPowerValidatorTest, EachRailHasItsOwnPhysicalBound) {
  // At the bound passes, just above it fails.
  const ComponentPower atBounds[] = {reading(30, 0, 0, 0, 0), reading(0, 60, 0, 0, 0),
                                     reading(0, 0, 90, 0, 0), reading(0, 0, 0, 20, 0),
                                     reading(0, 0, 0, 0, 35)};
  const ComponentPower overBounds[] = {reading(30.1, 0, 0, 0, 0), reading(0, 60.1, 0, 0, 0),
                                       reading(0, 0, 90.1, 0, 0), reading(0, 0, 0, 20.1, 0),
                                       reading(0, 0, 0, 0, 35.1)};
  for (const auto& c : atBounds) {
    EXPECT_EQ(ComponentPowerValidator::validate(c, std::nullopt).quality,
              HistoricalValueQuality::measured);
  }
  for (const auto& c : overBounds) {
    expectRejected(ComponentPowerValidator::validate(c, std::nullopt), kBounds);
  }
}

TEST(ComponentPowerValidatorTest, AggregateBoundIsInclusiveAt150Watts) {
  // Each rail within its bound, 150 W exactly in total.
  EXPECT_EQ(ComponentPowerValidator::validate(reading(25, 40, 60, 10, 15), std::nullopt).quality,
            HistoricalValueQuality::measured);
  expectRejected(ComponentPowerValidator::validate(reading(25, 40, 60, 10, 15.5), std::nullopt),
                 kBounds);
}

TEST(ComponentPowerValidatorTest, WholeSystemRuleHasAFloorAndAMargin) {
  // 9 W against 2 W consumed: under the 10 W floor.
  EXPECT_EQ(ComponentPowerValidator::validate(reading(2, 2, 2, 1, 2), 2.0).quality,
            HistoricalValueQuality::measured);
  // 11 W against 2 W: over the floor.
  expectRejected(ComponentPowerValidator::validate(reading(2, 2, 3, 1, 3), 2.0), kWholeSystem);
  // Above the floor the allowance is 1.35 times consumption: 27 W against 20 W consumed.
  EXPECT_EQ(ComponentPowerValidator::validate(reading(3, 10, 10, 1, 3), 20.0).quality,
            HistoricalValueQuality::measured);
  expectRejected(ComponentPowerValidator::validate(reading(3, 10, 10, 1, 3.5), 20.0), kWholeSystem);
}

TEST(ComponentPowerValidatorTest, WholeSystemRuleSkipsFiguresTooSmallOrUnusable) {
  const auto big = reading(10, 20, 30, 5, 10);  // 75 W
  EXPECT_EQ(ComponentPowerValidator::validate(big, 0.5).quality, HistoricalValueQuality::measured);
  EXPECT_EQ(ComponentPowerValidator::validate(big, std::nullopt).quality,
            HistoricalValueQuality::measured);
  EXPECT_EQ(
      ComponentPowerValidator::validate(big, std::numeric_limits<double>::quiet_NaN()).quality,
      HistoricalValueQuality::measured);
  EXPECT_EQ(ComponentPowerValidator::validate(big, std::numeric_limits<double>::infinity()).quality,
            HistoricalValueQuality::measured);
  // 1.0 W is the first figure compared against: 75 W is far beyond the 10 W floor.
  expectRejected(ComponentPowerValidator::validate(big, 1.0), kWholeSystem);
}

TEST(ComponentPowerValidatorTest, StalledCountersKeepTheValueAsUnavailable) {
  const auto c = reading(0, 0, 6, 0.5, 0, false);
  const auto v = ComponentPowerValidator::validate(c, 18.0);
  EXPECT_EQ(v.value, c);
  EXPECT_EQ(v.quality, HistoricalValueQuality::unavailable);
  EXPECT_EQ(v.rejectionReason, kStalled);
  // Plausibility still applies to a stalled reading.
  expectRejected(ComponentPowerValidator::validate(reading(0, 0, 95, 0, 0, false), 18.0), kBounds);
}

TEST(HistoricalValueQualityTest, StoredTextsRoundTrip) {
  const char* texts[] = {"measured", "estimated", "inferred", "legacy", "rejected", "unavailable"};
  for (int tag = 0; tag < 6; ++tag) {
    const auto q = static_cast<HistoricalValueQuality>(tag);
    EXPECT_EQ(toString(q), texts[tag]);
    EXPECT_EQ(historicalValueQualityFromString(texts[tag]), q);
  }
  EXPECT_EQ(historicalValueQualityFromString("Measured"), std::nullopt);
}

}  // namespace
}  // namespace quorel
