#pragma once
// A connection to a message bus, the system's or the session's, with every call bounded: shared
// by the readers that ask logind, UPower and the like and by the desktop's notices.

#include <systemd/sd-bus.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace quorel {

// What the system bus is when neither a bus address nor DBUS_SYSTEM_BUS_ADDRESS says otherwise.
inline constexpr std::string_view kDefaultSystemBusAddress =
    "unix:path=/run/dbus/system_bus_socket";

enum class MessageBusKind { system, session };

struct SystemBusCloser {
  void operator()(sd_bus* bus) const;
};
using SystemBus = std::unique_ptr<sd_bus, SystemBusCloser>;

struct BusSlotReleaser {
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using BusSlot = std::unique_ptr<sd_bus_slot, BusSlotReleaser>;
struct BusMessageReleaser {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using BusMessage = std::unique_ptr<sd_bus_message, BusMessageReleaser>;

// The error a call fills in, freed with it.
class BusCallError {
 public:
  BusCallError() = default;
  BusCallError(const BusCallError&) = delete;
  BusCallError& operator=(const BusCallError&) = delete;
  ~BusCallError() { sd_bus_error_free(&error_); }
  sd_bus_error* get() { return &error_; }
  // The service's message, else the error's name, else the text of `negativeErrno`.
  std::string text(int negativeErrno) const;

 private:
  sd_bus_error error_{};  // SD_BUS_ERROR_NULL is a C compound literal
};

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
