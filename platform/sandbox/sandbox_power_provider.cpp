#include "platform/sandbox/sandbox_power_provider.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>

namespace quorel {

namespace {
// Truncates toward zero, forgiving the binary representation of decimal inputs: 34.59 * 100 is
// 3458.9999999999995 in doubles, and a plain truncation would report 34.58 degrees.
std::int64_t truncated(double x) {
  // Scenarios set in code are not range-checked like scenario files; stay defined regardless.
  if (std::isnan(x)) return 0;
  if (std::fabs(x) > 9e18) return x < 0 ? -9'000'000'000'000'000'000 : 9'000'000'000'000'000'000;
  const double nudge = 1e-9 * std::max(1.0, std::fabs(x));
  return static_cast<std::int64_t>(std::trunc(x + std::copysign(nudge, x)));
}

constexpr std::int64_t kAdapterVoltage_mV = 20'000;
}  // namespace

PowerSnapshot SandboxPowerProvider::snapshotFor(const SandboxSettings& c, TimePoint now) {
  const bool external = c.powerSource != SandboxPowerSource::battery;
  const double wattage = c.effectiveWattage();

  PowerSnapshot s;
  s.maxCapacity_mAh = truncated(c.batteryHealth * static_cast<double>(kDesignCapacity_mAh) / 100.0);
  s.nominalCapacity_mAh = s.maxCapacity_mAh;
  s.designCapacity_mAh = kDesignCapacity_mAh;
  s.currentCapacity_mAh =
      truncated(c.batteryPercentage * static_cast<double>(s.maxCapacity_mAh) / 100.0);
  s.instantAmperage_mA = truncated(wattage / kPackVoltage_V * 1000.0);
  s.amperage_mA = s.instantAmperage_mA;
  s.voltage_mV = 14'800;
  s.temperature_cC = truncated(c.temperature * 100.0);
  s.cycleCount = c.cycleCount;

  s.isCharging = c.powerSource == SandboxPowerSource::acCharging;
  s.externalConnected = external;
  s.fullyCharged = c.powerSource == SandboxPowerSource::acFull;
  // The simulated machine is the scenario's model, so the pack exists unless that is a desktop.
  s.batteryInstalled = !isDesktop(c.macModel);

  // A 0 W scenario would otherwise divide by zero.
  const double denominator =
      std::max<double>(1.0, static_cast<double>(std::llabs(s.instantAmperage_mA)));
  std::optional<std::int64_t> minutes;
  switch (c.powerSource) {
    case SandboxPowerSource::acFull:
      minutes = 0;
      break;
    case SandboxPowerSource::acCharging:
      minutes = truncated(static_cast<double>(s.maxCapacity_mAh - s.currentCapacity_mAh) /
                          denominator * 60.0);
      break;
    case SandboxPowerSource::battery:
      minutes = truncated(static_cast<double>(s.currentCapacity_mAh) / denominator * 60.0);
      break;
    case SandboxPowerSource::acOnHold:
    case SandboxPowerSource::acSupplementing:
      break;
  }
  s.timeRemaining_min = minutes;
  s.avgTimeToEmpty_min = minutes;

  if (external) {
    const std::int64_t watts = c.adapterWatts;
    const std::int64_t current_mA = watts * 1000 / 20;
    s.adapterWatts = watts;
    s.adapterVoltage_mV = kAdapterVoltage_mV;
    s.adapterCurrent_mA = current_mA;
    s.systemPowerIn_mW = watts * 1000;
    s.adapterDescription = std::to_string(watts) + "W USB-C Power Adapter";
    s.connectionType = c.connectionType;
    s.activePDProfileIndex = 3;
    s.cableType = CableType::active;
    s.systemCurrentIn_mA = current_mA;
    s.systemVoltageIn_mV = kAdapterVoltage_mV;
    // 12 % conversion loss, in whole milliwatts: watts * 1000 * 1.12 and * 0.12, exactly.
    s.wallPowerEstimate_mW = watts * 1120;
    s.adapterEfficiencyLoss_mW = watts * 120;
    s.pdSpecRevision = 2;
    s.chargerVendorID = 1452;
    s.chargingPortIndex = 1;
    s.portMaxPower_mW = watts * 1000;
    s.usbPDProfiles = std::vector<std::map<std::string, std::int64_t>>{
        {{"Voltage", 5000}, {"Current", 3000}},
        {{"Voltage", 9000}, {"Current", 3000}},
        {{"Voltage", 15000}, {"Current", 3000}},
        {{"Voltage", kAdapterVoltage_mV}, {"Current", current_mA}},
    };
  }

  s.systemLoad_mW = truncated(systemLoadWatts(c.systemLoad) * 1000.0);

  s.timestamp = now;
  s.designCycleCount = 1000;
  const std::int64_t percent = truncated(c.batteryPercentage);
  s.dailyMinSoc = std::max<std::int64_t>(0, percent - 15);
  s.dailyMaxSoc = std::min<std::int64_t>(100, percent + 5);
  s.cellVoltages = std::vector<std::int64_t>{4933, 4933, 4933};
  s.cellResistances = std::vector<std::int64_t>{45, 47, 44};
  s.cellQmax = std::vector<std::int64_t>(3, s.maxCapacity_mAh / 3);
  s.totalOperatingTime = 1200;
  s.averageTemperature = 330;
  s.minTemperature = 18;
  s.maxTemperature = 42;
  s.timeAtHighSoc = 200;
  s.minPackVoltage = 10'500;
  s.maxPackVoltage = 15'200;

  // The gauge's "optimised charging" reason, which the phase rules read as a plain hold.
  if (c.powerSource == SandboxPowerSource::acOnHold) s.notChargingReason = 8;
  // No serial, so battery epoch tracking stays idle on the simulated machine.
  return s;
}

std::optional<PowerSnapshot> SandboxPowerProvider::fetchSnapshot() {
  return snapshotFor(config_.values(), clock_.now());
}

}  // namespace quorel
