#include "platform/sandbox/sandbox_config.hpp"

#include <array>
#include <cmath>
#include <utility>

namespace quorel {

namespace {
struct LoadRow {
  SandboxLoadPreset preset;
  double load;
  ComponentPower components;
};
constexpr std::array<LoadRow, 5> kLoads{{
    {SandboxLoadPreset::idle, 3, {1.2, 0.3, 0.5, 0, 1.0, true}},
    {SandboxLoadPreset::light, 8, {2.5, 1.0, 2.0, 0, 2.5, true}},
    {SandboxLoadPreset::medium, 18, {3.0, 4.0, 6.0, 0.5, 4.5, true}},
    {SandboxLoadPreset::heavy, 35, {4.0, 10.0, 14.0, 1.0, 6.0, true}},
    {SandboxLoadPreset::extreme, 65, {5.0, 18.0, 28.0, 3.0, 11.0, true}},
}};

// A preset cast from an unlisted integer reads as the medium one.
const LoadRow& row(SandboxLoadPreset p) {
  for (const LoadRow& r : kLoads) {
    if (r.preset == p) return r;
  }
  return kLoads[2];
}

struct SimulatedDevice {
  bool SandboxSettings::*toggle;
  std::string_view id;
  std::string SandboxSettings::*nameField;  // the settings' own name, when it has one
  std::string_view name;
  std::string_view vendor;
  std::int64_t vendorID;
  std::int64_t productID;
  std::int64_t available_mA;
  std::int64_t used_mA;
  // Not part of the scenario: what such a device would report, so the records are complete.
  USBSpeed speed;
  DeviceType type;
};
const std::array<SimulatedDevice, 7> kDevices{{
    {&SandboxSettings::externalMonitor, "sandbox-monitor", &SandboxSettings::monitorName, "",
     "Apple Inc.", 1452, 4372, 3000, 1500, USBSpeed::superSpeedPlus, DeviceType::unknown},
    {&SandboxSettings::dock, "sandbox-dock", &SandboxSettings::dockName, "", "CalDigit", 8584, 73,
     3000, 1200, USBSpeed::superSpeedPlus, DeviceType::hub},
    {&SandboxSettings::keyboard, "sandbox-keyboard", nullptr, "Magic Keyboard", "Apple Inc.", 1452,
     668, 500, 20, USBSpeed::full, DeviceType::hid},
    {&SandboxSettings::mouse, "sandbox-mouse", nullptr, "Magic Mouse", "Apple Inc.", 1452, 617, 500,
     15, USBSpeed::full, DeviceType::hid},
    {&SandboxSettings::externalDrive, "sandbox-drive", nullptr, "Samsung T7 Shield", "Samsung",
     1256, 16385, 900, 640, USBSpeed::superSpeedPlus, DeviceType::storage},
    {&SandboxSettings::webcam, "sandbox-webcam", nullptr, "Logitech C920", "Logitech", 1133, 2093,
     500, 500, USBSpeed::high, DeviceType::camera},
    {&SandboxSettings::networkAdapter, "sandbox-ethernet", nullptr, "USB Ethernet Adapter",
     "Realtek", 3034, 33107, 900, 360, USBSpeed::superSpeed, DeviceType::network},
}};
}  // namespace

double systemLoadWatts(SandboxLoadPreset preset) {
  return row(preset).load;
}
ComponentPower componentPower(SandboxLoadPreset preset) {
  return row(preset).components;
}

ThermalState platformThermalState(SandboxThermalState state) {
  switch (state) {
    case SandboxThermalState::nominal:
      return ThermalState::nominal;
    case SandboxThermalState::fair:
      return ThermalState::fair;
    case SandboxThermalState::serious:
      return ThermalState::serious;
    case SandboxThermalState::critical:
      return ThermalState::critical;
  }
  return ThermalState::nominal;
}

double SandboxSettings::effectiveWattage() const {
  if (wattageOverride) return *wattageOverride;
  const double load = systemLoadWatts(systemLoad);
  const double adapter = static_cast<double>(adapterWatts);
  switch (powerSource) {
    case SandboxPowerSource::battery:
      return -load;
    case SandboxPowerSource::acCharging:
      return adapter - load;
    case SandboxPowerSource::acFull:
      return 0.2;
    case SandboxPowerSource::acOnHold:
      return 0.0;
    case SandboxPowerSource::acSupplementing:
      return -(load - adapter);
  }
  return -load;
}

std::vector<USBDevice> SandboxSettings::simulatedUSBDevices() const {
  std::vector<USBDevice> devices;
  for (const auto& d : kDevices) {
    if (!(this->*d.toggle)) continue;
    USBDevice device;
    device.id = std::string(d.id);
    device.name = d.nameField ? this->*d.nameField : std::string(d.name);
    device.vendorName = std::string(d.vendor);
    device.vendorID = d.vendorID;
    device.productID = d.productID;
    device.speed = d.speed;
    device.busPowerAvailable_mA = d.available_mA;
    device.busPowerUsed_mA = d.used_mA;
    device.deviceType = d.type;
    devices.push_back(std::move(device));
  }
  return devices;
}

bool SandboxConfig::Change::parametersChanged() const {
  SandboxSettings a = before;
  a.enabled = after.enabled;
  return a != after;
}

SandboxConfig::SandboxConfig(SandboxSettings initial) : values_(std::move(initial)) {}

SandboxSettings SandboxConfig::values() const {
  std::lock_guard lock(valuesMutex_);
  return values_;
}

void SandboxConfig::update(const std::function<void(SandboxSettings&)>& edit) {
  std::lock_guard change(changeMutex_);
  SandboxSettings before = values();
  SandboxSettings after = before;
  edit(after);
  if (after == before) return;
  {
    std::lock_guard lock(valuesMutex_);
    values_ = after;
  }
  pending_.push_back(Change{std::move(before), std::move(after)});
  if (delivering_) return;  // an observer's own change: the outer loop delivers it next
  delivering_ = true;
  // An observer that throws must not leave the config deaf to every later change.
  struct DeliveryScope {
    SandboxConfig& config;
    ~DeliveryScope() {
      config.delivering_ = false;
      config.pending_.clear();
    }
  } scope{*this};
  while (!pending_.empty()) {
    const Change next = std::move(pending_.front());
    pending_.pop_front();
    std::vector<Observer> observers;
    {
      std::lock_guard lock(observersMutex_);
      observers.reserve(observers_.size());
      for (const auto& [id, observer] : observers_) observers.push_back(observer);
    }
    for (const auto& observer : observers) observer(next);
  }
}

void SandboxConfig::set(SandboxSettings settings) {
  update([&](SandboxSettings& s) { s = std::move(settings); });
}

SandboxConfig::ObserverId SandboxConfig::addObserver(Observer observer) {
  std::lock_guard lock(observersMutex_);
  const ObserverId id = nextObserverId_++;
  observers_.emplace(id, std::move(observer));
  return id;
}

void SandboxConfig::removeObserver(ObserverId id) {
  std::lock_guard lock(observersMutex_);
  observers_.erase(id);
}

}  // namespace quorel
