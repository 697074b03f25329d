#include "insights/soc_residency.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <vector>

#include "store/store_test_fixture.hpp"

namespace quorel {
namespace {

PowerSample reading(double pct, std::optional<double> celsius, std::optional<double> seconds) {
  PowerSample s;
  s.batteryPct = pct;
  s.temperatureC = celsius;
  s.observedDurationS = seconds;
  return s;
}

std::size_t cell(std::size_t temperatureBand, std::size_t chargeBand) {
  return temperatureBand * SoCResidency::kChargeBands + chargeBand;
}

// Samples on both sides of the edges; whatever has no cell is kept apart, never dropped.
const std::vector<PowerSample> kSamples = {
    reading(80.0, 35.0, 60),        // exactly on both edges: the upper band of each
    reading(79.99, 34.99, 30),      // just under them
    reading(100.0, 45.0, 10),       // the top cell
    reading(0.0, -0.5, 20),         // the bottom cell
    reading(55, 24.5, 1000),        // counts 300 s at most
    reading(50, std::nullopt, 7),   // no temperature: observed, but in no cell
    reading(50, 30, std::nullopt),  // never observed: counts for nothing
    reading(50, 30, 0),
};

TEST(SoCResidencyTest, ObservedCellsSumToTheCollectedTimeWithEdgesGoingUp) {
  const auto r = observedResidency(kSamples);
  EXPECT_EQ(r.source, ResidencySource::observed);
  std::array<double, SoCResidency::kCells> expected{};
  expected[cell(2, 5)] = 60.0 / 3600;
  expected[cell(1, 4)] = 30.0 / 3600;
  expected[cell(3, 6)] = 10.0 / 3600;
  expected[cell(0, 0)] = 20.0 / 3600;
  expected[cell(0, 3)] = 300.0 / 3600;
  EXPECT_EQ(r.cellHours, expected);
  EXPECT_DOUBLE_EQ(r.unplacedHours, 7.0 / 3600);
  EXPECT_DOUBLE_EQ(r.totalHours(), (60 + 30 + 10 + 20 + 300 + 7) / 3600.0);
  EXPECT_DOUBLE_EQ(r.bandHours()[0], 320.0 / 3600);
}

TEST(SoCResidencyTest, TheGaugeHistogramWinsWhenTheBatteryKeepsOne) {
  std::vector<std::uint8_t> block(112, 0);
  block[4 * 8] = 5;      // cell 8: band 1
  block[4 * 27] = 0xFF;  // cell 27: band 3
  block[4 * 27 + 3] = 0xFF;
  const auto matrix = SoCResidencyMatrix::fromData(block);
  ASSERT_TRUE(matrix);
  const auto fromGauge = currentResidency(matrix, {{50, 30, 3600}});
  EXPECT_EQ(fromGauge.source, ResidencySource::gauge);
  EXPECT_EQ(fromGauge.bandHours(),
            (std::array<double, 4>{0, 5, 0, static_cast<double>(0xFF0000FFu)}));

  const auto observed = currentResidency(std::nullopt, {{50, 30, 3600}, {50, std::nullopt, 1}});
  EXPECT_EQ(toString(observed.source), "observed");
  EXPECT_EQ(observed.cellHours[cell(1, 3)], 1.0);
  EXPECT_EQ(SoCResidency::fromGauge(*SoCResidencyMatrix::fromData(std::vector<std::uint8_t>(112)))
                ->bandHours(),
            (std::array<double, 4>{}));
  EXPECT_FALSE(SoCResidencyMatrix::fromData(std::vector<std::uint8_t>(111)));
  EXPECT_FALSE(SoCResidency::fromGauge(SoCResidencyMatrix{{1, 2, 3}}))
      << "a histogram of another shape is not ours to read";
}

class ResidencyReadTest : public store_test::ReadsTest {};

TEST_F(ResidencyReadTest, TheStoresWholeDegreeTotalsFillTheSameCellsAsTheSamples) {
  // Rows that share a whole percent and degree, apart and in a run, fold into one total.
  auto samples = kSamples;
  for (double pct : {55.2, 55.9, 12.0, 55.1}) samples.push_back(reading(pct, 24.9, 30));
  double offset = 0;
  for (const auto& s : samples) {
    store_test::Values values = {{"battery_pct", s.batteryPct}};
    if (s.temperatureC) values.emplace_back("temperature_c", *s.temperatureC);
    if (s.observedDurationS) values.emplace_back("observed_duration_s", *s.observedDurationS);
    sample(offset += 60, values);
  }
  sample(-60, {{"battery_pct", 50.0}, {"temperature_c", 30.0}, {"observed_duration_s", 99.0}});

  const auto rows = db->queryResidencyObservations(store_test::at(0), store_test::at(1e6));
  ASSERT_TRUE(rows) << rows.error().message;
  EXPECT_EQ(observedResidency(*rows), observedResidency(samples))
      << "-0.5 °C must floor to -1, not truncate to 0; 79.99 % must stay under 80";
  EXPECT_EQ(rows->front(), (ResidencyObservation{0, -1, 20}));
  EXPECT_EQ(std::count_if(rows->begin(), rows->end(),
                          [](const ResidencyObservation& o) { return o.chargePct == 55; }),
            1);

  sql().exec("DROP TABLE power_samples");
  EXPECT_FALSE(db->queryResidencyObservations(store_test::at(0), store_test::at(1)));
}

}  // namespace
}  // namespace quorel
