#include "mcp/live_snapshot_json.hpp"

#include <cmath>
#include <cstdlib>

#include "core/enum_text.hpp"

namespace quorel::live_snapshot_json {

namespace {

// The cable's name as people read it.
constexpr EnumTextTable<CableType, 4> kCableTypeNames{{{
    {CableType::active, "Active"},
    {CableType::passive, "Passive"},
    {CableType::optical, "Optical"},
    {CableType::magsafe, "MagSafe"},
}}};

JSONValue number(std::optional<double> value) {
  if (!value || !std::isfinite(*value)) return nullptr;
  return *value;
}

JSONValue integer(std::optional<std::int64_t> value) {
  if (!value) return nullptr;
  return *value;
}

JSONValue text(const std::optional<std::string>& value) {
  if (!value) return nullptr;
  return *value;
}

bool chargingPhase(PowerPhase phase) {
  return phase == PowerPhase::charging || phase == PowerPhase::trickleCharge;
}

// The five component figures and their total; the CPU and memory figures of a stalled reading
// are not believed, and neither is a total built on them.
struct ComponentFigures {
  std::optional<double> ecpu, pcpu, gpu, ane, dram, total;
};

ComponentFigures componentFigures(const std::optional<ComponentPower>& component) {
  if (!component) return {};
  ComponentFigures f;
  f.gpu = component->gpuWatts;
  f.ane = component->aneWatts;
  if (component->cpuAndMemoryAvailable) {
    f.ecpu = component->ecpuWatts;
    f.pcpu = component->pcpuWatts;
    f.dram = component->dramWatts;
    f.total = component->total();
  }
  return f;
}

void putComponents(JSONValue::Object& out, const ComponentFigures& f) {
  out["ecpu_w"] = number(f.ecpu);
  out["pcpu_w"] = number(f.pcpu);
  out["gpu_w"] = number(f.gpu);
  out["ane_w"] = number(f.ane);
  out["dram_w"] = number(f.dram);
  out["total_w"] = number(f.total);
}

std::string durationText(std::int64_t minutes) {
  const std::int64_t magnitude = std::llabs(minutes);
  if (magnitude >= 60) {
    return std::to_string(magnitude / 60) + "h " + std::to_string(magnitude % 60) + "m";
  }
  return std::to_string(magnitude) + "m";
}

}  // namespace

JSONValue noPowerData() {
  return JSONValue::object({{"available", false}, {"reason", "no power data yet"}});
}

std::optional<std::string> timeRemainingHuman(std::optional<std::int64_t> timeRemaining_min,
                                              std::optional<std::int64_t> calculated_min,
                                              bool charging) {
  if (timeRemaining_min) {
    if (*timeRemaining_min == 0) return std::nullopt;
    return durationText(*timeRemaining_min) + (charging ? " until full" : " until empty");
  }
  if (!calculated_min || *calculated_min == 0) return std::nullopt;
  return durationText(*calculated_min) + (*calculated_min > 0 ? " until full" : " until empty");
}

std::string chargerSourceLabel(bool isAppleSource, std::optional<std::int64_t> vendorID,
                               const ChargerVendorNames& vendorNames) {
  if (isAppleSource) return "Apple";
  if (vendorID && *vendorID != 0 && vendorNames) {
    if (auto name = vendorNames(*vendorID)) return *name;
  }
  return "Third-Party";
}

JSONValue currentPower(const PowerState& s) {
  const double flow = s.smoothedWattage;
  const std::optional<double> powerIn =
      s.systemPowerIn_W && std::isfinite(*s.systemPowerIn_W) ? s.systemPowerIn_W : std::nullopt;
  std::optional<double> consumption;
  if (powerIn) {
    consumption = std::max(0.0, *powerIn - flow);
  } else if (!s.externalConnected) {
    consumption = std::max(0.0, -flow);
  }
  JSONValue::Object components;
  putComponents(components, componentFigures(s.componentPower));
  return JSONValue::object(
      {{"watts", number(flow)},
       {"battery_flow_w", number(flow)},
       {"battery_flow_definition",
        "signed battery-terminal flow; positive charging, negative discharging"},
       {"battery_flow_quality", "inferred"},
       {"power_in_w", number(powerIn)},
       {"system_consumption_w", number(consumption)},
       {"system_consumption_definition",
        "on AC: max(0, power_in_w - battery_flow_w); on battery: max(0, -battery_flow_w)"},
       {"system_consumption_quality", !powerIn && s.externalConnected ? "unavailable" : "inferred"},
       {"phase", label(s.phase)},
       {"components", JSONValue(std::move(components))},
       {"timestamp", formatIso8601(s.timestamp)}});
}

JSONValue batteryStatus(const PowerState& s) {
  if (!s.batteryInstalled || s.phase == PowerPhase::noBattery) {
    return JSONValue::object({{"available", false}, {"reason", "no battery"}});
  }
  const bool charging = chargingPhase(s.phase);
  return JSONValue::object(
      {{"available", true},
       {"percent", s.displayPercent()},
       {"percent_raw", number(s.batteryPercentage)},
       {"charging", charging},
       {"phase", label(s.phase)},
       {"external_connected", s.externalConnected},
       {"time_remaining_min", integer(s.timeRemaining_min)},
       {"calculated_time_remaining_min", integer(s.calculatedTimeRemaining_min)},
       {"time_remaining_human",
        text(timeRemainingHuman(s.timeRemaining_min, s.calculatedTimeRemaining_min, charging))},
       {"temperature_c", s.temperature_C > 0 ? number(s.temperature_C) : JSONValue(nullptr)}});
}

JSONValue adapter(const PowerState& s, const ChargerVendorNames& vendorNames) {
  if (!s.externalConnected) return JSONValue::object({{"connected", false}});
  const AdapterInfo* info =
      s.diagnostics && s.diagnostics->adapterInfo ? &*s.diagnostics->adapterInfo : nullptr;
  JSONValue::Object out{
      {"connected", true},
      {"watts", integer(s.adapterWatts)},
      {"actual_watts", number(s.adapterActualWatts)},
      {"pd_spec_revision", nullptr},
      {"is_apple_source", nullptr},
      {"source_label", nullptr},
      {"port_max_power_w", nullptr},
      {"cable_type", nullptr},
      {"data_speed", nullptr},
      {"charging_port", nullptr},
  };
  if (info != nullptr) {
    out["pd_spec_revision"] = text(info->pdSpecRevision);
    out["is_apple_source"] = info->isAppleSource;
    out["source_label"] =
        chargerSourceLabel(info->isAppleSource, info->chargerVendorID, vendorNames);
    out["port_max_power_w"] = number(info->portMaxPower_W);
    if (info->cableType) out["cable_type"] = kCableTypeNames.text(*info->cableType);
    out["data_speed"] = text(info->dataSpeed);
    out["charging_port"] = integer(info->chargingPort);
  }
  return JSONValue(std::move(out));
}

JSONValue systemComponents(const PowerState& s) {
  if (!s.componentPower) {
    return JSONValue::object({{"available", false}, {"reason", "component power unavailable"}});
  }
  JSONValue::Object out{{"available", true},
                        {"complete", s.componentPower->cpuAndMemoryAvailable},
                        {"timestamp", formatIso8601(s.timestamp)}};
  putComponents(out, componentFigures(s.componentPower));
  return JSONValue(std::move(out));
}

JSONValue connectedDevices(const std::vector<USBDevice>& devices) {
  JSONValue::Array list;
  list.reserve(devices.size());
  for (const USBDevice& d : devices) {
    list.push_back(JSONValue::object({{"name", d.name},
                                      {"vendor_name", text(d.vendorName)},
                                      {"device_type", toString(d.deviceType)},
                                      {"speed", shortLabel(d.speed)},
                                      {"bus_power_used_ma", integer(d.busPowerUsed_mA)},
                                      {"vendor_id", d.vendorID},
                                      {"product_id", d.productID}}));
  }
  return JSONValue::object(
      {{"count", static_cast<double>(list.size())}, {"devices", std::move(list)}});
}

}  // namespace quorel::live_snapshot_json
