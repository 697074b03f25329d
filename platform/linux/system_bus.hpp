#pragma once
// A connection to a message bus, the system's or the session's, with every call bounded: shared
// by the readers that ask logind, UPower and the like and by the desktop's notices.

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

enum class MessageBusKind { system, session };

struct SystemBusCloser {
  void operator()(sd_bus* bus) const;
};
using SystemBus = std::unique_ptr<sd_bus, SystemBusCloser>;

struct SystemBusConnection {
  SystemBus bus;        // null when the connection failed
  int error = 0;        // the negative errno of the step that failed
  std::string address;  // the address tried; empty when there was none to try
};

// The address a bus of `kind` is found at when none is given: $DBUS_SYSTEM_BUS_ADDRESS or the
// default for the system bus; $DBUS_SESSION_BUS_ADDRESS, else $XDG_RUNTIME_DIR/bus, for the
// session. Absent when the session has neither.
std::optional<std::string> defaultBusAddress(MessageBusKind kind);

// Connects to `address`, else to the default address of `kind`. Built by hand rather than with
// sd_bus_open_system or sd_bus_open_user so that `callTimeout_us` bounds the connection's
// greeting too.
SystemBusConnection connectMessageBus(MessageBusKind kind,
                                      const std::optional<std::string>& address,
                                      std::uint64_t callTimeout_us, const char* description);

inline SystemBusConnection connectSystemBus(const std::optional<std::string>& address,
                                            std::uint64_t callTimeout_us, const char* description) {
  return connectMessageBus(MessageBusKind::system, address, callTimeout_us, description);
}

inline SystemBusConnection connectSessionBus(const std::optional<std::string>& address,
                                             std::uint64_t callTimeout_us,
                                             const char* description) {
  return connectMessageBus(MessageBusKind::session, address, callTimeout_us, description);
}

}  // namespace quorel
