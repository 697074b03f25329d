#include "platform/linux/system_bus.hpp"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace quorel {

namespace {

std::optional<std::string> fromEnvironment(const char* name) {
  const char* value = std::getenv(name);
  if (!value || !*value) return std::nullopt;
  return std::string(value);
}

}  // namespace

std::string BusCallError::text(int negativeErrno) const {
  if (error_.message) return error_.message;
  if (error_.name) return error_.name;
  return std::strerror(-negativeErrno);
}

void SystemBusCloser::operator()(sd_bus* bus) const {
  sd_bus_close_unref(bus);
}

std::optional<std::string> defaultBusAddress(MessageBusKind kind) {
  if (kind == MessageBusKind::system) {
    return fromEnvironment("DBUS_SYSTEM_BUS_ADDRESS")
        .value_or(std::string(kDefaultSystemBusAddress));
  }
  if (auto address = fromEnvironment("DBUS_SESSION_BUS_ADDRESS")) return address;
  if (auto runtime = fromEnvironment("XDG_RUNTIME_DIR")) return "unix:path=" + *runtime + "/bus";
  return std::nullopt;
}

SystemBusConnection connectMessageBus(MessageBusKind kind,
                                      const std::optional<std::string>& address,
                                      std::uint64_t callTimeout_us, const char* description) {
  SystemBusConnection out;
  const auto chosen = address ? address : defaultBusAddress(kind);
  if (!chosen) {
    out.error = -ENOENT;
    return out;
  }
  out.address = *chosen;
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
