// The day's energy from stored samples, priced at a region's intensity, integrated once per
// sample set.

#include "insights/carbon_footprint_service.hpp"

#include <gtest/gtest.h>

#include "store/store_test_fixture.hpp"

namespace quorel {
namespace {

using store_test::at;

PowerSample reading(double offset, double wattage, std::optional<double> powerInW = {},
                    bool external = false) {
  PowerSample s;
  s.timestamp = at(offset);
  s.wattage = wattage;
  s.powerInW = powerInW;
  s.externalConnected = external || powerInW.has_value();
  return s;
}

TEST(CarbonFootprint, IntegratesWhatTheMachineDrewAndLeavesUnknownStretchesOut) {
  struct Case {
    std::vector<PowerSample> samples;
    double expected_Wh;
  } cases[] = {
      {{}, 0},
      // 15 W on the adapter beyond the 5 W going into the battery, for two minutes.
      {{reading(0, 5, 20), reading(60, 5, 20), reading(120, 5, 20)}, 0.5},
      // Discharging draws its own power; a battery being charged with no reading draws none.
      {{reading(0, -12), reading(300, -12)}, 1},
      {{reading(0, 3), reading(60, 3)}, 0},
      {{reading(0, 2, 1), reading(60, 2, 1)}, 0},
      {{reading(0, -12), reading(301, -12)}, 0},
      {{reading(0, -10), reading(60, 0, std::nullopt, true), reading(120, -10)}, 0},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_NEAR(CarbonFootprintService::integratedKWh(cases[i].samples) * 1000,
                cases[i].expected_Wh, 1e-9)
        << "case " << i;
  }
}

class CarbonFootprintStoreTest : public store_test::StoreFileTest {
 protected:
  CarbonFootprintService service{*db};
  const CarbonRegionIntensity us = *carbonRegionNamed("US Average");
  const CarbonRegionIntensity uk = *carbonRegionNamed("UK Average");
};

TEST_F(CarbonFootprintStoreTest, PricesTodaysSamplesAndIntegratesAnUnchangedDayOnce) {
  EXPECT_EQ(service.todayCO2Grams(us, at(0)).value(), 0);
  sample(-8 * 3600 - 1, {{"wattage", -500.0}});  // the evening before: not today
  sample(-60, {{"wattage", -30.0}});
  sample(0, {{"wattage", -30.0}});  // 0.5 Wh
  sample(600, {{"wattage", -30.0}});

  EXPECT_DOUBLE_EQ(service.todayCO2Grams(us, at(0)).value(), 0.5 / 1000 * 370);
  EXPECT_EQ(service.integrations(), 2u);
  EXPECT_DOUBLE_EQ(service.todayCO2Grams(uk, at(0)).value(), 0.5 / 1000 * 180);
  EXPECT_EQ(service.integrations(), 2u) << "same samples, another region: no new integration";

  // A later now reaches the sample after the gap, which adds nothing but changes the set.
  EXPECT_DOUBLE_EQ(service.todayCO2Grams(us, at(600)).value(), 0.5 / 1000 * 370);
  EXPECT_EQ(service.integrations(), 3u);
  sample(660, {{"wattage", -30.0}, {"power_in_w", 0.0}});
  EXPECT_DOUBLE_EQ(service.todayCO2Grams(us, at(900)).value(), 1.0 / 1000 * 370);
  EXPECT_EQ(service.integrations(), 4u);

  sql().exec("DROP TABLE power_samples");
  EXPECT_FALSE(service.todayCO2Grams(us, at(900)));
  EXPECT_EQ(service.integrations(), 4u);
  EXPECT_EQ(carbonRegionNamed("Mars"), std::nullopt);
}

}  // namespace
}  // namespace quorel
