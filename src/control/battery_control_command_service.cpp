#include "control/battery_control_command_service.hpp"

#include <cmath>
#include <set>

#include "control/battery_control_guards.hpp"
#include "core/logging.hpp"

namespace quorel {
namespace {

constexpr double kFillingWattage_W = 0.5;

MCPToolError refused(std::string message) {
  return MCPToolError{kCommandRefused, std::move(message)};
}

JSONValue optionalNumber(const std::optional<std::int64_t>& value) {
  return value ? JSONValue(*value) : JSONValue();
}

JSONValue ruleObject(const TopOffRule& rule) {
  if (const auto* calendar = std::get_if<CalendarTopOffRule>(&rule.rule)) {
    return JSONValue::object({{"type", "calendar"},
                              {"id", calendar->id},
                              {"event_title_substring", calendar->eventTitleSubstring},
                              {"lead_minutes", calendar->leadMinutes}});
  }
  const auto& geofence = std::get<GeofenceTopOffRule>(rule.rule);
  return JSONValue::object({{"type", "geofence"},
                            {"id", geofence.id},
                            {"latitude", geofence.latitude},
                            {"longitude", geofence.longitude},
                            {"radius_meters", geofence.radiusMeters},
                            {"label", geofence.label}});
}

std::string rulePrefix(std::size_t index) {
  return "Rule " + std::to_string(index) + ": ";
}

// The refusal for one rule on its own, or nothing when it passes.
std::optional<std::string> ruleProblem(const TopOffRule& rule, std::size_t index) {
  if (const auto* calendar = std::get_if<CalendarTopOffRule>(&rule.rule)) {
    if (!hasVisibleText(calendar->eventTitleSubstring)) {
      return rulePrefix(index) + "calendar event title must contain non-whitespace characters.";
    }
    if (calendar->leadMinutes < kMinimumTopOffLeadMinutes ||
        calendar->leadMinutes > kMaximumTopOffLeadMinutes) {
      return rulePrefix(index) + "calendar lead " + std::to_string(calendar->leadMinutes) +
             " min is outside 5\u2013120 min.";
    }
    return std::nullopt;
  }
  const auto& geofence = std::get<GeofenceTopOffRule>(rule.rule);
  // Written so that NaN fails every range test.
  if (!(geofence.latitude >= -90 && geofence.latitude <= 90)) {
    return rulePrefix(index) + "latitude " + describeNumber(geofence.latitude) +
           " is outside [-90, 90].";
  }
  if (!(geofence.longitude >= -180 && geofence.longitude <= 180)) {
    return rulePrefix(index) + "longitude " + describeNumber(geofence.longitude) +
           " is outside [-180, 180].";
  }
  if (!(geofence.radiusMeters >= kMinimumGeofenceRadiusMeters &&
        geofence.radiusMeters <= kMaximumGeofenceRadiusMeters)) {
    return rulePrefix(index) + "geofence radius " + describeNumber(geofence.radiusMeters) +
           " m is outside 100\u20131000 m.";
  }
  if (!hasVisibleText(geofence.label)) {
    return rulePrefix(index) + "geofence label must contain non-whitespace characters.";
  }
  return std::nullopt;
}

}  // namespace

std::string describeNumber(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
  if (value == std::trunc(value) && std::fabs(value) < 1e16) {
    return std::to_string(static_cast<std::int64_t>(value)) + ".0";
  }
  return JSONValue(value).write().value_or("nan");
}

BatteryControlCommandService::BatteryControlCommandService(HelperLink& link, SerialQueue& mainQueue,
                                                           BatteryControlSettingsAccess& settings,
                                                           BatteryControlEnvironment environment)
    : link_(link),
      mainQueue_(mainQueue),
      settings_(settings),
      environment_(std::move(environment)) {}

BatteryControlCommandService::~BatteryControlCommandService() {
  *alive_ = false;
}

std::optional<std::int64_t> BatteryControlCommandService::liveCapacity() const {
  const auto power = environment_.powerState();
  if (!power) return std::nullopt;
  return power->displayPercent();
}

JSONValue BatteryControlCommandService::state() const {
  const auto helper = link_.helperState();
  const auto power = environment_.powerState();
  JSONValue::Object out;
  out["availability"] = batteryControlAvailabilityText(environment_.availability());
  out["helper_enabled"] = link_.status().kind == HelperStatus::Kind::enabled;
  out["helper_ready"] = link_.controlAvailable() && link_.proxy() != nullptr;
  out["charge_limit"] = helper ? JSONValue(helper->chargeLimit) : JSONValue();
  out["sailing_band"] = helper ? JSONValue(helper->sailingBand) : JSONValue();
  out["force_discharge_active"] = helper ? JSONValue(helper->forceDischargeActive) : JSONValue();
  out["top_up_active"] = helper ? JSONValue(helper->topUpActive) : JSONValue();
  out["heat_pause_active"] = helper ? JSONValue(helper->heatPauseActive) : JSONValue();
  out["capacity_percent"] = optionalNumber(liveCapacity());
  out["is_on_external_power"] = power ? JSONValue(power->externalConnected) : JSONValue();
  out["is_clamshell_closed"] = environment_.isClamshellClosed();
  out["last_discharge_abort_reason"] = helper && helper->lastDischargeAbortReason
                                           ? JSONValue(*helper->lastDischargeAbortReason)
                                           : JSONValue();
  out["last_discharge_abort_at"] = helper && helper->lastDischargeAbortAt
                                       ? JSONValue(formatIso8601(*helper->lastDischargeAbortAt))
                                       : JSONValue();
  return out;
}

JSONValue BatteryControlCommandService::automation() const {
  JSONValue::Array rules;
  for (const auto& rule : settings_.smartTopOffRules()) rules.push_back(ruleObject(rule));
  JSONValue::Object out;
  out["smart_top_off_rules"] = std::move(rules);
  out["heat_protection_threshold_c"] = settings_.heatProtectionThresholdC();
  out["heat_protection_hysteresis_c"] = settings_.heatProtectionHysteresisC();
  out["calendar_authorization"] = calendarAuthorizationText(environment_.calendarAuthorization());
  out["location_authorization"] = locationAuthorizationText(environment_.locationAuthorization());
  return out;
}

std::optional<MCPToolError> BatteryControlCommandService::requireControlAvailable() const {
  if (environment_.availability() != BatteryControlAvailability::available) {
    return refused(kBatteryControlNotEnabledText);
  }
  return requireHelperReady();
}

std::optional<MCPToolError> BatteryControlCommandService::requireHelperReady() const {
  if (!link_.controlAvailable() || link_.proxy() == nullptr) {
    return refused(kBatteryControlNotEnabledText);
  }
  return std::nullopt;
}

std::optional<BatteryControlCommandService::PendingCommand> BatteryControlCommandService::settle(
    std::uint64_t id) {
  const auto it = pending_.find(id);
  if (it == pending_.end()) return std::nullopt;
  PendingCommand command = std::move(it->second);
  pending_.erase(it);
  return command;
}

void BatteryControlCommandService::runHelperCommand(std::string rejectionMessage,
                                                    HelperOperation operation,
                                                    HelperOutcome outcome) {
  HelperProxy* proxy = link_.proxy();
  if (proxy == nullptr) {
    outcome(refused(kBatteryControlNotEnabledText));
    return;
  }
  const std::uint64_t id = nextCommandId_++;
  std::weak_ptr<bool> alive = alive_;
  // Booked before the operation runs: a proxy may answer before it returns.
  auto& command = pending_[id];
  command.outcome = std::move(outcome);
  command.deadline = mainQueue_.after(kHelperReplyDeadline, [this, alive, id] {
    if (alive.expired()) return;
    auto timedOut = settle(id);
    if (!timedOut) return;
    logging::get("BatteryControl")
        ->warn("helper command {} had no reply within {:.0f} s", id, kHelperReplyDeadline.count());
    timedOut->outcome(MCPToolError{kCommandFailed, kHelperNoResponseText});
  });
  operation(*proxy, [this, alive, id, rejection = std::move(rejectionMessage)](
                        std::optional<QuorelHelperError> error) {
    if (alive.expired()) return;
    auto answered = settle(id);
    if (!answered) {
      logging::get("BatteryControl")->info("late reply to helper command {} dropped", id);
      return;
    }
    answered->deadline.cancel();
    if (!error) {
      answered->outcome(std::nullopt);
      return;
    }
    answered->outcome(
        MCPToolError{kCommandFailed, error->message.empty() ? rejection : error->message});
  });
}

void BatteryControlCommandService::succeedWithState(const BatteryCommandCompletion& done) {
  link_.refreshHelperStateNow();
  done(state());
}

void BatteryControlCommandService::setChargeLimit(std::int64_t percent,
                                                  BatteryCommandCompletion done) {
  if (auto refusal = requireControlAvailable()) return done(*refusal);
  const auto guard = BatteryControlGuards::canSetChargeLimit(percent);
  if (!guard.allowed) return done(refused(guard.reason.value_or("")));
  runHelperCommand(
      "The helper rejected the charge-limit write.",
      [percent](HelperProxy& proxy, HelperReply reply) {
        proxy.setChargeLimit(percent, std::move(reply));
      },
      [this, done](std::optional<MCPToolError> failure) {
        if (failure) return done(*failure);
        succeedWithState(done);
      });
}

void BatteryControlCommandService::clearChargeLimit(BatteryCommandCompletion done) {
  if (auto refusal = requireControlAvailable()) return done(*refusal);
  runHelperCommand(
      "The helper rejected the charge-limit removal.",
      [](HelperProxy& proxy, HelperReply reply) { proxy.clearChargeLimit(std::move(reply)); },
      [this, done](std::optional<MCPToolError> failure) {
        if (failure) return done(*failure);
        succeedWithState(done);
      });
}

void BatteryControlCommandService::setForceDischarge(bool enable, BatteryCommandCompletion done) {
  if (enable) return startDischarge(std::move(done));
  // No guard: stopping must work whatever a start would meet.
  if (auto refusal = requireHelperReady()) return done(*refusal);
  runHelperCommand(
      "The helper rejected the force-discharge request.",
      [](HelperProxy& proxy, HelperReply reply) { proxy.forceDischarge(false, std::move(reply)); },
      [this, done](std::optional<MCPToolError> failure) {
        if (failure) return done(*failure);
        succeedWithState(done);
      });
}

void BatteryControlCommandService::startDischarge(BatteryCommandCompletion done) {
  if (auto refusal = requireControlAvailable()) return done(*refusal);
  const auto helper = link_.helperState();
  const auto power = environment_.powerState();
  const BatteryControlGuards::ForceDischargeInputs inputs{
      .isDischargeActive = helper && helper->forceDischargeActive,
      .isLidClosed = environment_.isClamshellClosed(),
      .isOnExternalPower = power && power->externalConnected,
      .isTopUpInFlight = helper && helper->topUpActive,
      .capacity = liveCapacity(),
      .limit = helper ? helper->chargeLimit : 80,
      .hasExternalDisplay = environment_.hasExternalDisplay(),
      .experimentalClamshellEnabled = settings_.experimentalClamshellDischarge(),
  };
  const auto guard = BatteryControlGuards::canForceDischarge(inputs);
  if (!guard.allowed) {
    return done(refused(guard.reason.value_or("Force discharge isn't permitted right now.")));
  }
  auto discharge = [this, done] {
    runHelperCommand(
        "The helper rejected the force-discharge request.",
        [](HelperProxy& proxy, HelperReply reply) { proxy.forceDischarge(true, std::move(reply)); },
        [this, done](std::optional<MCPToolError> failure) {
          if (failure) return done(*failure);
          succeedWithState(done);
        });
  };
  if (!(inputs.experimentalClamshellEnabled && inputs.hasExternalDisplay)) return discharge();
  // Armed first, so that a lid closed during the discharge does not put the machine to sleep.
  runHelperCommand(
      "The helper rejected the clamshell keep-awake request.",
      [](HelperProxy& proxy, HelperReply reply) {
        proxy.setClamshellKeepAwake(true, std::move(reply));
      },
      [done, discharge](std::optional<MCPToolError> failure) {
        if (failure) return done(*failure);
        discharge();
      });
}

void BatteryControlCommandService::setTopUp(bool enable, BatteryCommandCompletion done) {
  auto answer = [this, done](std::optional<MCPToolError> failure) {
    if (failure) return done(*failure);
    succeedWithState(done);
  };
  if (!enable) {
    if (auto refusal = requireHelperReady()) return done(*refusal);
    runHelperCommand(
        "The helper rejected the top-up cancellation.",
        [](HelperProxy& proxy, HelperReply reply) { proxy.cancelTopUp(std::move(reply)); },
        std::move(answer));
    return;
  }
  if (auto refusal = requireControlAvailable()) return done(*refusal);
  const auto helper = link_.helperState();
  const auto power = environment_.powerState();
  const auto capacity = liveCapacity();
  const bool topUpActive = helper && helper->topUpActive;
  const bool filling = topUpActive && power && power->smoothedWattage > kFillingWattage_W;
  const BatteryControlGuards::TopUpInputs inputs{
      .isTopUpInFlight = topUpActive && !filling && (!capacity || *capacity < 100),
      .isTopUpAlreadyFilling = filling,
      .isOnExternalPower = power && power->externalConnected,
      .isDischargeActive = helper && helper->forceDischargeActive,
      .capacity = capacity,
      .limit = helper ? helper->chargeLimit : 80,
  };
  const auto guard = BatteryControlGuards::canTopUp(inputs);
  if (!guard.allowed) return done(refused(guard.reason.value_or("")));
  runHelperCommand(
      "The helper rejected the top-up request.",
      [](HelperProxy& proxy, HelperReply reply) {
        proxy.releaseLimitUntilFullThenRestore(std::move(reply));
      },
      std::move(answer));
}

BatteryCommandResult BatteryControlCommandService::setSmartTopOffRules(
    std::vector<TopOffRule> rules) {
  std::set<std::string> seen;
  std::size_t calendars = 0;
  std::size_t geofences = 0;
  for (std::size_t i = 0; i < rules.size(); ++i) {
    const auto& rule = rules[i];
    if (!seen.insert(rule.id()).second) {
      return refused(rulePrefix(i) + "duplicate rule id " + rule.id() +
                     " \u2014 every rule needs a unique id.");
    }
    if (auto problem = ruleProblem(rule, i)) return refused(*problem);
    ++(rule.kind() == TopOffRule::Kind::calendar ? calendars : geofences);
  }
  if (calendars > 3) return refused("At most 3 calendar rules are allowed.");
  if (geofences > 1) return refused("At most 1 geofence rule is allowed.");
  settings_.storeSmartTopOffRules(rules);
  return automation();
}

BatteryCommandResult BatteryControlCommandService::setHeatProtection(std::int64_t thresholdC,
                                                                     std::int64_t hysteresisC) {
  if (thresholdC < 32 || thresholdC > 45) {
    return refused("Heat-protection threshold must be 32\u201345 \u00b0C.");
  }
  if (hysteresisC < 1 || hysteresisC > 10) {
    return refused("Heat-protection hysteresis must be 1\u201310 \u00b0C.");
  }
  settings_.storeHeatProtection(thresholdC, hysteresisC);
  return automation();
}

}  // namespace quorel
