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

TEST(ComponentPowerValidatorTest, RulesApplyInOrderAndEveryBoundIsInclusive) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  const auto big = reading(10, 20, 30, 5, 10);  // 75 W
  struct Case {
    const char* name;
    ComponentPower reading;
    std::optional<double> systemConsumption_W;
    std::optional<std::string> rejection;  // none: measured and kept
  };
  const Case cases[] = {
      {"idle zeros are legitimate", reading(0, 0, 0, 0, 0), std::nullopt, std::nullopt},
      {"plausible", reading(1.2, 4.0, 6.0, 0.5, 4.5), 18.0, std::nullopt},
      {"NaN rail", reading(nan, 1, 1, 1, 1), std::nullopt, kNonFinite},
      {"infinite rail", reading(1, inf, 1, 1, 1), std::nullopt, kNonFinite},
      {"negative rail", reading(1, 1, 1, 1, -0.01), std::nullopt, kNonFinite},
      {"the rail rule comes before the stall", reading(0, 0, -1, 0, 0, false), 5.0, kNonFinite},
      {"E-cores at 30 W", reading(30, 0, 0, 0, 0), std::nullopt, std::nullopt},
      {"E-cores over 30 W", reading(30.1, 0, 0, 0, 0), std::nullopt, kBounds},
      {"P-cores at 60 W", reading(0, 60, 0, 0, 0), std::nullopt, std::nullopt},
      {"P-cores over 60 W", reading(0, 60.1, 0, 0, 0), std::nullopt, kBounds},
      {"GPU at 90 W", reading(0, 0, 90, 0, 0), std::nullopt, std::nullopt},
      {"GPU over 90 W", reading(0, 0, 90.1, 0, 0), std::nullopt, kBounds},
      {"ANE at 20 W", reading(0, 0, 0, 20, 0), std::nullopt, std::nullopt},
      {"ANE over 20 W", reading(0, 0, 0, 20.1, 0), std::nullopt, kBounds},
      {"DRAM at 35 W", reading(0, 0, 0, 0, 35), std::nullopt, std::nullopt},
      {"DRAM over 35 W", reading(0, 0, 0, 0, 35.1), std::nullopt, kBounds},
      {"150 W in all, each rail within bounds", reading(25, 40, 60, 10, 15), std::nullopt,
       std::nullopt},
      {"150.5 W in all", reading(25, 40, 60, 10, 15.5), std::nullopt, kBounds},
      {"9 W against 2 W: under the 10 W floor", reading(2, 2, 2, 1, 2), 2.0, std::nullopt},
      {"11 W against 2 W: over the floor", reading(2, 2, 3, 1, 3), 2.0, kWholeSystem},
      {"27 W against 20 W: within 1.35 times", reading(3, 10, 10, 1, 3), 20.0, std::nullopt},
      {"27.5 W against 20 W", reading(3, 10, 10, 1, 3.5), 20.0, kWholeSystem},
      {"consumption below 1 W is not believed", big, 0.5, std::nullopt},
      {"no consumption figure", big, std::nullopt, std::nullopt},
      {"NaN consumption", big, nan, std::nullopt},
      {"infinite consumption", big, inf, std::nullopt},
      {"1 W is the first figure compared against", big, 1.0, kWholeSystem},
      {"plausibility applies to a stalled reading", reading(0, 0, 95, 0, 0, false), 18.0, kBounds},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto v = ComponentPowerValidator::validate(c.reading, c.systemConsumption_W);
    if (c.rejection) {
      EXPECT_EQ(v.value, std::nullopt);
      EXPECT_EQ(v.quality, HistoricalValueQuality::rejected);
    } else {
      EXPECT_EQ(v.value, c.reading);
      EXPECT_EQ(v.quality, HistoricalValueQuality::measured);
    }
    EXPECT_EQ(v.rejectionReason, c.rejection);
  }
}

TEST(ComponentPowerValidatorTest, NothingReadOrStalledCountersAreUnavailable) {
  auto v = ComponentPowerValidator::validate(std::nullopt, 12.0);
  EXPECT_EQ(v.value, std::nullopt);
  EXPECT_EQ(v.quality, HistoricalValueQuality::unavailable);
  EXPECT_EQ(v.rejectionReason, kUnavailable);

  // A stalled reading that passes the rules keeps its value for the rails that still count.
  const auto stalled = reading(0, 0, 6, 0.5, 0, false);
  v = ComponentPowerValidator::validate(stalled, 18.0);
  EXPECT_EQ(v.value, stalled);
  EXPECT_EQ(v.quality, HistoricalValueQuality::unavailable);
  EXPECT_EQ(v.rejectionReason, kStalled);
}

}  // namespace
}  // namespace quorel
