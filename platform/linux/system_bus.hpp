#pragma once
// A connection to the system's message bus with every call bounded, shared by the readers that
// ask logind, UPower and the like.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct sd_bus;

namespace quorel {

// What the system bus is when neither a bus address nor DBUS_SYSTEM_BUS_ADDRESS says otherwise.
inline constexpr std::string_view kDefaultSystemBusAddress =
    "unix:path=/run/dbus/system_bus_socket";

struct SystemBusCloser {
  void operator()(sd_bus* bus) const;
};
using SystemBus = std::unique_ptr<sd_bus, SystemBusCloser>;

struct SystemBusConnection {
  SystemBus bus;        // null when the connection failed
  int error = 0;        // the negative errno of the step that failed
  std::string address;  // the address tried
};

// Connects to `address`, else $DBUS_SYSTEM_BUS_ADDRESS, else the default. Built by hand rather
// than with sd_bus_open_system so that `callTimeout_us` bounds the connection's greeting too.
SystemBusConnection connectSystemBus(const std::optional<std::string>& address,
                                     std::uint64_t callTimeout_us, const char* description);

}  // namespace quorel
