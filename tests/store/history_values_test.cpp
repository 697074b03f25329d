// The pure parts of the write path: the storage gate and the record texts.

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <optional>
#include <string>

#include "store/history_records.hpp"
#include "store/sample_quality_gate.hpp"

namespace quorel {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(QualityCheckedTest, ComponentBoundsAndTheWallFloor) {
  using Q = HistoricalValueQuality;
  using Rails = std::array<std::optional<double>, 5>;  // E-cores, P-cores, GPU, ANE, DRAM
  constexpr auto kNone = std::nullopt;
  struct Case {
    const char* name;
    Rails rails;
    bool componentsRejected = false;
    std::optional<double> systemTotal_W = {};
    std::optional<double> powerIn_W = {};
    std::optional<double> wall_W = {};
    Q wallQuality = Q::estimated;
  };
  const Case cases[] = {
      {"plausible", {1.5, 4, 2, 0, 0.8}},
      {"no component read at all", {}},
      {"E-cores at their ceiling", {30, 0, 0, 0, 0}},
      {"E-cores above", {30.01, 0, 0, 0, 0}, true},
      {"GPU at its ceiling", {0, 0, 90, 0, 0}},
      {"GPU above", {0, 0, 90.01, 0, 0}, true},
      {"a GPU at 91 W with nothing else read", {kNone, kNone, 91, kNone, kNone}, true},
      {"negative", {-0.01, 1, 1, 1, 1}, true},
      {"NaN", {1, kNaN, 1, 1, 1}, true},
      {"150 W in all", {30, 60, 60, 0, 0}},
      {"150.5 W in all, every rail within its ceiling", {30, 60, 60.5, 0, 0}, true},
      // Against a 5 W total 6.75 W is below the 10 W floor, so 10 W is the limit.
      {"12 W against a 5 W total", {2, 4, 3, 0, 3}, true, 5},
      {"9 W against a 5 W total", {2, 4, 3, 0, 0}, false, 5},
      {"a total below 1 W is not believed", {2, 40, 0, 0, 0}, false, 0.5},
      {"a total of 1 W is", {2, 40, 0, 0, 0}, true, 1.0},
      {"wall below the adapter input", {1, 1, 1, 0, 1}, false, {}, 30, 20, Q::rejected},
      {"wall equal to the adapter input", {1, 1, 1, 0, 1}, false, {}, 20, 20},
      {"wall below the components", {10, 12, 0, 0, 0}, false, {}, {}, 21, Q::rejected},
      {"wall at the components", {10, 12, 0, 0, 0}, false, {}, {}, 22},
      {"rejected components still bound the wall", {0, 0, 95, 0, 0}, true, {}, {}, 50, Q::rejected},
      {"NaN wall", {}, false, {}, {}, kNaN, Q::rejected},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    PowerSample s;
    s.ecpuW = c.rails[0], s.pcpuW = c.rails[1], s.gpuW = c.rails[2];
    s.aneW = c.rails[3], s.dramW = c.rails[4];
    s.componentQuality = Q::measured, s.wallEstimateQuality = Q::estimated;
    s.systemTotalW = c.systemTotal_W, s.powerInW = c.powerIn_W, s.wallPowerW = c.wall_W;
    PowerSample out = qualityChecked(s);
    PowerSample expected = s;
    if (c.componentsRejected) {
      expected.ecpuW = expected.pcpuW = expected.gpuW = expected.aneW = expected.dramW = {};
      expected.componentQuality = Q::rejected;
      expected.componentRejectionReason = "component aggregate failed storage validation";
    }
    // A rejected wall estimate keeps its figure: only the label changes.
    expected.wallEstimateQuality = c.wallQuality;
    EXPECT_EQ(out.wallPowerW.has_value(), c.wall_W.has_value());
    if (c.wall_W && !std::isnan(*c.wall_W)) {
      EXPECT_EQ(out.wallPowerW, c.wall_W);
    }
    out.wallPowerW = expected.wallPowerW = std::nullopt;  // a NaN equals nothing, itself included
    EXPECT_EQ(out, expected);
  }
}

}  // namespace
}  // namespace quorel
