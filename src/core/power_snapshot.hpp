#pragma once
// The raw reading any power source yields, and the small classifications it carries.
// Units are in the field names; battery current is positive while charging.

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/clock.hpp"
#include "core/enum_text.hpp"

namespace quorel {

// How a charger reaches the machine.
enum class ConnectionType {
  magsafe3,
  thunderbolt5,
  thunderbolt4,
  thunderbolt3,
  usbCPD,
  usbC,
  unknown
};
enum class CableType { active, passive, optical, magsafe };

// How a connection is named to people, wherever it is shown or typed.
inline constexpr EnumTextTable<ConnectionType, 7> kConnectionTypeLabels{{{
    {ConnectionType::magsafe3, "MagSafe 3"},
    {ConnectionType::thunderbolt5, "Thunderbolt 5"},
    {ConnectionType::thunderbolt4, "Thunderbolt 4"},
    {ConnectionType::thunderbolt3, "Thunderbolt 3"},
    {ConnectionType::usbCPD, "USB-C PD"},
    {ConnectionType::usbC, "USB-C"},
    {ConnectionType::unknown, "External"},
}}};

std::string_view toString(ConnectionType t);
std::optional<ConnectionType> connectionTypeFromString(std::string_view s);
std::string_view toString(CableType t);

// The gauge's lifetime histogram of state of charge: 4 bands of 7 cells, hours per cell.
struct SoCResidencyMatrix {
  std::vector<std::int64_t> hours;  // 28 entries, in the block's order

  // The block is exactly 28 little-endian unsigned 32-bit integers (112 bytes).
  static std::optional<SoCResidencyMatrix> fromData(std::span<const std::uint8_t> data);
  // Sum of each band's 7 cells, in band order.
  std::vector<std::int64_t> bandHours() const;

  bool operator==(const SoCResidencyMatrix&) const = default;
};

struct PowerSnapshot {
  std::int64_t voltage_mV = 0;
  std::int64_t instantAmperage_mA = 0;
  std::int64_t amperage_mA = 0;
  std::int64_t currentCapacity_mAh = 0;
  std::int64_t maxCapacity_mAh = 0;
  std::int64_t nominalCapacity_mAh = 0;
  std::int64_t designCapacity_mAh = 0;
  std::int64_t cycleCount = 0;
  std::int64_t temperature_cC = 0;
  bool isCharging = false;
  bool externalConnected = false;
  bool fullyCharged = false;
  bool batteryInstalled = false;
  std::optional<std::int64_t> timeRemaining_min;
  std::optional<std::int64_t> avgTimeToEmpty_min;
  std::optional<std::int64_t> adapterWatts;
  std::optional<std::int64_t> adapterCurrent_mA;
  std::optional<std::int64_t> adapterVoltage_mV;
  std::optional<std::int64_t> systemPowerIn_mW;
  std::optional<std::int64_t> systemLoad_mW;
  std::optional<std::string> adapterDescription;
  std::optional<ConnectionType> connectionType;
  TimePoint timestamp{};

  std::optional<std::int64_t> wallPowerEstimate_mW;
  std::optional<std::int64_t> adapterEfficiencyLoss_mW;
  std::optional<std::int64_t> systemCurrentIn_mA;
  std::optional<std::int64_t> systemVoltageIn_mV;
  std::optional<std::int64_t> notChargingReason;
  std::optional<std::int64_t> slowChargingReason;
  std::optional<std::int64_t> timeChargingThermallyLimited;  // seconds
  std::optional<std::vector<std::int64_t>> cellVoltages;     // mV per cell
  std::optional<std::vector<std::int64_t>> cellResistances;
  std::optional<std::vector<std::int64_t>> cellQmax;
  std::optional<std::int64_t> dailyMinSoc;  // percent
  std::optional<std::int64_t> dailyMaxSoc;  // percent
  std::optional<std::int64_t> designCycleCount;
  std::optional<std::int64_t> totalOperatingTime;  // hours
  std::optional<std::int64_t> averageTemperature;  // tenths of a degree Celsius
  std::optional<std::int64_t> minTemperature;      // degrees Celsius
  std::optional<std::int64_t> maxTemperature;      // degrees Celsius
  std::optional<std::int64_t> timeAtHighSoc;       // hours
  std::optional<SoCResidencyMatrix> socResidency;
  std::optional<std::int64_t> minPackVoltage;  // mV
  std::optional<std::int64_t> maxPackVoltage;  // mV
  std::optional<std::vector<std::map<std::string, std::int64_t>>> usbPDProfiles;
  std::optional<std::int64_t> activePDProfileIndex;
  std::optional<std::int64_t> adapterID;
  std::optional<std::int64_t> pdSpecRevision;
  std::optional<std::int64_t> chargerVendorID;
  std::optional<std::int64_t> chargerProductID;
  std::optional<std::int64_t> chargingPortIndex;
  std::optional<std::int64_t> portMaxPower_mW;
  std::optional<CableType> cableType;
  std::optional<std::string> batterySerial;
  std::optional<std::int64_t> iopsPercent;

  bool operator==(const PowerSnapshot&) const = default;
};

}  // namespace quorel
