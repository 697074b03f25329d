#pragma once
// A notice for the person at the desktop: the top-off that could not start, a battery crossing
// a threshold, a battery hot while charging, the gauge recalibrating. Logic posts through this
// seam; the agent's implementation speaks to the desktop's notification service, tests keep what
// was posted.

#include <functional>
#include <string>
#include <vector>

namespace quorel {

struct NoticeAction {
  std::string identifier;  // e.g. "OPEN_BATTERY_SETTINGS"
  std::string title;       // e.g. "Open Battery Settings"
  bool operator==(const NoticeAction&) const = default;
};

struct Notice {
  std::string identifier;  // e.g. "quorel.charge-limit.topoff-failed", or a fresh UUID
  std::string title;
  std::string body;
  // Groups notices of one kind ("com.quorel.lowpower"); empty for a notice of its own.
  std::string category;
  std::vector<NoticeAction> actions;
  bool operator==(const Notice&) const = default;
};

class NoticePoster {
 public:
  virtual ~NoticePoster() = default;
  // Never blocks the caller. A notice replaces the one still on screen with the same category
  // (or, without a category, the same identifier) instead of stacking beside it. Delivery
  // failures are the poster's to log; the caller never hears of them.
  virtual void post(Notice notice) = 0;
};

// What the person chose on a notice: the notice's identifier and the action's.
using NoticeActionHandler =
    std::function<void(const std::string& noticeIdentifier, const std::string& actionIdentifier)>;

}  // namespace quorel
