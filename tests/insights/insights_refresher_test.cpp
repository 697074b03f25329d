// The refresher's schedules on a manual clock, with queues that are never started: carbon every
// five minutes, the grade hourly, the history written once per local day.

#include "insights/insights_refresher.hpp"

#include <gtest/gtest.h>

#include "core/memory_preference_store.hpp"
#include "store/store_test_fixture.hpp"

namespace quorel {
namespace {

using store_test::at;
using store_test::kDay;

class InsightsRefresherTest : public store_test::StoreFileTest {
 protected:
  InsightsRefresherTest() {
    refresher.setOnChange([this] { ++changes; });
  }

  // Runs both queues until neither has anything ready.
  void pump() {
    while (owner.runPending() + work.runPending() > 0) {
    }
  }

  // A minute of a 30 W discharge ending `offset` seconds from the start: 0.5 Wh.
  void drawHalfAWattHour(double offset) {
    sample(offset - 60, {{"wattage", -30.0}});
    sample(offset, {{"wattage", -30.0}});
  }

  SerialQueue owner{"test.owner", clock};
  SerialQueue work{"test.work", clock};
  MemoryPreferenceStore preferences;
  CarbonFootprintService carbon{*db};
  HabitScoringService habits{*db, clock};
  HabitGradeHistoryStore history{preferences};
  InsightsRefresher refresher{carbon, habits, history, owner, work, clock};
  int changes = 0;
  const CarbonRegionIntensity us = *carbonRegionNamed("US Average");
  const CarbonRegionIntensity uk = *carbonRegionNamed("UK Average");
};

TEST_F(InsightsRefresherTest, CarbonFollowsItsFiveMinuteScheduleAndTheRegion) {
  drawHalfAWattHour(0);
  refresher.start();
  pump();
  EXPECT_FALSE(refresher.carbonGrams()) << "no region, no figure";

  refresher.setRegion(us);
  pump();
  ASSERT_TRUE(refresher.carbonGrams());
  EXPECT_NEAR(*refresher.carbonGrams(), 0.5 / 1000 * 370, 1e-9);

  // New energy (200 s more at 30 W) is seen at the next five-minute mark, not before.
  sample(200, {{"wattage", -30.0}});
  const double dayWh = 0.5 + 30.0 * 200 / 3600;
  clock.advance(Seconds(299));
  pump();
  EXPECT_NEAR(*refresher.carbonGrams(), 0.185, 1e-9);
  clock.advance(Seconds(1));
  pump();
  EXPECT_NEAR(*refresher.carbonGrams(), dayWh / 1000 * 370, 1e-9);

  const int before = changes;
  refresher.setRegion(uk);
  pump();
  EXPECT_NEAR(*refresher.carbonGrams(), dayWh / 1000 * 180, 1e-9);
  refresher.setRegion(std::nullopt);
  pump();
  EXPECT_FALSE(refresher.carbonGrams());
  EXPECT_EQ(changes - before, 2);
}

TEST_F(InsightsRefresherTest, GradesHourlyAndRecordsOncePerLocalDay) {
  SessionRecord session;
  session.id = "6F9619FF-8B86-D011-B42D-00C04FC964FF";
  session.startTime = at(-7200);
  session.endTime = at(-3600);
  session.startPct = 10;
  session.endPct = 100;
  session.isCharging = true;
  db->insertSession(session);
  drain();

  refresher.start();
  pump();
  ASSERT_TRUE(refresher.habitScore()) << "graded at start";
  ASSERT_EQ(refresher.habitHistory().size(), 1u);
  EXPECT_EQ(refresher.habitHistory()[0].grade, refresher.habitScore()->gradeText());
  EXPECT_EQ(history.loadAll(), refresher.habitHistory());
  const TimePoint firstRecord = refresher.habitHistory()[0].timestamp;

  // Hourly regrades within the day leave the day's record alone.
  for (int hour = 0; hour < 3; ++hour) {
    clock.advance(Seconds(3600));
    pump();
  }
  ASSERT_EQ(history.loadAll().size(), 1u);
  EXPECT_EQ(history.loadAll()[0].timestamp, firstRecord);

  // The store keeps a second session the refresher must not see before the hour is up.
  session.id = "7F9619FF-8B86-D011-B42D-00C04FC964FF";
  session.startTime = clock.now();
  session.endTime = clock.now() + std::chrono::minutes(1);
  session.endPct = 5;
  session.startPct = 50;
  session.isCharging = false;
  db->insertSession(session);
  drain();
  const HabitScore shown = *refresher.habitScore();
  clock.advance(Seconds(3599));
  pump();
  EXPECT_EQ(refresher.habitScore(), shown);
  clock.advance(Seconds(1));
  pump();
  EXPECT_NE(refresher.habitScore()->chargeDepth, shown.chargeDepth);

  // The next local day gets its own record.
  clock.advance(Seconds(kDay));
  pump();
  EXPECT_EQ(history.loadAll().size(), 2u);
  EXPECT_EQ(refresher.habitHistory().size(), 2u);
}

TEST_F(InsightsRefresherTest, AResultArrivingAfterTheRefresherIsGoneIsDropped) {
  auto doomed = std::make_unique<InsightsRefresher>(carbon, habits, history, owner, work, clock);
  int told = 0;
  doomed->setOnChange([&] { ++told; });
  doomed->setRegion(us);
  drawHalfAWattHour(0);
  work.runPending();  // the read runs, its result waits on the owner's queue
  doomed.reset();
  pump();
  EXPECT_EQ(told, 0);
}

}  // namespace
}  // namespace quorel
