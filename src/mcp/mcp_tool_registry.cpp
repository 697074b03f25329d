#include "mcp/mcp_tool_registry.hpp"

#include <cmath>
#include <string_view>

#include "control/top_off_rule.hpp"
#include "mcp/quorel_snapshot_provider.hpp"

namespace quorel {

namespace {

// The points a history answer is thinned to, and the default counts of the ranked lists.
constexpr int kHistoryPointBudget = 240;
constexpr std::int64_t kDefaultAppLimit = 8;
constexpr std::int64_t kDefaultSessionLimit = 20;

struct PropertySpec {
  const char* name;
  const char* type;
  const char* description;
  bool required;
};

struct CatalogueEntry {
  const char* name;
  const char* description;
  std::vector<PropertySpec> properties;
};

// The order is what "tools/list" gives; the words are a published contract with assistants.
const std::vector<CatalogueEntry>& entries() {
  static const std::vector<CatalogueEntry> kEntries{
      {"get_current_power",
       "Current total watts, system power-in, derived consumption, and the per-component "
       "(ecpu/pcpu/gpu/ane/dram) breakdown.",
       {}},
      {"get_battery_status",
       "Battery percentage, charging state, external-power state, time-to-full/empty, and "
       "temperature. Returns available:false on a battery-less Mac.",
       {}},
      {"get_battery_health",
       "Battery capacity/cycle-count health trend plus the current battery epoch (first-seen, "
       "source).",
       {}},
      {"get_adapter",
       "Connected power adapter details: watts, PD revision, Apple-source flag, port max power, "
       "cable type.",
       {}},
      {"list_connected_devices",
       "The current USB / connected-device list (name, vendor, type, speed, bus power).",
       {}},
      {"get_system_components", "Live per-component watts (ecpu/pcpu/gpu/ane/dram/total).", {}},
      {"query_power_history",
       "Downsampled power/battery series over an ISO-8601 [from,to] range (defaults to the last "
       "hour).",
       {{"from", "string", "Start of the range, ISO-8601. Optional; defaults apply.", false},
        {"to", "string", "End of the range, ISO-8601. Optional; defaults to now.", false}}},
      {"top_energy_apps",
       "Per-app energy (Wh) ranked over an ISO-8601 [from,to] range (defaults to the last 24h).",
       {{"from", "string", "Start of the range, ISO-8601. Optional.", false},
        {"to", "string", "End of the range, ISO-8601. Optional; defaults to now.", false},
        {"limit", "integer", "Max apps to return. Optional; defaults to 8.", false}}},
      {"list_sessions",
       "Recent charge/discharge sessions (start/end, %s, avg watts, Wh).",
       {{"limit", "integer", "Max sessions to return. Optional; defaults to 20.", false}}},
      {"battery_health_trend",
       "Capacity/cycle-count history points plus the current battery epoch.",
       {}},
      {"energy_totals",
       "Lifetime component energy (Wh) and today's CO₂ grams for the configured region.",
       {}},
      {"get_overview",
       "One-shot aggregate: current power + battery status + adapter + connected-device count.",
       {}},
      {"get_battery_control_state",
       "Battery-control availability, helper readiness, charge limit + sailing band, active flags, "
       "and live gating inputs (capacity %, on-AC, clamshell-closed).",
       {}},
      {"set_charge_limit",
       "Set the charge ceiling (20–100%) via the same helper command the UI uses. Rejected out of "
       "range or when battery control isn't enabled.",
       {{"percent", "integer", "Charge ceiling percent, 20–100.", true}}},
      {"set_force_discharge",
       "Start (true) or stop (false) force-discharge. Start applies the UI's preconditions (on AC, "
       "capacity above limit, and NOT clamshell-closed — unless the experimental 'discharge with "
       "lid closed' setting is on AND an external display is attached); the helper is the final "
       "authority.",
       {{"enabled", "boolean", "true to start force-discharge, false to stop.", true}}},
      {"set_top_up",
       "Start (true) a one-shot top-up to full, or cancel (false). Start applies the UI's top-up "
       "preconditions.",
       {{"enabled", "boolean", "true to start top-up, false to cancel.", true}}},
      {"get_battery_automation",
       "Current smart-top-off rules (calendar + geofence), heat-protection threshold + hysteresis, "
       "and EventKit/CoreLocation authorization statuses.",
       {}},
      {"set_smart_topoff_rules",
       "Replace the smart-top-off rule set. Each rule is a calendar or geofence object; validated "
       "against bounds and per-kind caps (≤3 calendar, ≤1 geofence). On any violation nothing "
       "persists.",
       {{"rules", "array",
         "Array of rule objects. Calendar: {type:'calendar', id, eventTitleSubstring, "
         "leadMinutes}. Geofence: {type:'geofence', id, latitude, longitude, radiusMeters, label}.",
         true}}},
      {"set_heat_protection",
       "Set the heat-protection threshold (32–45 °C) and hysteresis (1–10 °C).",
       {{"threshold_c", "integer", "Pause-charging threshold, 32–45 °C.", true},
        {"hysteresis_c", "integer", "Resume hysteresis below threshold, 1–10 °C.", true}}},
  };
  return kEntries;
}

JSONValue inputSchema(const std::vector<PropertySpec>& properties) {
  JSONValue::Object props;
  JSONValue::Array required;
  for (const PropertySpec& p : properties) {
    props.emplace(p.name, JSONValue::object({{"type", p.type}, {"description", p.description}}));
    if (p.required) required.emplace_back(p.name);
  }
  JSONValue::Object schema{{"type", "object"}, {"properties", JSONValue(std::move(props))}};
  if (!required.empty()) schema.emplace("required", JSONValue(std::move(required)));
  return JSONValue(std::move(schema));
}

JSONRPCResponse invalidParams(std::optional<JSONValue> id, std::string message) {
  return JSONRPCResponse::failure(std::move(id),
                                  {kJSONRPCInvalidParams, "Invalid params: " + message, {}});
}

std::optional<bool> boolArgument(const JSONValue& arguments, std::string_view key) {
  const JSONValue* member = arguments.find(key);
  return member ? member->boolValue() : std::nullopt;
}

}  // namespace

MCPToolRegistry::MCPToolRegistry(QuorelSnapshotProvider& snapshot, BatteryCommands& commands)
    : snapshot_(&snapshot), commands_(&commands) {}

const std::vector<ToolSpec>& MCPToolRegistry::catalogue() {
  static const std::vector<ToolSpec> kCatalogue = [] {
    std::vector<ToolSpec> tools;
    for (const CatalogueEntry& e : entries()) {
      tools.push_back({e.name, e.description, inputSchema(e.properties)});
    }
    return tools;
  }();
  return kCatalogue;
}

const JSONValue& MCPToolRegistry::toolsListJSON() {
  static const JSONValue kList = [] {
    JSONValue::Array tools;
    for (const ToolSpec& tool : catalogue()) {
      tools.push_back(JSONValue::object({{"name", tool.name},
                                         {"description", tool.description},
                                         {"inputSchema", tool.inputSchema}}));
    }
    return JSONValue::object({{"tools", JSONValue(std::move(tools))}});
  }();
  return kList;
}

const std::string& MCPToolRegistry::toolsListText() {
  static const std::string kText = compactJSON(toolsListJSON());
  return kText;
}

std::string MCPToolRegistry::compactJSON(const JSONValue& value) {
  // The writer never escapes "/" and replaces bytes that are not UTF-8, so its text is
  // already what an assistant should read.
  return value.write().value_or("{}");
}

JSONValue MCPToolRegistry::content(const JSONValue& value) {
  JSONValue::Object item{{"type", JSONValue("text")}, {"text", JSONValue(compactJSON(value))}};
  JSONValue::Object result{{"content", JSONValue(JSONValue::Array{JSONValue(std::move(item))})},
                           {"isError", JSONValue(false)}};
  return JSONValue(std::move(result));
}

std::string MCPToolRegistry::contentText(std::string inString) {
  // The members in the order a written object gives them: "text" before "type". Put around the
  // answer in its own buffer, which its writer sized with room to spare, rather than copied
  // into a second one of the same size.
  constexpr std::string_view kHead = R"({"content":[{"text":")";
  constexpr std::string_view kTail = R"(","type":"text"}],"isError":false})";
  inString.insert(0, kHead);
  inString.append(kTail);
  return inString;
}

