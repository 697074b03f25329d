// The pure parts of the write path: the storage gate, the local day and the record texts.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>

#include "store/history_records.hpp"
#include "store/local_day.hpp"
#include "store/sample_quality_gate.hpp"
#include "support/zone_guard.hpp"

namespace quorel {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

PowerSample measured(double ecpu, double pcpu, double gpu, double ane, double dram) {
  PowerSample s;
  s.ecpuW = ecpu;
  s.pcpuW = pcpu;
  s.gpuW = gpu;
  s.aneW = ane;
  s.dramW = dram;
  s.componentQuality = HistoricalValueQuality::measured;
  s.wallEstimateQuality = HistoricalValueQuality::estimated;
  return s;
}

bool rejected(const PowerSample& s) {
  return s.componentQuality == HistoricalValueQuality::rejected && !s.ecpuW && !s.pcpuW &&
         !s.gpuW && !s.aneW && !s.dramW &&
         s.componentRejectionReason == "component aggregate failed storage validation";
}

TEST(QualityCheckedTest, PlausibleComponentsPassUnchanged) {
  const PowerSample s = measured(1.5, 4, 2, 0, 0.8);
  EXPECT_EQ(qualityChecked(s), s);
  PowerSample none;  // no component read at all
  none.componentQuality = HistoricalValueQuality::unavailable;
  EXPECT_EQ(qualityChecked(none), none);
}

TEST(QualityCheckedTest, EachRailHasItsOwnCeilingAndAValueAtTheCeilingPasses) {
  struct Case {
    std::optional<double> PowerSample::*field;
    double limit;
  };
  for (const Case c :
       {Case{&PowerSample::ecpuW, 30}, Case{&PowerSample::pcpuW, 60}, Case{&PowerSample::gpuW, 90},
        Case{&PowerSample::aneW, 20}, Case{&PowerSample::dramW, 35}}) {
    PowerSample s = measured(0, 0, 0, 0, 0);
    s.*c.field = c.limit;
    EXPECT_FALSE(rejected(qualityChecked(s))) << c.limit;
    s.*c.field = c.limit + 0.01;
    EXPECT_TRUE(rejected(qualityChecked(s))) << c.limit;
  }
  // The example of a GPU at 91 W with nothing else wrong.
  PowerSample gpu;
  gpu.gpuW = 91;
  gpu.componentQuality = HistoricalValueQuality::measured;
  EXPECT_TRUE(rejected(qualityChecked(gpu)));
}

TEST(QualityCheckedTest, NegativeAndNonFiniteComponentsFail) {
  EXPECT_TRUE(rejected(qualityChecked(measured(-0.01, 1, 1, 1, 1))));
  EXPECT_TRUE(rejected(qualityChecked(measured(1, kNaN, 1, 1, 1))));
  EXPECT_TRUE(rejected(qualityChecked(measured(1, 1, kInf, 1, 1))));
  PowerSample onlyDram;
  onlyDram.dramW = -1;
  EXPECT_TRUE(rejected(qualityChecked(onlyDram)));
}

TEST(QualityCheckedTest, AggregateAbove150FailsEvenWhenEveryRailIsWithinItsCeiling) {
  EXPECT_FALSE(rejected(qualityChecked(measured(30, 60, 60, 0, 0))));
  EXPECT_TRUE(rejected(qualityChecked(measured(30, 60, 60.5, 0, 0))));
}

TEST(QualityCheckedTest, SystemTotalBoundsTheComponents) {
  // 5 W total: 6.75 is below the 10 W floor, so 10 W is the limit.
  PowerSample s = measured(2, 4, 3, 0, 3);  // 12 W
  s.systemTotalW = 5;
  EXPECT_TRUE(rejected(qualityChecked(s)));
  s = measured(2, 4, 3, 0, 0);  // 9 W
  s.systemTotalW = 5;
  EXPECT_FALSE(rejected(qualityChecked(s)));

  // 20 W total allows 27 W of components.
  s = measured(10, 17, 0, 0, 0);
  s.systemTotalW = 20;
  EXPECT_FALSE(rejected(qualityChecked(s)));
  s.pcpuW = 17.5;
  EXPECT_TRUE(rejected(qualityChecked(s)));

  // Below 1 W the total is not believed at all.
  s = measured(2, 40, 0, 0, 0);
  s.systemTotalW = 0.5;
  EXPECT_FALSE(rejected(qualityChecked(s)));
  s.systemTotalW = 1.0;
  EXPECT_TRUE(rejected(qualityChecked(s)));
}

TEST(QualityCheckedTest, WallEstimateBelowWhatCameInIsLabelledRejectedButKept) {
  PowerSample s = measured(1, 1, 1, 0, 1);
  s.wallPowerW = 20;
  s.powerInW = 30;
  PowerSample out = qualityChecked(s);
  EXPECT_EQ(out.wallEstimateQuality, HistoricalValueQuality::rejected);
  EXPECT_EQ(out.wallPowerW, 20);
  EXPECT_EQ(out.componentQuality, HistoricalValueQuality::measured);

  s.powerInW = 20;  // equal is plausible
  EXPECT_EQ(qualityChecked(s).wallEstimateQuality, HistoricalValueQuality::estimated);

  // Without an adapter figure the components are the floor.
  s = measured(10, 12, 0, 0, 0);
  s.wallPowerW = 21;
  EXPECT_EQ(qualityChecked(s).wallEstimateQuality, HistoricalValueQuality::rejected);
  s.wallPowerW = 22;
  EXPECT_EQ(qualityChecked(s).wallEstimateQuality, HistoricalValueQuality::estimated);

  // The components' sum still counts after they were rejected.
  s = measured(0, 0, 95, 0, 0);
  s.wallPowerW = 50;
  out = qualityChecked(s);
  EXPECT_TRUE(rejected(out));
  EXPECT_EQ(out.wallEstimateQuality, HistoricalValueQuality::rejected);

  s = PowerSample{};
  s.wallEstimateQuality = HistoricalValueQuality::estimated;
  s.wallPowerW = kNaN;
  EXPECT_EQ(qualityChecked(s).wallEstimateQuality, HistoricalValueQuality::rejected);
  s.wallPowerW = std::nullopt;
  EXPECT_EQ(qualityChecked(s).wallEstimateQuality, HistoricalValueQuality::estimated);
}

TEST(SessionRecordTest, DurationTextTruncatesToWholeMinutes) {
  SessionRecord r;
  r.startTime = fromUnixSeconds(1'800'000'000);
  const auto after = [&](double seconds) {
    r.endTime = fromUnixSeconds(1'800'000'000 + seconds);
    return r.durationText();
  };
  EXPECT_EQ(after(0), "0m");
  EXPECT_EQ(after(59), "0m");
  EXPECT_EQ(after(3599), "59m");
  EXPECT_EQ(after(3600), "1h 0m");
  EXPECT_EQ(after(3 * 3600 + 7 * 60 + 59), "3h 7m");
  EXPECT_EQ(after(-120), "0m");
}

TEST(CollectionIntervalStatusTest, TextsRoundTripAndUnknownTextDecodesToNothing) {
  for (auto status : {CollectionIntervalStatus::collected, CollectionIntervalStatus::sleep,
                      CollectionIntervalStatus::missing, CollectionIntervalStatus::rejected}) {
    EXPECT_EQ(collectionIntervalStatusFromString(toString(status)), status);
  }
  EXPECT_EQ(toString(CollectionIntervalStatus::sleep), "sleep");
  EXPECT_EQ(collectionIntervalStatusFromString("Sleep"), std::nullopt);
}

using testing::ZoneGuard;

TEST(DayIdentityTest, DaysAreLocalAndFollowAChangeOfZone) {
  // 2026-03-01T20:00:00Z
  const TimePoint evening = fromUnixSeconds(1'772'395'200);
  ZoneGuard zone("UTC0");
  EXPECT_EQ(dayIdentity(evening), (DayIdentity{"2026-03-01", 1'772'323'200}));
  // Ten hours east it is already the next morning, and that day began at 14:00 UTC.
  zone.set("XST-10");
  EXPECT_EQ(dayIdentity(evening), (DayIdentity{"2026-03-02", 1'772'323'200 + 14 * 3600}));
  // Five hours west, the same evening is still the first.
  zone.set("YST5");
  EXPECT_EQ(dayIdentity(evening), (DayIdentity{"2026-03-01", 1'772'323'200 + 5 * 3600}));
}

TEST(DayIdentityTest, StartOfADayWithADaylightSavingChangeIsItsLocalMidnight) {
  ZoneGuard zone("EST5EDT,M3.2.0,M11.1.0");
  // 2026-03-08 is the change to summer time; at 23:00 local (EDT) it is 03:00Z next day.
  const DayIdentity day = dayIdentity(fromUnixSeconds(1'773'025'200));
  EXPECT_EQ(day.key, "2026-03-08");
  EXPECT_EQ(day.start, 1'772'946'000);  // 05:00Z, midnight EST
}

}  // namespace
}  // namespace quorel
