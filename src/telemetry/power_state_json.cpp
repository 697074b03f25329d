#include "telemetry/power_state_json.hpp"

#include <cmath>

namespace quorel {

namespace {
using Json = nlohmann::ordered_json;

template <class T>
Json opt(const std::optional<T>& v) {
  if (!v) return nullptr;
  return Json(*v);
}

// JSON has no NaN or infinity; a non-finite figure is as good as unobserved.
Json real(double v) {
  return std::isfinite(v) ? Json(v) : Json(nullptr);
}
Json opt(const std::optional<double>& v) {
  return v ? real(*v) : Json(nullptr);
}

template <class T, class F>
Json optWith(const std::optional<T>& v, F&& f) {
  if (!v) return nullptr;
  return f(*v);
}
}  // namespace

Json toJson(const ComponentPower& c) {
  return Json{{"ecpuWatts", real(c.ecpuWatts)}, {"pcpuWatts", real(c.pcpuWatts)},
              {"gpuWatts", real(c.gpuWatts)},   {"aneWatts", real(c.aneWatts)},
              {"dramWatts", real(c.dramWatts)}, {"cpuAndMemoryAvailable", c.cpuAndMemoryAvailable}};
}

Json toJson(const SystemPowerRails& r) {
  return Json{{"systemTotalWatts", opt(r.systemTotalWatts)},
              {"batteryWatts", opt(r.batteryWatts)},
              {"dcInWatts", opt(r.dcInWatts)},
              {"thunderboltLeftWatts", opt(r.thunderboltLeftWatts)},
              {"thunderboltRightWatts", opt(r.thunderboltRightWatts)},
              {"pdBrightnessWatts", opt(r.pdBrightnessWatts)}};
}

Json toJson(const BatteryDiagnostics& d) {
  Json j;
  j["charging"] = optWith(d.charging, [](const ChargingDiagnostics& c) {
    return Json{{"notChargingReason", opt(c.notChargingReason)},
                {"slowChargingReason", opt(c.slowChargingReason)},
                {"thermallyLimitedSeconds", opt(c.thermallyLimitedSeconds)}};
  });
  j["cellHealth"] = optWith(d.cellHealth, [](const CellHealth& c) {
    return Json{{"voltages", c.voltages}, {"resistances", c.resistances}, {"qmax", c.qmax}};
  });
  j["lifetimeStats"] = optWith(d.lifetimeStats, [](const LifetimeStats& l) {
    return Json{
        {"totalOperatingHours", l.totalOperatingHours}, {"avgTemperature", real(l.avgTemperature)},
        {"minTemperature", l.minTemperature},           {"maxTemperature", l.maxTemperature},
        {"timeAtHighSocHours", l.timeAtHighSocHours},   {"minPackVoltage", real(l.minPackVoltage)},
        {"maxPackVoltage", real(l.maxPackVoltage)}};
  });
  j["usbPDProfiles"] = optWith(d.usbPDProfiles, [](const std::vector<USBPDProfile>& profiles) {
    Json list = Json::array();
    for (const auto& p : profiles) {
      list.push_back(Json{{"index", p.index},
                          {"maxVoltage_mV", p.maxVoltage_mV},
                          {"maxCurrent_mA", p.maxCurrent_mA},
                          {"isActive", p.isActive}});
    }
    return list;
  });
  j["adapterInfo"] = optWith(d.adapterInfo, [](const AdapterInfo& a) {
    return Json{{"pdSpecRevision", opt(a.pdSpecRevision)},
                {"isAppleSource", a.isAppleSource},
                {"chargerVendorID", opt(a.chargerVendorID)},
                {"chargerProductID", opt(a.chargerProductID)},
                {"chargingPort", opt(a.chargingPort)},
                {"portMaxPower_W", opt(a.portMaxPower_W)},
                {"cableType", optWith(a.cableType, [](CableType t) { return Json(toString(t)); })},
                {"dataSpeed", opt(a.dataSpeed)}};
  });
  j["dailyMinSoc"] = opt(d.dailyMinSoc);
  j["dailyMaxSoc"] = opt(d.dailyMaxSoc);
  j["designCycleCount"] = opt(d.designCycleCount);
  return j;
}

Json toJson(const PowerState& s) {
  Json j;
  j["smoothedWattage"] = real(s.smoothedWattage);
  j["batteryPercentage"] = real(s.batteryPercentage);
  j["iopsPercent"] = opt(s.iopsPercent);
  j["batteryHealth"] = real(s.batteryHealth);
  j["cycleCount"] = s.cycleCount;
  j["batterySerial"] = opt(s.batterySerial);
  j["temperature_C"] = real(s.temperature_C);
  j["isCharging"] = s.isCharging;
  j["externalConnected"] = s.externalConnected;
  j["fullyCharged"] = s.fullyCharged;
  j["batteryInstalled"] = s.batteryInstalled;
  j["timeRemaining_min"] = opt(s.timeRemaining_min);
  j["adapterWatts"] = opt(s.adapterWatts);
  j["adapterActualWatts"] = opt(s.adapterActualWatts);
  j["phase"] = toString(s.phase);
  j["phaseLabel"] = label(s.phase);
  j["timestamp"] = formatIso8601(s.timestamp);
  j["voltage_mV"] = s.voltage_mV;
  j["instantAmperage_mA"] = s.instantAmperage_mA;
  j["currentCapacity_mAh"] = s.currentCapacity_mAh;
  j["maxCapacity_mAh"] = s.maxCapacity_mAh;
  j["designCapacity_mAh"] = s.designCapacity_mAh;
  j["adapterCurrent_mA"] = opt(s.adapterCurrent_mA);
  j["adapterVoltage_mV"] = opt(s.adapterVoltage_mV);
  j["systemPowerIn_W"] = opt(s.systemPowerIn_W);
  j["systemLoad_W"] = opt(s.systemLoad_W);
  j["systemCurrentIn_mA"] = opt(s.systemCurrentIn_mA);
  j["systemVoltageIn_mV"] = opt(s.systemVoltageIn_mV);
  j["connectionType"] =
      optWith(s.connectionType, [](ConnectionType t) { return Json(toString(t)); });
  j["calculatedTimeRemaining_min"] = opt(s.calculatedTimeRemaining_min);
  j["componentPower"] =
      optWith(s.componentPower, [](const ComponentPower& c) { return toJson(c); });
  j["systemPowerRails"] =
      optWith(s.systemPowerRails, [](const SystemPowerRails& r) { return toJson(r); });
  j["diagnostics"] = optWith(s.diagnostics, [](const BatteryDiagnostics& d) { return toJson(d); });
  j["thermalState"] = toString(s.thermalState);
  j["wallPowerEstimate_W"] = opt(s.wallPowerEstimate_W);
  j["adapterEfficiency"] = opt(s.adapterEfficiency);
  j["displayPercent"] = s.displayPercent();
  j["systemConsumption_W"] = opt(s.systemConsumption_W());
  return j;
}

}  // namespace quorel
