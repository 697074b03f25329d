#include "app/calibration_settings.hpp"

#include <gtest/gtest.h>

#include "core/memory_preference_store.hpp"

namespace quorel {
namespace {

using namespace std::chrono_literals;

// A notice told in one run keeps the next run, the same day, from telling it again.
TEST(SettingsCalibrationAccessTest, ANoticeFiredBeforeARelaunchStillRestsTheDetector) {
  MemoryPreferenceStore store;
  ManualClock clock;
  SerialQueue main{"test.main", clock};
  PowerState charging;
  charging.batteryPercentage = 90;
  charging.isCharging = true;
  int fired = 0;
  {
    SettingsManager manager(store, main, clock);
    SettingsCalibrationAccess access(manager);
    CalibrationDetector detector(access, clock, [&] { ++fired; });
    detector.limitChanged(80);
    detector.stateChanged(charging);
    clock.advance(30s);
    detector.stateChanged(charging);
  }
  ASSERT_EQ(fired, 1);

  clock.advance(3600s);
  SettingsManager relaunched(store, main, clock);
  EXPECT_EQ(relaunched.settings().calibrationToastLastFiredAt, clock.now() - 3600s);
  SettingsCalibrationAccess access(relaunched);
  CalibrationDetector detector(access, clock, [&] { ++fired; });
  detector.limitChanged(80);
  detector.stateChanged(charging);
  EXPECT_EQ(detector.phase(), CalibrationDetector::Phase::cooldown);
}

}  // namespace
}  // namespace quorel
