#pragma once
// The reader-friendly form of a snapshot's deep battery fields, rebuilt on every tick.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/power_snapshot.hpp"

namespace quorel {

struct ChargingDiagnostics {
  std::optional<std::string> notChargingReason;
  std::optional<std::string> slowChargingReason;
  std::optional<std::int64_t> thermallyLimitedSeconds;
  bool operator==(const ChargingDiagnostics&) const = default;
};

struct CellHealth {
  std::vector<double> voltages;  // volts
  std::vector<std::int64_t> resistances;
  std::vector<std::int64_t> qmax;
  bool operator==(const CellHealth&) const = default;
};

struct LifetimeStats {
  std::int64_t totalOperatingHours = 0;
  double avgTemperature = 0;  // degrees Celsius
  std::int64_t minTemperature = 0;
  std::int64_t maxTemperature = 0;
  std::int64_t timeAtHighSocHours = 0;
  double minPackVoltage = 0;  // volts
  double maxPackVoltage = 0;  // volts
  bool operator==(const LifetimeStats&) const = default;
};

struct USBPDProfile {
  std::int64_t index = 0;
  std::int64_t maxVoltage_mV = 0;
  std::int64_t maxCurrent_mA = 0;
  bool isActive = false;
  bool operator==(const USBPDProfile&) const = default;
};

struct AdapterInfo {
  std::optional<std::string> pdSpecRevision;
  bool isAppleSource = false;
  std::optional<std::int64_t> chargerVendorID;
  std::optional<std::int64_t> chargerProductID;
  std::optional<std::int64_t> chargingPort;
  std::optional<double> portMaxPower_W;
  std::optional<CableType> cableType;
  std::optional<std::string> dataSpeed;
  bool operator==(const AdapterInfo&) const = default;

  // USB PD's header encodes the revision as 0, 1, 2 for 1.0, 2.0, 3.0.
  static std::string pdRevisionText(std::int64_t revision);
};

struct BatteryDiagnostics {
  std::optional<ChargingDiagnostics> charging;
  std::optional<CellHealth> cellHealth;
  std::optional<LifetimeStats> lifetimeStats;
  std::optional<std::vector<USBPDProfile>> usbPDProfiles;
  std::optional<AdapterInfo> adapterInfo;
  std::optional<std::int64_t> dailyMinSoc;
  std::optional<std::int64_t> dailyMaxSoc;
  std::optional<std::int64_t> designCycleCount;
  bool operator==(const BatteryDiagnostics&) const = default;

  static BatteryDiagnostics from(const PowerSnapshot& snapshot);
};

// The gauge's reason bits in words; 0 gives nothing.
struct ChargingReasonMapper {
  static std::optional<std::string> notChargingReason(std::int64_t bits);
  static std::optional<std::string> slowChargingReason(std::int64_t bits);
};

}  // namespace quorel
