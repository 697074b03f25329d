#pragma once
// The system's thermal state on Linux, from the kernel's thermal zones (normally
// /sys/class/thermal). Each zone is judged against its own trip points, where the firmware
// says fans start, throttling starts and the machine must shut down; the zone furthest up its
// ladder sets the state. Sampled on a schedule of its own; the monitor only reads the last
// result, under a lock.

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/clock.hpp"
#include "core/serial_queue.hpp"
#include "telemetry/power_data_provider.hpp"

namespace spdlog {
class logger;
}

namespace quorel {

struct ThermalTripPoint {
  std::string type;  // "active", "passive", "hot" or "critical"
  std::int64_t temp_mC = 0;
  bool operator==(const ThermalTripPoint&) const = default;
};

struct ThermalZoneReading {
  std::string name;  // e.g. "thermal_zone3"
  std::string type;  // e.g. "x86_pkg_temp", "acpitz"
  std::int64_t temp_mC = 0;
  std::vector<ThermalTripPoint> trips;
  bool operator==(const ThermalZoneReading&) const = default;
};

struct ThermalZoneScan {
  std::vector<ThermalZoneReading> zones;  // readable, enabled zones, in name order
  // Set when the class directory could not be listed.
  std::optional<std::string> error;
};

// Reads every thermal_zone* under `thermalRoot` (e.g. /sys/class/thermal). A zone that is
// disabled, or whose temperature is unreadable or absurd, is left out; so is a trip point that
// is unreadable or not above 0 °C (the firmware's way of saying "unused").
ThermalZoneScan readThermalZones(const std::filesystem::path& thermalRoot);

// The state one zone is in against its trips; absent when it has no usable trip. Fans
// starting (the lowest active trip) is fair, throttling (the lowest passive trip) serious, the
// hot trip critical. Rungs the firmware does not name are set under the ones it does: critical
// from 5 °C under the critical trip, serious from 15 °C under it, fair from 10 °C under serious.
std::optional<ThermalState> thermalStateOfZone(const ThermalZoneReading& zone);

struct ThermalAssessment {
  ThermalState state = ThermalState::nominal;
  // The zone that decided, absent when no zone had a usable trip point.
  std::optional<ThermalZoneReading> decidingZone;
  bool operator==(const ThermalAssessment&) const = default;
};

// The worst state among the zones; between zones in the same state, the hotter one decides.
ThermalAssessment assessThermalZones(const std::vector<ThermalZoneReading>& zones);

class LinuxThermalMonitor final : public ThermalStateSource {
 public:
  static constexpr std::string_view kDefaultRoot = "/sys/class/thermal";
  static constexpr Seconds kDefaultPeriod{5.0};

  explicit LinuxThermalMonitor(std::filesystem::path thermalRoot);
  ~LinuxThermalMonitor() override;
  LinuxThermalMonitor(const LinuxThermalMonitor&) = delete;
  LinuxThermalMonitor& operator=(const LinuxThermalMonitor&) = delete;

  // The state of the last sample; nominal before the first. Thread-safe.
  ThermalState currentThermalState() const override;

  // Reads the zones now, stores the result and logs (category "Thermal") when the state
  // changes or the zones become unreadable or readable again. A failed read keeps the last
  // state. Calls must not overlap: make them from one queue.
  ThermalState sample();

  // Samples now and then every `period` on `queue`, which must outlive this monitor or
  // outlast it only until stop(). Calling start again replaces the schedule.
  void start(SerialQueue& queue, Seconds period = kDefaultPeriod);
  void stop();

  // Samples that could not read a single zone. Thread-safe.
  std::uint64_t failedSampleCount() const { return failedSamples_.load(); }

 private:
  std::filesystem::path root_;
  std::shared_ptr<spdlog::logger> log_;
  mutable std::mutex stateMutex_;
  ThermalState state_ = ThermalState::nominal;
  std::atomic<std::uint64_t> failedSamples_{0};
  // Touched by sample() only.
  std::optional<std::string> loggedFailure_;
  TimerHandle timer_;
};

}  // namespace quorel