JSONRPCResponse MCPToolRegistry::map(std::optional<JSONValue> id,
                                     const BatteryCommandResult& result) {
  if (const auto* error = std::get_if<MCPToolError>(&result)) {
    return JSONRPCResponse::failure(std::move(id), {error->code, error->message, {}});
  }
  return JSONRPCResponse::success(std::move(id), content(std::get<JSONValue>(result)));
}

JSONRPCErrorObject MCPToolRegistry::unknownTool(const std::string& name) {
  return JSONRPCErrorObject{kJSONRPCInvalidParams, "Invalid params: Unknown tool: " + name, {}};
}

std::optional<std::int64_t> MCPToolRegistry::integerArgument(const JSONValue& arguments,
                                                             std::string_view key) {
  const JSONValue* member = arguments.find(key);
  const auto number = member ? member->numberValue() : std::nullopt;
  if (!number || !std::isfinite(*number)) return std::nullopt;
  const double truncated = std::trunc(*number);
  // 2^63 is exact as a double; both ends are excluded.
  constexpr double kLimit = 9223372036854775808.0;
  if (truncated <= -kLimit || truncated >= kLimit) return std::nullopt;
  return static_cast<std::int64_t>(truncated);
}

std::optional<std::string> MCPToolRegistry::stringArgument(const JSONValue& arguments,
                                                           std::string_view key) {
  const JSONValue* member = arguments.find(key);
  if (member == nullptr || !member->isString()) return std::nullopt;
  return *member->stringValue();
}

