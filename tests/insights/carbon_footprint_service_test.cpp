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

TEST_F(CarbonFootprintStoreTest, AddingOnlyTheNewSamplesGivesWhatTheWholeDayGives) {
  // Each step stores samples and asks at a later now; a service that has followed every step
  // must price the day as one that reads it whole for the first time. Samples landing at the
  // last time already seen, or behind it, are not an append and need the whole day again.
  struct Step {
    std::vector<std::pair<double, double>> samples;  // offset, watts drawn from the battery
    double now;
  } steps[] = {
      {{{-3600, 20}, {-3570, 22}, {-3540, 18}}, -3540},
      {{{-3510, 30}, {-3480, 30}}, -3500},  // one of them still ahead of now
      {{}, -3480},
      {{{-3480, 50}, {-3450, 10}}, -3450},  // a second sample at the last time seen
      {{{-3000, 12}, {-2990, 12}}, -2990},  // after a gap the integration leaves out
      {{{-3200, 40}}, -2980},               // stored behind the last
      {{{-2960, 8}}, -2960},
  };
  for (std::size_t i = 0; i < std::size(steps); ++i) {
    for (const auto& [offset, watts] : steps[i].samples) sample(offset, {{"wattage", -watts}});
    const auto followed = service.todayCO2Grams(us, at(steps[i].now));
    CarbonFootprintService fresh{*db};
    const auto whole = fresh.todayCO2Grams(us, at(steps[i].now));
    ASSERT_TRUE(followed && whole) << "step " << i;
    EXPECT_NEAR(*followed, *whole, 1e-12) << "step " << i;
    EXPECT_GT(*whole, 0) << "step " << i;
  }
}

}  // namespace
}  // namespace quorel
