#pragma once
// The simulated machine's scenario: a handful of parameters from which the sandbox provider
// builds complete readings. The main thread changes them; the poll queue reads them.

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/component_power.hpp"
#include "core/enum_text.hpp"
#include "core/power_phase.hpp"
#include "core/power_snapshot.hpp"
#include "devices/mac_model.hpp"
#include "devices/usb_device.hpp"

namespace quorel {

enum class SandboxPowerSource { battery, acCharging, acFull, acOnHold, acSupplementing };
enum class SandboxLoadPreset { idle, light, medium, heavy, extreme };
enum class SandboxThermalState { nominal, fair, serious, critical };

// Each choice by its case name ("acCharging") and by the text a person reads ("AC (Charging)");
// scenario files accept either.
inline constexpr EnumTextTable<SandboxPowerSource, 5> kSandboxPowerSourceNames{{{
    {SandboxPowerSource::battery, "battery"},
    {SandboxPowerSource::acCharging, "acCharging"},
    {SandboxPowerSource::acFull, "acFull"},
    {SandboxPowerSource::acOnHold, "acOnHold"},
    {SandboxPowerSource::acSupplementing, "acSupplementing"},
}}};
inline constexpr EnumTextTable<SandboxPowerSource, 5> kSandboxPowerSourceTexts{{{
    {SandboxPowerSource::battery, "Battery"},
    {SandboxPowerSource::acCharging, "AC (Charging)"},
    {SandboxPowerSource::acFull, "AC (Full)"},
    {SandboxPowerSource::acOnHold, "AC (On Hold)"},
    {SandboxPowerSource::acSupplementing, "AC (Supplementing)"},
}}};
inline constexpr EnumTextTable<SandboxLoadPreset, 5> kSandboxLoadPresetNames{{{
    {SandboxLoadPreset::idle, "idle"},
    {SandboxLoadPreset::light, "light"},
    {SandboxLoadPreset::medium, "medium"},
    {SandboxLoadPreset::heavy, "heavy"},
    {SandboxLoadPreset::extreme, "extreme"},
}}};
inline constexpr EnumTextTable<SandboxLoadPreset, 5> kSandboxLoadPresetTexts{{{
    {SandboxLoadPreset::idle, "Idle"},
    {SandboxLoadPreset::light, "Light"},
    {SandboxLoadPreset::medium, "Medium"},
    {SandboxLoadPreset::heavy, "Heavy"},
    {SandboxLoadPreset::extreme, "Extreme"},
}}};
inline constexpr EnumTextTable<SandboxThermalState, 4> kSandboxThermalStateNames{{{
    {SandboxThermalState::nominal, "nominal"},
    {SandboxThermalState::fair, "fair"},
    {SandboxThermalState::serious, "serious"},
    {SandboxThermalState::critical, "critical"},
}}};
inline constexpr EnumTextTable<SandboxThermalState, 4> kSandboxThermalStateTexts{{{
    {SandboxThermalState::nominal, "Nominal"},
    {SandboxThermalState::fair, "Fair"},
    {SandboxThermalState::serious, "Serious"},
    {SandboxThermalState::critical, "Critical"},
}}};

// The case name, for logs and test traces.
inline std::string_view toString(SandboxPowerSource s) {
  return kSandboxPowerSourceNames.text(s, "battery");
}
inline std::string_view toString(SandboxLoadPreset p) {
  return kSandboxLoadPresetNames.text(p, "medium");
}
inline std::string_view toString(SandboxThermalState t) {
  return kSandboxThermalStateNames.text(t, "nominal");
}

// What a load preset stands for, in watts.
double systemLoadWatts(SandboxLoadPreset preset);
// The preset's component row; the counters never stall on the simulated machine.
ComponentPower componentPower(SandboxLoadPreset preset);
ThermalState platformThermalState(SandboxThermalState state);

// One consistent set of scenario parameters, copied out of the config as a whole so that a
// reading never mixes two scenarios.
struct SandboxSettings {
  bool enabled = false;
  SandboxPowerSource powerSource = SandboxPowerSource::battery;
  ConnectionType connectionType = ConnectionType::thunderbolt4;
  std::int64_t adapterWatts = 96;
  double batteryPercentage = 72.0;
  double batteryHealth = 94.0;
  std::int64_t cycleCount = 187;
  double temperature = 34.5;  // degrees Celsius
  bool isCharging = false;
  SandboxLoadPreset systemLoad = SandboxLoadPreset::medium;
  std::optional<double> wattageOverride;  // W, beats every rule
  SandboxThermalState thermalState = SandboxThermalState::nominal;
  MacModel macModel = MacModel::macBookPro;
  bool externalMonitor = false;
  std::string monitorName = "Studio Display";
  bool dock = false;
  std::string dockName = "CalDigit TS4";
  bool keyboard = false;
  bool mouse = false;
  bool externalDrive = false;
  bool webcam = false;
  bool networkAdapter = false;

  // Battery power in watts, positive into the pack.
  double effectiveWattage() const;
  // One device per enabled toggle, in toggle order.
  std::vector<USBDevice> simulatedUSBDevices() const;

  bool operator==(const SandboxSettings&) const = default;
};

// The shared, observable holder of the scenario. Thread-safe. Observers are called on the
// thread that made the change, after the change is visible to readers, one change at a time
// and in order; they should hold their owner weakly, since a callback that is being removed on
// another thread may still receive the change in flight. An observer must not wait for another
// thread that changes the config itself: changes are serialised across their deliveries.
class SandboxConfig {
 public:
  struct Change {
    SandboxSettings before;
    SandboxSettings after;
    // Entering or leaving the simulated machine.
    bool enabledChanged() const { return before.enabled != after.enabled; }
    // Anything but `enabled` changed: a new scenario on the same machine.
    bool parametersChanged() const;
  };
  using Observer = std::function<void(const Change&)>;
  using ObserverId = std::uint64_t;

  explicit SandboxConfig(SandboxSettings initial = {});
  SandboxConfig(const SandboxConfig&) = delete;
  SandboxConfig& operator=(const SandboxConfig&) = delete;

  SandboxSettings values() const;
  // Applies `edit` to a copy of the settings and publishes it. Observers hear of it only when
  // something actually changed. Observers may read the config or change it again.
  void update(const std::function<void(SandboxSettings&)>& edit);
  void set(SandboxSettings settings);

  ObserverId addObserver(Observer observer);
  void removeObserver(ObserverId id);

  bool enabled() const { return values().enabled; }
  double effectiveWattage() const { return values().effectiveWattage(); }
  std::vector<USBDevice> simulatedUSBDevices() const { return values().simulatedUSBDevices(); }

 private:
  mutable std::mutex valuesMutex_;
  SandboxSettings values_;

  // Held across a whole change and its deliveries so that observers see changes in order;
  // recursive so that an observer may make a further change, which is queued behind the one
  // being delivered.
  std::recursive_mutex changeMutex_;
  std::deque<Change> pending_;
  bool delivering_ = false;

  mutable std::mutex observersMutex_;
  std::map<ObserverId, Observer> observers_;
  ObserverId nextObserverId_ = 1;
};

}  // namespace quorel
