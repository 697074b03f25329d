#pragma once
// What the tool and server benchmarks share: the reading they publish, a command service that
// is never called, and a request sent over loopback.

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "control/battery_commands.hpp"
#include "core/power_state.hpp"

namespace quorel::bench {

// A laptop charging on a 96 W adapter, with component power and adapter details, so that every
// live tool has every key to write.
inline PowerState chargingState(TimePoint now, double watts, double percent) {
  PowerState s;
  s.phase = PowerPhase::charging;
  s.smoothedWattage = watts;
  s.batteryPercentage = percent;
  s.batteryInstalled = true;
  s.externalConnected = true;
  s.systemPowerIn_W = 41;
  s.timeRemaining_min = 48;
  s.temperature_C = 33;
  s.adapterWatts = 96;
  s.componentPower = ComponentPower{0.6, 3.1, 1.2, 0.0, 0.5, true};
  s.diagnostics = BatteryDiagnostics{};
  s.diagnostics->adapterInfo = AdapterInfo{"3.0", true, 0x05AC, 0x7109, 1, 96.0, {}, {}};
  s.timestamp = now;
  return s;
}

// The read tools are what is measured; the command tools are never called.
struct NoCommands final : BatteryCommands {
  JSONValue state() const override { return nullptr; }
  JSONValue automation() const override { return nullptr; }
  void setChargeLimit(std::int64_t, BatteryCommandCompletion) override {}
  void setForceDischarge(bool, BatteryCommandCompletion) override {}
  void setTopUp(bool, BatteryCommandCompletion) override {}
  BatteryCommandResult setSmartTopOffRules(std::vector<TopOffRule>) override { return nullptr; }
  BatteryCommandResult setHeatProtection(std::int64_t, std::int64_t) override { return nullptr; }
};

// Connects to the loopback port and sends the whole request; the descriptor to read the answer
// from and close, and whether the request went out.
inline int sendOnLoopback(std::uint16_t port, const std::string& request, bool& sent) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sent = ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
         ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) ==
             static_cast<ssize_t>(request.size());
  return fd;
}

}  // namespace quorel::bench
