#pragma once
// The calibration detector's view of the settings: the last notice's time, kept in the one
// SettingsManager and saved at once, so a restart the same day does not tell the person again.
//
// Threading: the main queue, like the manager.

#include "app/settings_manager.hpp"
#include "insights/calibration_detector.hpp"

namespace quorel {

class SettingsCalibrationAccess final : public CalibrationSettingsAccess {
 public:
  explicit SettingsCalibrationAccess(SettingsManager& settings) : settings_(settings) {}

  std::optional<TimePoint> calibrationToastLastFiredAt() const override {
    return settings_.settings().calibrationToastLastFiredAt;
  }
  void recordCalibrationToastFired(TimePoint at) override {
    settings_.update([at](QuorelSettings& s) { s.calibrationToastLastFiredAt = at; });
    settings_.save();
  }

 private:
  SettingsManager& settings_;
};

}  // namespace quorel
