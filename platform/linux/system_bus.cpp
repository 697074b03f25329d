#include "platform/linux/system_bus.hpp"

#include <systemd/sd-bus.h>

#include <cstdlib>

namespace quorel {

void SystemBusCloser::operator()(sd_bus* bus) const {
  sd_bus_close_unref(bus);
}

SystemBusConnection connectSystemBus(const std::optional<std::string>& address,
                                     std::uint64_t callTimeout_us, const char* description) {
  SystemBusConnection out;
  if (address) {
    out.address = *address;
  } else if (const char* fromEnv = std::getenv("DBUS_SYSTEM_BUS_ADDRESS"); fromEnv && *fromEnv) {
    out.address = fromEnv;
  } else {
    out.address = std::string(kDefaultSystemBusAddress);
  }
  sd_bus* raw = nullptr;
  if (const int r = sd_bus_new(&raw); r < 0) {
    out.error = r;
    return out;
  }
  SystemBus bus(raw);
  sd_bus_set_description(bus.get(), description);
  sd_bus_set_method_call_timeout(bus.get(), callTimeout_us);
  int r = sd_bus_set_address(bus.get(), out.address.c_str());
  if (r >= 0) r = sd_bus_set_bus_client(bus.get(), 1);
  if (r >= 0) r = sd_bus_start(bus.get());
  if (r < 0) {
    out.error = r;
    return out;
  }
  out.bus = std::move(bus);
  return out;
}

}  // namespace quorel
