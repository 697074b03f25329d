#pragma once
// Sleep and wake on Linux, from systemd-logind's PrepareForSleep(boolean) signal on the system
// bus: true just before the machine sleeps, false once it has woken. The bus connection lives on
// a queue of its own ("quorel.logind"), so a slow or silent bus never holds up the delivery
// queue; each signal is posted to the delivery queue as willSleep or didWake, in the order sent.
// Only signals from the owner of org.freedesktop.login1 count. While awake it holds logind's
// delay lock on sleep, so the machine waits (at most logind's InhibitDelayMaxSec) until the
// willSleep handler's permit is let go: what the agent has measured is saved before a battery
// can die asleep. The lock is asked for again at every wake.

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/serial_queue.hpp"
#include "telemetry/sleep_wake_source.hpp"

namespace spdlog {
class logger;
}

namespace quorel {

class LogindSleepMonitor final : public SleepWakeSource {
 public:
  static constexpr std::string_view kSourceName = "logind PrepareForSleep";

  // `deliveryQueue` (the main queue) runs the handlers and must outlive this monitor.
  // `busAddress` is a D-Bus address such as "unix:path=/tmp/bus"; absent means the system bus.
  explicit LogindSleepMonitor(SerialQueue& deliveryQueue,
                              std::optional<std::string> busAddress = std::nullopt);
  // Stops.
  ~LogindSleepMonitor() override;
  LogindSleepMonitor(const LogindSleepMonitor&) = delete;
  LogindSleepMonitor& operator=(const LogindSleepMonitor&) = delete;

  // Connects and subscribes before returning, so every signal sent after a true return is seen.
  // Waits at most a couple of seconds for an unresponsive bus. With no bus, or a bus that
  // refuses the subscription, logs a warning (category "AppDelegate", the first failure only)
  // and returns false. A running monitor is stopped first. Call start and stop from one thread,
  // normally the delivery queue.
  bool start(Handlers handlers) override;
  // Closes the connection and joins its queue; returns as soon as that queue finishes the
  // message in hand.
  void stop() override;
  std::string sourceName() const override { return std::string(kSourceName); }

  // Whether logind's delay lock is held now. Thread-safe.
  bool holdsDelayLock() const;

  // Well-formed PrepareForSleep signals received since construction. Thread-safe.
  std::uint64_t signalsReceived() const { return signalsReceived_.load(); }

 private:
  struct Connection;
  struct Delivery;
  struct DelayLock;

  SerialQueue& deliveryQueue_;
  std::optional<std::string> busAddress_;
  std::shared_ptr<spdlog::logger> log_;
  std::atomic<std::uint64_t> signalsReceived_{0};
  bool reportedFailure_ = false;
  std::shared_ptr<Delivery> delivery_;
  std::shared_ptr<DelayLock> delayLock_;
  std::unique_ptr<SerialQueue> busQueue_;
  std::shared_ptr<Connection> connection_;
};

}  // namespace quorel
