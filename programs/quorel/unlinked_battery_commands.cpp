#include "unlinked_battery_commands.hpp"

#include <variant>

#include "control/battery_control_availability.hpp"

namespace quorel {

namespace {

MCPToolError notEnabled() {
  return {kCommandRefused, kBatteryControlNotEnabled};
}

// The stored rules in the shape assistants read; a stored list that no longer decodes is shown
// as no rules, which is what the automation acts on.
JSONValue ruleObjects(const std::vector<nlohmann::ordered_json>& stored) {
  JSONValue::Array raw;
  for (const auto& rule : stored) raw.push_back(JSONValue::parse(rule.dump()).value_or(nullptr));
  const auto rules = decodeTopOffRules(JSONValue(std::move(raw)));
  JSONValue::Array out;
  if (!rules) return out;
  for (const TopOffRule& rule : *rules) {
    if (const auto* c = std::get_if<CalendarTopOffRule>(&rule.rule)) {
      out.push_back(JSONValue::object({{"type", "calendar"},
                                       {"id", c->id},
                                       {"event_title_substring", c->eventTitleSubstring},
                                       {"lead_minutes", c->leadMinutes}}));
    } else {
      const auto& g = std::get<GeofenceTopOffRule>(rule.rule);
      out.push_back(JSONValue::object({{"type", "geofence"},
                                       {"id", g.id},
                                       {"latitude", g.latitude},
                                       {"longitude", g.longitude},
                                       {"radius_meters", g.radiusMeters},
                                       {"label", g.label}}));
    }
  }
  return out;
}

}  // namespace

UnlinkedBatteryCommands::UnlinkedBatteryCommands(const PowerViewModel& viewModel,
                                                 const SettingsManager& settings,
                                                 bool chargeControl)
    : viewModel_(viewModel), settings_(settings), chargeControl_(chargeControl) {}

JSONValue UnlinkedBatteryCommands::state() const {
  const auto& current = viewModel_.currentState();
  const bool battery = current && current->batteryInstalled;
  // Without a helper nothing about its limits or its flags is known: those stay null.
  return JSONValue::object(
      {{"availability",
        batteryControlAvailabilityText(resolveBatteryControlAvailability(battery, chargeControl_))},
       {"helper_enabled", false},
       {"helper_ready", false},
       {"charge_limit", nullptr},
       {"sailing_band", nullptr},
       {"force_discharge_active", nullptr},
       {"top_up_active", nullptr},
       {"heat_pause_active", nullptr},
       {"capacity_percent", current ? JSONValue(current->displayPercent()) : JSONValue()},
       {"is_on_external_power", current && current->externalConnected},
       {"is_clamshell_closed", nullptr},
       {"last_discharge_abort_reason", nullptr},
       {"last_discharge_abort_at", nullptr}});
}

JSONValue UnlinkedBatteryCommands::automation() const {
  const QuorelSettings& s = settings_.settings();
  // No calendar or location source is linked to this agent, so neither has been asked.
  return JSONValue::object({{"smart_top_off_rules", ruleObjects(s.smartTopOffRules)},
                            {"heat_protection_threshold_c", s.heatProtectionThresholdC},
                            {"heat_protection_hysteresis_c", s.heatProtectionHysteresisC},
                            {"calendar_authorization", "not_determined"},
                            {"location_authorization", "not_determined"}});
}

void UnlinkedBatteryCommands::setChargeLimit(std::int64_t, BatteryCommandCompletion done) {
  done(notEnabled());
}

void UnlinkedBatteryCommands::setForceDischarge(bool, BatteryCommandCompletion done) {
  done(notEnabled());
}

void UnlinkedBatteryCommands::setTopUp(bool, BatteryCommandCompletion done) {
  done(notEnabled());
}

BatteryCommandResult UnlinkedBatteryCommands::setSmartTopOffRules(std::vector<TopOffRule>) {
  return notEnabled();
}

BatteryCommandResult UnlinkedBatteryCommands::setHeatProtection(std::int64_t, std::int64_t) {
  return notEnabled();
}

}  // namespace quorel
