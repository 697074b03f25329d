// The calibration detector on a manual clock: when a stretch of charging past the limit becomes
// a notice, and the day of rest after it.

#include "insights/calibration_detector.hpp"

#include <gtest/gtest.h>

#include <algorithm>

#include "core/clock.hpp"
#include "support/log_capture.hpp"

namespace quorel {
namespace {

using namespace std::chrono_literals;
using Phase = CalibrationDetector::Phase;

class StoredLastFiring final : public CalibrationSettingsAccess {
 public:
  std::optional<TimePoint> calibrationToastLastFiredAt() const override { return lastFiredAt; }
  void recordCalibrationToastFired(TimePoint at) override {
    lastFiredAt = at;
    ++saves;
  }
  std::optional<TimePoint> lastFiredAt;
  int saves = 0;
};

PowerState charging(double percent, bool isCharging = true) {
  PowerState s;
  s.batteryPercentage = percent;
  s.isCharging = isCharging;
  return s;
}

class CalibrationDetectorTest : public ::testing::Test {
 protected:
  // One reading every `step` for `duration`, as the monitor publishes them.
  void hold(const PowerState& state, Seconds duration, Seconds step = 2s) {
    for (Seconds t{0}; t < duration; t += step) {
      clock_.advance(step);
      detector_.stateChanged(state);
    }
  }

  ManualClock clock_;
  StoredLastFiring stored_;
  int fired_ = 0;
  CalibrationDetector detector_{stored_, clock_, [this] { ++fired_; }};
  testing::LogCapture logs_;
};

TEST_F(CalibrationDetectorTest, ThirtySecondsChargingAtOrPastTheLimitFiresOnceAndRecordsIt) {
  detector_.limitChanged(80);
  detector_.stateChanged(charging(79.5));  // rounds to the limit
  EXPECT_EQ(detector_.phase(), Phase::maybe);
  const TimePoint started = clock_.now();
  EXPECT_EQ(detector_.maybeStartedAt(), started);

  hold(charging(81), 28s);
  EXPECT_EQ(fired_, 0);
  hold(charging(81), 2s);
  EXPECT_EQ(fired_, 1);
  EXPECT_EQ(detector_.phase(), Phase::cooldown);
  EXPECT_EQ(detector_.maybeStartedAt(), std::nullopt);
  EXPECT_EQ(stored_.lastFiredAt, started + 30s);
  EXPECT_EQ(stored_.saves, 1);
  EXPECT_EQ(logs_.messages("Calibration"), std::vector<std::string>{"calibration toast fired"});

  hold(charging(82), 600s);
  EXPECT_EQ(fired_, 1);
}

TEST_F(CalibrationDetectorTest, StaysIdleWhenThereIsNothingToExplain) {
  struct Case {
    const char* what;
    std::optional<std::int64_t> limit;
    PowerState state;
  };
  const std::vector<Case> cases{
      {"limit 100", 100, charging(100)},
      {"no limit known", std::nullopt, charging(95)},
      {"not charging", 80, charging(90, false)},
      {"below the limit once rounded", 80, charging(79.49)},
  };
  for (const auto& c : cases) {
    StoredLastFiring stored;
    int fired = 0;
    CalibrationDetector detector(stored, clock_, [&] { ++fired; });
    detector.limitChanged(c.limit);
    for (int i = 0; i < 60; ++i) {
      clock_.advance(1s);
      detector.stateChanged(c.state);
    }
    EXPECT_EQ(fired, 0) << c.what;
    EXPECT_EQ(detector.phase(), Phase::idle) << c.what;
    EXPECT_EQ(stored.saves, 0) << c.what;
  }
}

TEST_F(CalibrationDetectorTest, ADropBelowTheLimitBefore30SecondsRestartsTheWait) {
  detector_.limitChanged(80);
  detector_.stateChanged(charging(80));
  hold(charging(80), 29s, 1s);
  detector_.stateChanged(charging(78));
  EXPECT_EQ(detector_.phase(), Phase::idle);
  EXPECT_EQ(detector_.maybeStartedAt(), std::nullopt);

  // The limit itself moving above the charge counts as a drop too.
  detector_.stateChanged(charging(80));
  const TimePoint restarted = clock_.now();
  hold(charging(80), 20s, 1s);
  detector_.limitChanged(85);
  EXPECT_EQ(detector_.phase(), Phase::idle);
  detector_.limitChanged(80);
  EXPECT_EQ(detector_.maybeStartedAt(), clock_.now());
  EXPECT_NE(detector_.maybeStartedAt(), restarted);
  hold(charging(80), 29s, 1s);
  EXPECT_EQ(fired_, 0);
  hold(charging(80), 1s, 1s);
  EXPECT_EQ(fired_, 1);
}

TEST_F(CalibrationDetectorTest, CooldownHoldsWhileAboveTheLimitAndEndsWithADrop) {
  detector_.limitChanged(80);
  detector_.stateChanged(charging(85));
  hold(charging(85), 30s);
  ASSERT_EQ(fired_, 1);

  // A whole day and more above the limit is still the one stretch already told.
  hold(charging(85), Seconds(CalibrationDetector::cooldownSeconds + 3600), 600s);
  EXPECT_EQ(detector_.phase(), Phase::cooldown);
  EXPECT_EQ(fired_, 1);

  detector_.stateChanged(charging(85, false));
  EXPECT_EQ(detector_.phase(), Phase::idle);
  detector_.stateChanged(charging(85));
  hold(charging(85), 30s);
  EXPECT_EQ(fired_, 2);
}

TEST_F(CalibrationDetectorTest, TheStoredLastNoticeRestsADayAcrossRestartsUnlessItIsInTheFuture) {
  struct Case {
    const char* what;
    Seconds lastFiredAgo;
    bool fires;
  };
  const std::vector<Case> cases{
      {"an hour ago", 3600s, false},
      {"just under a day ago", Seconds(CalibrationDetector::cooldownSeconds - 31), false},
      {"a day ago", Seconds(CalibrationDetector::cooldownSeconds), true},
      {"clock moved back before it", -3600s, true},
  };
  for (const auto& c : cases) {
    StoredLastFiring stored;
    stored.lastFiredAt =
        clock_.now() - std::chrono::duration_cast<std::chrono::seconds>(c.lastFiredAgo);
    int fired = 0;
    CalibrationDetector detector(stored, clock_, [&] { ++fired; });
    detector.limitChanged(80);
    detector.stateChanged(charging(90));
    EXPECT_EQ(detector.phase(), c.fires ? Phase::maybe : Phase::cooldown) << c.what;
    for (int i = 0; i < 30; ++i) {
      clock_.advance(1s);
      detector.stateChanged(charging(90));
    }
    EXPECT_EQ(fired, c.fires ? 1 : 0) << c.what;
  }
}

}  // namespace
}  // namespace quorel
