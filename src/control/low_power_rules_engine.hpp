#pragma once
// Watches every power state and every application launch, nudges the person with a notice when
// a low-power rule matches, and protects a hot battery: while it charges at or above the
// heat-protection threshold, the helper's charge ceiling is pulled just under the present charge
// so that charging stops, and put back once the battery has cooled by the hysteresis.
//
// A pause in force is remembered in the preference store, because the helper keeps the lowered
// ceiling when the agent stops and the next agent must be the one to raise it again.
//
// Threading: the main queue, except evaluate(), which may be called from any thread. Work the
// engine schedules for itself holds it weakly, so the engine may go while some is pending.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "control/helper_link.hpp"
#include "control/low_power_rule.hpp"
#include "core/clock.hpp"
#include "core/notice_poster.hpp"
#include "core/power_state.hpp"
#include "core/preference_store.hpp"
#include "core/serial_queue.hpp"

namespace quorel {

// The settings the engine reads and the one write it makes. Main queue.
class LowPowerRuleSettings {
 public:
  virtual ~LowPowerRuleSettings() = default;
  virtual std::vector<LowPowerRule> lowPowerRules() const = 0;
  virtual std::int64_t heatProtectionThresholdC() const = 0;
  virtual std::int64_t heatProtectionHysteresisC() const = 0;
  // Sets the stored rule's `lastFiredAt` and saves; a rule no longer stored is left alone.
  virtual void storeLastFiredAt(const std::string& ruleID, TimePoint at) = 0;
};

// An application that started: its desktop entry when the desktop knows the program, its
// executable's file name, and the name to show.
struct ApplicationLaunch {
  std::optional<std::string> desktopEntryID;  // without ".desktop"
  std::string executableName;
  std::string displayName;
  bool operator==(const ApplicationLaunch&) const = default;
};

class LowPowerRulesEngine {
 public:
  static constexpr const char* kHeatPauseActiveKey = "LowPowerRulesEngine.heatPauseActive";
  static constexpr const char* kPrePauseChargeLimitKey = "LowPowerRulesEngine.prePauseChargeLimit";
  static constexpr const char* kNoticeCategory = "com.quorel.lowpower";
  static constexpr const char* kOpenBatterySettingsAction = "OPEN_BATTERY_SETTINGS";
  static constexpr const char* kSwitchToPowerSaverAction = "SWITCH_TO_POWER_SAVER";
  static constexpr double kCooldownSeconds = 1800;

  // `powerSaverOffered` says whether the desktop can switch to a power-saver profile now; the
  // threshold notice then offers it. Reads the pause a previous run may have left in force.
  LowPowerRulesEngine(LowPowerRuleSettings& settings, PreferenceStore& preferences,
                      NoticePoster& notices, std::function<bool()> powerSaverOffered,
                      SerialQueue& mainQueue, const Clock& clock);
  LowPowerRulesEngine(const LowPowerRulesEngine&) = delete;
  LowPowerRulesEngine& operator=(const LowPowerRulesEngine&) = delete;

  // The helper arrives after the engine; until then (and with null) nothing is paused or
  // restored.
  void setHelperLink(HelperLink* link);

  // Any thread; off the main queue it posts itself there.
  void evaluate(const PowerState& state);
  void handleAppLaunch(const ApplicationLaunch& launch);

  bool heatPauseActive() const { return heatPauseActive_; }
  std::optional<std::int64_t> prePauseChargeLimit() const { return prePauseChargeLimit_; }

  // The limit a pause left by an earlier run saved, when that pause is still marked active.
  static std::optional<std::int64_t> loadAdoptedHeatPauseLimit(const PreferenceStore& store);
  // Writes both keys; without a limit its key is removed.
  static void writeHeatPauseState(bool active, std::optional<std::int64_t> preLimit,
                                  PreferenceStore& store);
  // Fired less than the cooldown ago. A date in the future does not count, so that a clock set
  // back cannot silence a rule.
  static bool isOnCooldown(const LowPowerRule& rule, TimePoint now);
  // The ceiling that stops charging at once: just under the band's lower edge at the present
  // charge, never above the person's own limit, within what the helper accepts.
  static std::int64_t heatPauseCeiling(double batteryPercent, std::int64_t sailingBand,
                                       std::int64_t savedLimit);
  // Whether `bundleID` names the launched application: its desktop entry (with or without
  // ".desktop") or its executable.
  static bool launchMatches(const std::string& bundleID, const ApplicationLaunch& launch);

 private:
  void evaluateOnMain(const PowerState& state);
  void activateHeatPauseIfNeeded(const LowPowerRule& rule);
  void considerHeatPauseRestore(double currentTempC);
  void clearHeatPause();
  void fire(std::string title, std::string body, bool offerPowerSaver);
  void markFired(const std::string& ruleID);
  // Runs `work` on the main queue later, if the engine is still there.
  void later(std::function<void(LowPowerRulesEngine&)> work);

  LowPowerRuleSettings& settings_;
  PreferenceStore& preferences_;
  NoticePoster& notices_;
  std::function<bool()> powerSaverOffered_;
  SerialQueue& mainQueue_;
  const Clock& clock_;
  HelperLink* helper_ = nullptr;

  std::optional<double> lastBatteryPercent_;
  std::optional<double> lastBatteryTempC_;
  bool lastKnownExternalConnected_ = false;
  std::optional<std::int64_t> prePauseChargeLimit_;
  bool heatPauseActive_ = false;

  std::shared_ptr<LowPowerRulesEngine*> self_ = std::make_shared<LowPowerRulesEngine*>(this);
};

}  // namespace quorel
