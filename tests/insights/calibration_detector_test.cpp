// The calibration detector on a manual clock: when a stretch of charging past the limit becomes
// a notice, and the day of rest after it.

#include "insights/calibration_detector.hpp"

#include <gtest/gtest.h>

#include "core/clock.hpp"
#include "support/log_capture.hpp"

namespace quorel {
namespace {

using namespace std::chrono_literals;
using Phase = CalibrationDetector::Phase;
constexpr Seconds kDay{CalibrationDetector::cooldownSeconds};

struct StoredLastFiring final : CalibrationSettingsAccess {
  std::optional<TimePoint> calibrationToastLastFiredAt() const override { return lastFiredAt; }
  void recordCalibrationToastFired(TimePoint at) override {
    lastFiredAt = at;
    ++saves;
  }
  std::optional<TimePoint> lastFiredAt;
  int saves = 0;
};

PowerState battery(double percent, bool isCharging = true) {
  PowerState s;
  s.batteryPercentage = percent;
  s.isCharging = isCharging;
  return s;
}

struct Harness {
  explicit Harness(ManualClock& c, std::optional<TimePoint> lastFiredAt = {}) : clock(c) {
    stored.lastFiredAt = lastFiredAt;
  }
  // One reading every `step` for `duration`, as the monitor publishes them.
  void hold(const PowerState& state, Seconds duration, Seconds step = 1s) {
    for (Seconds t{0}; t < duration; t += step) {
      clock.advance(step);
      detector.stateChanged(state);
    }
  }
  ManualClock& clock;
  StoredLastFiring stored;
  int fired = 0;
  CalibrationDetector detector{stored, clock, [this] { ++fired; }};
};

TEST(CalibrationDetectorTest, ThirtySecondsChargingAtOrPastTheLimitFiresOnceAndRecordsIt) {
  ManualClock clock;
  testing::LogCapture logs;
  Harness h(clock);
  h.detector.limitChanged(80);
  h.detector.stateChanged(battery(79.5));  // rounds to the limit
  const TimePoint started = clock.now();
  EXPECT_EQ(h.detector.maybeStartedAt(), started);
  h.hold(battery(81), 29s);
  EXPECT_EQ(h.fired, 0);
  h.hold(battery(81), 1s);
  EXPECT_EQ(h.fired, 1);
  EXPECT_EQ(h.detector.phase(), Phase::cooldown);
  EXPECT_EQ(h.stored.lastFiredAt, started + 30s);
  EXPECT_EQ(h.stored.saves, 1);
  EXPECT_EQ(logs.messages("Calibration"), std::vector<std::string>{"calibration toast fired"});
}

TEST(CalibrationDetectorTest, StaysIdleWhenThereIsNothingToExplain) {
  const std::vector<std::tuple<const char*, std::optional<std::int64_t>, PowerState>> cases{
      {"limit 100", 100, battery(100)},
      {"no limit known", std::nullopt, battery(95)},
      {"not charging", 80, battery(90, false)},
      {"below the limit once rounded", 80, battery(79.49)},
  };
  ManualClock clock;
  for (const auto& [what, limit, state] : cases) {
    Harness h(clock);
    h.detector.limitChanged(limit);
    h.hold(state, 60s);
    EXPECT_EQ(h.fired, 0) << what;
    EXPECT_EQ(h.detector.phase(), Phase::idle) << what;
  }
}

// One stretch past the limit is one notice: 29 s of it then a drop restarts the wait, and after a
// notice the detector rests for as long as the stretch lasts, even past a day.
TEST(CalibrationDetectorTest, AStretchPastTheLimitFiresOnceAndADropEndsIt) {
  ManualClock clock;
  Harness h(clock);
  h.detector.limitChanged(80);
  h.detector.stateChanged(battery(80));
  h.hold(battery(80), 29s);
  h.detector.stateChanged(battery(78));
  EXPECT_EQ(h.detector.maybeStartedAt(), std::nullopt);
  h.detector.stateChanged(battery(80));
  h.hold(battery(80), 29s);
  EXPECT_EQ(h.fired, 0);
  h.hold(battery(85), 1s);
  ASSERT_EQ(h.fired, 1);
  h.hold(battery(85), kDay + 3600s, 600s);
  EXPECT_EQ(h.detector.phase(), Phase::cooldown);
  EXPECT_EQ(h.fired, 1);
  h.detector.limitChanged(90);  // a limit raised above the charge is a drop too
  EXPECT_EQ(h.detector.phase(), Phase::idle);
  h.detector.limitChanged(80);
  h.hold(battery(85), 30s);
  EXPECT_EQ(h.fired, 2);
}

TEST(CalibrationDetectorTest, TheStoredLastNoticeRestsADayUnlessItLiesInTheFuture) {
  const std::vector<std::tuple<const char*, Seconds, bool>> cases{
      {"an hour ago", 3600s, false},
      {"a day but the dwell ago", kDay - 31s, false},
      {"a day ago", kDay, true},
      {"clock moved back before it", -3600s, true},
  };
  ManualClock clock;
  for (const auto& [what, ago, fires] : cases) {
    Harness h(clock, clock.now() - std::chrono::duration_cast<std::chrono::seconds>(ago));
    h.detector.limitChanged(80);
    h.detector.stateChanged(battery(90));
    EXPECT_EQ(h.detector.phase(), fires ? Phase::maybe : Phase::cooldown) << what;
    h.hold(battery(90), 30s);
    EXPECT_EQ(h.fired, fires ? 1 : 0) << what;
  }
}

}  // namespace
}  // namespace quorel
