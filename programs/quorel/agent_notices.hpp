#pragma once
// The agent's notices: the poster on the session's notification service, what a notice's
// actions do on this machine, and the calibration notice. Engines that post notices take this
// object as their NoticePoster; it keeps only the actions the machine can carry out, so a notice
// never offers a button that does nothing.
//
// Threading: the main queue. post() may be called from any thread.

#include <filesystem>
#include <optional>
#include <string>

#include "app/calibration_settings.hpp"
#include "app/settings_manager.hpp"
#include "core/notice_poster.hpp"
#include "core/serial_queue.hpp"
#include "insights/calibration_detector.hpp"
#include "platform/linux/desktop_actions.hpp"
#include "platform/linux/desktop_notice_poster.hpp"
#include "platform/linux/power_profiles_offer.hpp"

namespace quorel {

// The gauge's recalibration, worded for a machine whose firmware, not its system, does it.
Notice calibrationNotice();

class AgentNotices final : public NoticePoster {
 public:
  struct Options {
    // Where the desktop's power settings panel is looked for (DIR/usr/bin, DIR/bin).
    std::filesystem::path programRoot = "/";
    // $XDG_CURRENT_DESKTOP, to choose among several installed desktops.
    std::string currentDesktop;
  };

  AgentNotices(SerialQueue& mainQueue, SettingsManager& settings, const Clock& clock,
               Options options);
  AgentNotices(const AgentNotices&) = delete;
  AgentNotices& operator=(const AgentNotices&) = delete;

  void post(Notice notice) override;
  PowerSaverOffer& powerSaverOffer() { return profiles_; }

  // The detector's two inputs: the inferred limit and every published state.
  void chargeLimitObserved(std::optional<std::int64_t> limitPercent);
  void powerStateChanged(const PowerState& state);

 private:
  void handleAction(const std::string& noticeIdentifier, const std::string& actionIdentifier);
  bool canCarryOut(const NoticeAction& action) const;

  SettingsManager& settings_;
  SettingsCalibrationAccess calibrationSettings_;
  BatterySettingsOpener opener_;
  PowerProfilesOffer profiles_;
  CalibrationDetector calibration_;
  // Last, so it goes first: no action reaches the members above once they are gone.
  DesktopNoticePoster poster_;
};

}  // namespace quorel
