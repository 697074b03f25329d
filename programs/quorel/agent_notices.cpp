#include "agent_notices.hpp"

#include <algorithm>

#include "core/logging.hpp"

namespace quorel {

Notice calibrationNotice() {
  return Notice{
      .identifier = "quorel.charge-limit.calibration",
      .title = "Your battery is calibrating",
      .body =
          "This is normal — the battery's firmware does this now and then to keep capacity "
          "readings accurate.",
      .category = {},
      .actions = {},
  };
}

AgentNotices::AgentNotices(SerialQueue& mainQueue, SettingsManager& settings, const Clock& clock,
                           Options options)
    : settings_(settings),
      calibrationSettings_(settings),
      opener_(mainQueue, findBatterySettingsPanel(options.programRoot, options.currentDesktop)),
      profiles_(clock),
      calibration_(calibrationSettings_, clock,
                   [this] {
                     if (settings_.settings().calibrationToastEnabled) post(calibrationNotice());
                   }),
      poster_(mainQueue, [this](const std::string& notice, const std::string& action) {
        handleAction(notice, action);
      }) {}

bool AgentNotices::canCarryOut(const NoticeAction& action) const {
  if (action.identifier == kOpenBatterySettingsAction) return opener_.available();
  if (action.identifier == kSwitchToPowerSaverAction) return profiles_.available();
  return false;
}

void AgentNotices::post(Notice notice) {
  std::erase_if(notice.actions, [this](const NoticeAction& a) { return !canCarryOut(a); });
  poster_.post(std::move(notice));
}

void AgentNotices::handleAction(const std::string& noticeIdentifier,
                                const std::string& actionIdentifier) {
  logging::get("Notifications")->debug("{} chosen on {}", actionIdentifier, noticeIdentifier);
  if (actionIdentifier == kOpenBatterySettingsAction) {
    opener_.open();
  } else if (actionIdentifier == kSwitchToPowerSaverAction) {
    profiles_.switchOn();
  }
}

void AgentNotices::chargeLimitObserved(std::optional<std::int64_t> limitPercent) {
  calibration_.limitChanged(limitPercent);
}

void AgentNotices::powerStateChanged(const PowerState& state) {
  calibration_.stateChanged(state);
}

}  // namespace quorel