void MCPToolRegistry::callTool(const std::string& name, std::optional<JSONValue> arguments,
                               std::optional<JSONValue> id, Reply reply) {
  const JSONValue args = arguments ? std::move(*arguments) : JSONValue(JSONValue::Object{});
  QuorelSnapshotProvider& snapshot = *snapshot_;
  BatteryCommands& commands = *commands_;
  auto read = [&](const JSONValue& value) { reply(JSONRPCResponse::success(id, content(value))); };
  // The history tools and the helper commands answer later, through these.
  auto later = [id, reply](JSONValue value) {
    reply(JSONRPCResponse::success(id, content(value)));
  };
  auto laterText = [id, reply](std::string inString) {
    reply(JSONRPCResponse::successText(id, contentText(std::move(inString))));
  };
  constexpr auto kInString = QuorelSnapshotProvider::TextForm::inString;
  auto commandDone = [id, reply](BatteryCommandResult result) { reply(map(id, result)); };

  if (name == "get_current_power") return read(snapshot.getCurrentPower());
  if (name == "get_battery_status") return read(snapshot.getBatteryStatus());
  if (name == "get_battery_health" || name == "battery_health_trend") {
    return snapshot.batteryHealthTrendText(kInString, laterText);
  }
  if (name == "get_adapter") return read(snapshot.getAdapter());
  if (name == "list_connected_devices") return read(snapshot.listConnectedDevices());
  if (name == "get_system_components") return read(snapshot.getSystemComponents());
  if (name == "query_power_history") {
    return snapshot.queryPowerHistoryText(stringArgument(args, "from"), stringArgument(args, "to"),
                                          kHistoryPointBudget, kInString, laterText);
  }
  if (name == "top_energy_apps") {
    return snapshot.topEnergyAppsText(stringArgument(args, "from"), stringArgument(args, "to"),
                                      integerArgument(args, "limit").value_or(kDefaultAppLimit),
                                      kInString, laterText);
  }
  if (name == "list_sessions") {
    return snapshot.listSessionsText(integerArgument(args, "limit").value_or(kDefaultSessionLimit),
                                     kInString, laterText);
  }
  if (name == "energy_totals") return snapshot.energyTotals(later);
  if (name == "get_overview") return read(snapshot.getOverview());
  if (name == "get_battery_control_state") return reply(map(id, commands.state()));
  if (name == "set_charge_limit") {
    const auto percent = integerArgument(args, "percent");
    if (!percent) return reply(invalidParams(id, "`percent` (integer) is required."));
    return commands.setChargeLimit(*percent, commandDone);
  }
  if (name == "set_force_discharge" || name == "set_top_up") {
    const auto enabled = boolArgument(args, "enabled");
    if (!enabled) return reply(invalidParams(id, "`enabled` (boolean) is required."));
    if (name == "set_top_up") return commands.setTopUp(*enabled, commandDone);
    return commands.setForceDischarge(*enabled, commandDone);
  }
  if (name == "get_battery_automation") return reply(map(id, commands.automation()));
  if (name == "set_smart_topoff_rules") {
    const JSONValue* rules = args.find("rules");
    if (rules == nullptr || !rules->isArray()) {
      return reply(invalidParams(id, "`rules` (array) is required."));
    }
    auto decoded = decodeTopOffRules(*rules);
    if (!decoded) {
      return reply(invalidParams(id, "Could not decode `rules`: " + decoded.error().message));
    }
    return reply(map(id, commands.setSmartTopOffRules(std::move(*decoded))));
  }
  if (name == "set_heat_protection") {
    const auto threshold = integerArgument(args, "threshold_c");
    const auto hysteresis = integerArgument(args, "hysteresis_c");
    if (!threshold || !hysteresis) {
      return reply(invalidParams(id, "`threshold_c` and `hysteresis_c` (integers) are required."));
    }
    return reply(map(id, commands.setHeatProtection(*threshold, *hysteresis)));
  }
  reply(JSONRPCResponse::failure(id, unknownTool(name)));
}

}  // namespace quorel
