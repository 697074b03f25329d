#include "platform/linux/upower_charge_thresholds.hpp"

#include <systemd/sd-bus.h>

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "platform/linux/system_bus.hpp"

namespace quorel {
namespace {

constexpr const char* kService = "org.freedesktop.UPower";
constexpr const char* kManagerPath = "/org/freedesktop/UPower";
constexpr const char* kManagerInterface = "org.freedesktop.UPower";
constexpr const char* kDeviceInterface = "org.freedesktop.UPower.Device";
constexpr std::uint32_t kBatteryType = 2;

struct MessageReleaser {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};

class BusError {
 public:
  BusError() = default;
  BusError(const BusError&) = delete;
  BusError& operator=(const BusError&) = delete;
  ~BusError() { sd_bus_error_free(&error_); }
  sd_bus_error* get() { return &error_; }

 private:
  sd_bus_error error_ = SD_BUS_ERROR_NULL;
};

SystemBus connect(const std::optional<std::string>& busAddress, std::chrono::milliseconds timeout) {
  return connectSystemBus(busAddress, static_cast<std::uint64_t>(timeout.count()) * 1000,
                          "quorel-upower")
      .bus;
}

template <class T>
std::optional<T> property(sd_bus* bus, const char* path, const char* name, char type) {
  BusError error;
  T value{};
  if (sd_bus_get_property_trivial(bus, kService, path, kDeviceInterface, name, error.get(), type,
                                  &value) < 0) {
    return std::nullopt;
  }
  return value;
}

}  // namespace

UPowerBusChargeThresholds::UPowerBusChargeThresholds(std::optional<std::string> busAddress,
                                                     std::chrono::milliseconds callTimeout)
    : busAddress_(std::move(busAddress)), callTimeout_(callTimeout) {}

std::optional<std::vector<UPowerBatteryThreshold>> UPowerBusChargeThresholds::batteryThresholds() {
  auto bus = connect(busAddress_, callTimeout_);
  if (!bus) return std::nullopt;
  BusError error;
  sd_bus_message* raw = nullptr;
  if (sd_bus_call_method(bus.get(), kService, kManagerPath, kManagerInterface, "EnumerateDevices",
                         error.get(), &raw, "") < 0) {
    return std::nullopt;
  }
  std::unique_ptr<sd_bus_message, MessageReleaser> reply(raw);
  std::vector<std::string> paths;
  if (sd_bus_message_enter_container(reply.get(), 'a', "o") < 0) return std::nullopt;
  const char* path = nullptr;
  int r;
  while ((r = sd_bus_message_read(reply.get(), "o", &path)) > 0) paths.emplace_back(path);
  if (r < 0) return std::nullopt;

  std::vector<UPowerBatteryThreshold> batteries;
  for (const auto& p : paths) {
    const auto type = property<std::uint32_t>(bus.get(), p.c_str(), "Type", 'u');
    const auto powerSupply = property<int>(bus.get(), p.c_str(), "PowerSupply", 'b');
    if (type != kBatteryType || powerSupply.value_or(0) == 0) continue;
    // Absent from daemons older than the switch: such a device has nothing to report.
    if (auto enabled = property<int>(bus.get(), p.c_str(), "ChargeThresholdEnabled", 'b')) {
      batteries.push_back({p, *enabled != 0});
    }
  }
  return batteries;
}

}  // namespace quorel
