#include "control/low_power_rules_engine.hpp"

#include <algorithm>
#include <cmath>
#include <utility>

#include "core/logging.hpp"
#include "core/uuid.hpp"

namespace quorel {
namespace {

// The helper refuses ceilings under 20; 255 is the widest value its register holds.
constexpr std::int64_t kLowestPauseCeiling = 20;
constexpr std::int64_t kHighestCeiling = 255;

std::shared_ptr<spdlog::logger> logger() {
  return logging::get("LowPowerRulesEngine");
}

bool isHotRule(const LowPowerRule& rule) {
  return rule.enabled && rule.kind == LowPowerRule::Kind::batteryHot;
}

std::string withoutDesktopSuffix(std::string text) {
  constexpr std::string_view suffix = ".desktop";
  if (text.size() > suffix.size() && text.ends_with(suffix))
    text.resize(text.size() - suffix.size());
  return text;
}

}  // namespace

LowPowerRulesEngine::LowPowerRulesEngine(LowPowerRuleSettings& settings,
                                         PreferenceStore& preferences, NoticePoster& notices,
                                         std::function<bool()> powerSaverOffered,
                                         SerialQueue& mainQueue, const Clock& clock)
    : settings_(settings),
      preferences_(preferences),
      notices_(notices),
      powerSaverOffered_(std::move(powerSaverOffered)),
      mainQueue_(mainQueue),
      clock_(clock),
      prePauseChargeLimit_(loadAdoptedHeatPauseLimit(preferences)),
      heatPauseActive_(preferences.boolValue(kHeatPauseActiveKey)) {
  if (heatPauseActive_) {
    logger()->info("heat pause adopted from the previous run — ceiling to restore: {}",
                   prePauseChargeLimit_ ? std::to_string(*prePauseChargeLimit_) : "unknown");
  }
}

void LowPowerRulesEngine::setHelperLink(HelperLink* link) {
  helper_ = link;
}

void LowPowerRulesEngine::evaluate(const PowerState& state) {
  if (mainQueue_.isCurrent()) {
    evaluateOnMain(state);
    return;
  }
  later([state](LowPowerRulesEngine& engine) { engine.evaluateOnMain(state); });
}

void LowPowerRulesEngine::later(std::function<void(LowPowerRulesEngine&)> work) {
  mainQueue_.async([weak = std::weak_ptr(self_), work = std::move(work)] {
    if (auto self = weak.lock()) work(**self);
  });
}

void LowPowerRulesEngine::evaluateOnMain(const PowerState& state) {
  const double percent = state.batteryPercentage;
  const double tempC = state.temperature_C;
  const bool external = state.externalConnected;
  const std::optional<double> previous = lastBatteryPercent_;
  const std::optional<double> previousTemp = lastBatteryTempC_;
  const std::vector<LowPowerRule> rules = settings_.lowPowerRules();
  const TimePoint now = clock_.now();
  if (rules.empty()) {
    lastBatteryPercent_ = percent;
    lastBatteryTempC_ = tempC;
    lastKnownExternalConnected_ = external;
    return;
  }

  if (!external) {
    for (const LowPowerRule& rule : rules) {
      if (!rule.enabled || rule.kind != LowPowerRule::Kind::batteryThreshold) continue;
      const auto threshold = static_cast<double>(rule.thresholdPercent);
      if (!previous || *previous <= threshold || percent > threshold) continue;
      if (isOnCooldown(rule, now)) continue;
      const bool offer = powerSaverOffered_ && powerSaverOffered_();
      // Where the desktop can switch profiles, the notice names what its button does.
      fire("Battery at " + std::to_string(static_cast<std::int64_t>(percent)) + "%",
           offer ? "Consider switching to the power saver profile to extend remaining time."
                 : "Consider switching to Low Power Mode to extend remaining time.",
           offer);
      markFired(rule.id);
    }
  }

  if (state.isCharging) {
    const auto threshold = static_cast<double>(settings_.heatProtectionThresholdC());
    for (const LowPowerRule& rule : rules) {
      if (!isHotRule(rule)) continue;
      // A run that starts up already hot triggers on its first reading.
      const bool trigger = tempC >= threshold && (!previousTemp || *previousTemp < threshold);
      if (!trigger) continue;
      if (!isOnCooldown(rule, now)) {
        fire("Battery at " + std::to_string(std::lround(tempC)) + "°C while charging",
             "Heat accelerates battery aging — consider unplugging for a while.", false);
        markFired(rule.id);
      }
      // The pause does not wait for the notice's cooldown: heat harms whether or not the
      // person was told recently.
      later([rule](LowPowerRulesEngine& engine) { engine.activateHeatPauseIfNeeded(rule); });
    }
  }

  later([tempC](LowPowerRulesEngine& engine) { engine.considerHeatPauseRestore(tempC); });

  lastBatteryPercent_ = percent;
  lastBatteryTempC_ = tempC;
  lastKnownExternalConnected_ = external;
}

void LowPowerRulesEngine::activateHeatPauseIfNeeded(const LowPowerRule& rule) {
  if (helper_ == nullptr || helper_->status().kind != HelperStatus::Kind::enabled ||
      heatPauseActive_ || !helper_->controlAvailable() || helper_->proxy() == nullptr ||
      !lastBatteryPercent_) {
    return;
  }
  const std::optional<HelperState> state = helper_->helperState();
  if (!state) {
    // The next trigger retries with the state this asks for.
    helper_->refreshHelperStateNow();
    return;
  }
  prePauseChargeLimit_ = state->chargeLimit;
  heatPauseActive_ = true;
  writeHeatPauseState(true, prePauseChargeLimit_, preferences_);
  // The band is 5 until the helper reports its own.
  const std::int64_t ceiling =
      heatPauseCeiling(*lastBatteryPercent_, state->sailingBand, state->chargeLimit);
  logger()->info("heat pause on (rule {}) — ceiling {} until the battery cools, then {}", rule.id,
                 ceiling, state->chargeLimit);
  helper_->proxy()->setChargeLimit(ceiling, [weak = std::weak_ptr(self_)](
                                                std::optional<QuorelHelperError> error) {
    if (!error) return;
    auto self = weak.lock();
    if (!self) return;
    logger()->warn("heat pause not applied — the helper refused the ceiling: {}", error->message);
    (*self)->clearHeatPause();
  });
}

void LowPowerRulesEngine::considerHeatPauseRestore(double currentTempC) {
  if (!heatPauseActive_ || helper_ == nullptr) return;
  const HelperStatus::Kind status = helper_->status().kind;
  if (status == HelperStatus::Kind::error) return;
  if (status != HelperStatus::Kind::enabled || !prePauseChargeLimit_) {
    // No helper ceiling is left to undo, or nothing says what to put back.
    logger()->info("heat pause dropped — nothing left to restore");
    clearHeatPause();
    return;
  }
  if (!helper_->controlAvailable() || helper_->proxy() == nullptr) return;
  const std::vector<LowPowerRule> rules = settings_.lowPowerRules();
  const bool noRule = std::none_of(rules.begin(), rules.end(), isHotRule);
  if (!noRule) {
    const auto resumeBelow = static_cast<double>(settings_.heatProtectionThresholdC() -
                                                 settings_.heatProtectionHysteresisC());
    if (!(currentTempC < resumeBelow)) return;
  }
  const std::int64_t limit = std::clamp<std::int64_t>(*prePauseChargeLimit_, 0, kHighestCeiling);
  logger()->info("heat pause off at {:.1f} °C — ceiling back to {}", currentTempC, limit);
  helper_->proxy()->setChargeLimit(
      limit, [weak = std::weak_ptr(self_)](std::optional<QuorelHelperError> error) {
        // A refused restore still ends the pause: the person sees the lower ceiling and can set
        // it back, where retrying for ever would not help.
        if (error) logger()->warn("charge ceiling not restored: {}", error->message);
        if (auto self = weak.lock()) (*self)->clearHeatPause();
      });
}

void LowPowerRulesEngine::clearHeatPause() {
  heatPauseActive_ = false;
  prePauseChargeLimit_.reset();
  writeHeatPauseState(false, std::nullopt, preferences_);
}

void LowPowerRulesEngine::handleAppLaunch(const ApplicationLaunch& launch) {
  if (lastKnownExternalConnected_) return;
  const TimePoint now = clock_.now();
  for (const LowPowerRule& rule : settings_.lowPowerRules()) {
    if (!rule.enabled || rule.kind != LowPowerRule::Kind::appLaunch) continue;
    if (!launchMatches(rule.bundleID, launch) || isOnCooldown(rule, now)) continue;
    const std::string& name = launch.displayName.empty() ? rule.displayName : launch.displayName;
    fire(name + " launched", "This app tends to drain battery — consider Low Power Mode.", false);
    markFired(rule.id);
  }
}

void LowPowerRulesEngine::fire(std::string title, std::string body, bool offerPowerSaver) {
  Notice notice{.identifier = makeUuid(),
                .title = std::move(title),
                .body = std::move(body),
                .category = kNoticeCategory,
                .actions = {{kOpenBatterySettingsAction, "Open Battery Settings"}}};
  if (offerPowerSaver)
    notice.actions.push_back({kSwitchToPowerSaverAction, "Switch to Power Saver"});
  notices_.post(std::move(notice));
}

// Written at once rather than later on the queue, so that a second match in the same round (two
// processes of one application) already sees the cooldown.
void LowPowerRulesEngine::markFired(const std::string& ruleID) {
  settings_.storeLastFiredAt(ruleID, clock_.now());
}

std::optional<std::int64_t> LowPowerRulesEngine::loadAdoptedHeatPauseLimit(
    const PreferenceStore& store) {
  if (!store.boolValue(kHeatPauseActiveKey)) return std::nullopt;
  const auto value = store.value(kPrePauseChargeLimitKey);
  if (!value || !value->is_number_integer()) return std::nullopt;
  return value->get<std::int64_t>();
}

void LowPowerRulesEngine::writeHeatPauseState(bool active, std::optional<std::int64_t> preLimit,
                                              PreferenceStore& store) {
  store.setValue(kHeatPauseActiveKey, active);
  if (preLimit) {
    store.setValue(kPrePauseChargeLimitKey, *preLimit);
  } else {
    store.removeValue(kPrePauseChargeLimitKey);
  }
}

bool LowPowerRulesEngine::isOnCooldown(const LowPowerRule& rule, TimePoint now) {
  if (!rule.lastFiredAt) return false;
  const double elapsed = secondsBetween(*rule.lastFiredAt, now);
  return elapsed >= 0 && elapsed < kCooldownSeconds;
}

std::int64_t LowPowerRulesEngine::heatPauseCeiling(double batteryPercent, std::int64_t sailingBand,
                                                   std::int64_t savedLimit) {
  const auto truncated = static_cast<std::int64_t>(batteryPercent);
  const std::int64_t ceiling = std::min(truncated - sailingBand - 1, savedLimit);
  return std::clamp(ceiling, kLowestPauseCeiling, kHighestCeiling);
}

bool LowPowerRulesEngine::launchMatches(const std::string& bundleID,
                                        const ApplicationLaunch& launch) {
  if (bundleID.empty()) return false;
  const std::string wanted = withoutDesktopSuffix(bundleID);
  if (launch.desktopEntryID && withoutDesktopSuffix(*launch.desktopEntryID) == wanted) return true;
  return !launch.executableName.empty() && launch.executableName == wanted;
}

}  // namespace quorel
