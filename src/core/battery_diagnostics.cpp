#include "core/battery_diagnostics.hpp"

#include <algorithm>

namespace quorel {

namespace {
constexpr std::int64_t kAppleVendorID = 0x05AC;

std::string join(const std::vector<std::string>& parts) {
  std::string out;
  for (const auto& p : parts) {
    if (!out.empty()) out += "; ";
    out += p;
  }
  return out;
}
}  // namespace

std::optional<std::string> ChargingReasonMapper::notChargingReason(std::int64_t bits) {
  if (bits == 0) return std::nullopt;
  std::vector<std::string> texts;
  auto add = [&](std::int64_t bit, const char* text) {
    if ((bits & bit) && std::find(texts.begin(), texts.end(), text) == texts.end()) {
      texts.emplace_back(text);
    }
  };
  add(0x1, "Battery at charge limit");
  add(0x8, "Optimized Battery Charging");
  // Some firmware reports the limit on bit 55 instead of bit 0.
  add(0x80000000000000, "Battery at charge limit");
  if (texts.empty()) return std::string("Charging paused");
  return join(texts);
}

std::optional<std::string> ChargingReasonMapper::slowChargingReason(std::int64_t bits) {
  if (bits == 0) return std::nullopt;
  std::vector<std::string> texts;
  if (bits & 0x1) texts.emplace_back("Thermal constraint");
  if (bits & 0x2) texts.emplace_back("Low-power adapter");
  if (bits & 0x4) texts.emplace_back("Non-Apple adapter");
  if (bits & 0x10) texts.emplace_back("Battery temperature out of range");
  if (texts.empty()) return "Slow charging (code: " + std::to_string(bits) + ")";
  return join(texts);
}

std::string AdapterInfo::pdRevisionText(std::int64_t revision) {
  switch (revision) {
    case 0:
      return "1.0";
    case 1:
      return "2.0";
    case 2:
      return "3.0";
    default:
      return std::to_string(revision);
  }
}

BatteryDiagnostics BatteryDiagnostics::from(const PowerSnapshot& s) {
  BatteryDiagnostics d;
  if (s.notChargingReason || s.slowChargingReason || s.timeChargingThermallyLimited) {
    ChargingDiagnostics c;
    if (s.notChargingReason)
      c.notChargingReason = ChargingReasonMapper::notChargingReason(*s.notChargingReason);
    if (s.slowChargingReason)
      c.slowChargingReason = ChargingReasonMapper::slowChargingReason(*s.slowChargingReason);
    c.thermallyLimitedSeconds = s.timeChargingThermallyLimited;
    d.charging = c;
  }
  if (s.cellVoltages && !s.cellVoltages->empty()) {
    CellHealth h;
    for (auto mv : *s.cellVoltages) h.voltages.push_back(static_cast<double>(mv) / 1000.0);
    h.resistances = s.cellResistances.value_or(std::vector<std::int64_t>{});
    h.qmax = s.cellQmax.value_or(std::vector<std::int64_t>{});
    d.cellHealth = std::move(h);
  }
  if (s.totalOperatingTime) {
    LifetimeStats l;
    l.totalOperatingHours = *s.totalOperatingTime;
    l.avgTemperature = static_cast<double>(s.averageTemperature.value_or(0)) / 10.0;
    l.minTemperature = s.minTemperature.value_or(0);
    l.maxTemperature = s.maxTemperature.value_or(0);
    l.timeAtHighSocHours = s.timeAtHighSoc.value_or(0);
    l.minPackVoltage = static_cast<double>(s.minPackVoltage.value_or(0)) / 1000.0;
    l.maxPackVoltage = static_cast<double>(s.maxPackVoltage.value_or(0)) / 1000.0;
    d.lifetimeStats = l;
  }
  if (s.usbPDProfiles && !s.usbPDProfiles->empty()) {
    std::vector<USBPDProfile> profiles;
    for (const auto& m : *s.usbPDProfiles) {
      auto index = m.find("Index");
      if (index == m.end()) continue;
      USBPDProfile p;
      p.index = index->second;
      if (auto v = m.find("MaxVoltage"); v != m.end()) p.maxVoltage_mV = v->second;
      if (auto c = m.find("MaxCurrent"); c != m.end()) p.maxCurrent_mA = c->second;
      p.isActive = s.activePDProfileIndex && *s.activePDProfileIndex == p.index;
      profiles.push_back(p);
    }
    d.usbPDProfiles = std::move(profiles);
  }
  if (s.pdSpecRevision || s.chargerVendorID || s.chargerProductID || s.chargingPortIndex ||
      s.portMaxPower_mW || s.cableType) {
    AdapterInfo a;
    if (s.pdSpecRevision) a.pdSpecRevision = AdapterInfo::pdRevisionText(*s.pdSpecRevision);
    a.isAppleSource = s.chargerVendorID && *s.chargerVendorID == kAppleVendorID;
    a.chargerVendorID = s.chargerVendorID;
    a.chargerProductID = s.chargerProductID;
    a.chargingPort = s.chargingPortIndex;
    if (s.portMaxPower_mW) a.portMaxPower_W = static_cast<double>(*s.portMaxPower_mW) / 1000.0;
    a.cableType = s.cableType;
    d.adapterInfo = a;
  }
  d.dailyMinSoc = s.dailyMinSoc;
  d.dailyMaxSoc = s.dailyMaxSoc;
  d.designCycleCount = s.designCycleCount;
  return d;
}

}  // namespace quorel
