#include "platform/linux/linux_thermal_monitor.hpp"

#include <fmt/format.h>
#include <spdlog/logger.h>

#include <algorithm>
#include <cstring>

#include "core/logging.hpp"
#include "platform/linux/sysfs_attributes.hpp"

namespace quorel {

namespace {

// Readings outside this range are a sensor's error codes or placeholders, not temperatures.
constexpr std::int64_t kMinZone_mC = -50'000;
constexpr std::int64_t kMaxZone_mC = 200'000;
constexpr std::int64_t kCriticalMargin_mC = 5'000;
constexpr std::int64_t kSeriousMargin_mC = 15'000;
constexpr std::int64_t kFairBelowSerious_mC = 10'000;

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

std::optional<std::int64_t> readInteger(const std::filesystem::path& path) {
  auto text = sysfs::readFile(path);
  if (!text) return std::nullopt;
  return sysfs::parseInteger(*text);
}

std::optional<ThermalZoneReading> readZone(const std::filesystem::path& dir, std::string name) {
  if (auto mode = sysfs::readFile(dir / "mode"); mode && sysfs::trim(*mode) == "disabled") {
    return std::nullopt;
  }
  auto temp = readInteger(dir / "temp");
  if (!temp || *temp < kMinZone_mC || *temp > kMaxZone_mC) return std::nullopt;
  ThermalZoneReading zone;
  zone.name = std::move(name);
  zone.temp_mC = *temp;
  if (auto type = sysfs::readFile(dir / "type")) zone.type = std::string(sysfs::trim(*type));
  // Trip points are numbered from 0 without gaps; the first missing one ends the list.
  for (int i = 0;; ++i) {
    auto typeText = sysfs::readFile(dir / fmt::format("trip_point_{}_type", i));
    if (!typeText) break;
    auto tripTemp = readInteger(dir / fmt::format("trip_point_{}_temp", i));
    if (!tripTemp || *tripTemp <= 0 || *tripTemp > kMaxZone_mC) continue;
    zone.trips.push_back({std::string(sysfs::trim(*typeText)), *tripTemp});
  }
  return zone;
}

std::optional<std::int64_t> lowestTrip(const ThermalZoneReading& zone, std::string_view type) {
  std::optional<std::int64_t> lowest;
  for (const auto& trip : zone.trips) {
    if (trip.type == type) lowest = lowest ? std::min(*lowest, trip.temp_mC) : trip.temp_mC;
  }
  return lowest;
}

std::string describeZone(const ThermalZoneReading& zone) {
  return fmt::format("zone {} ({}) at {:.1f} °C", zone.type.empty() ? zone.name : zone.type,
                     zone.name, static_cast<double>(zone.temp_mC) / 1000.0);
}

}  // namespace

ThermalZoneScan readThermalZones(const std::filesystem::path& thermalRoot) {
  ThermalZoneScan scan;
  int error = 0;
  auto names = sysfs::listDirectory(thermalRoot, &error);
  if (!names) {
    scan.error = fmt::format("cannot list {} ({})", thermalRoot.string(), std::strerror(error));
    return scan;
  }
  for (auto& name : *names) {
    if (!startsWith(name, "thermal_zone")) continue;
    auto dir = thermalRoot / name;
    if (auto zone = readZone(dir, std::move(name))) scan.zones.push_back(std::move(*zone));
  }
  return scan;
}

std::optional<ThermalState> thermalStateOfZone(const ThermalZoneReading& zone) {
  auto hot = lowestTrip(zone, "hot");
  auto critical = lowestTrip(zone, "critical");
  auto passive = lowestTrip(zone, "passive");
  auto active = lowestTrip(zone, "active");

  std::optional<std::int64_t> limit = hot;
  if (critical) limit = limit ? std::min(*limit, *critical) : *critical;

  std::optional<std::int64_t> criticalAt =
      hot ? hot : (critical ? std::optional(*critical - kCriticalMargin_mC) : std::nullopt);
  std::optional<std::int64_t> seriousAt =
      passive ? passive : (limit ? std::optional(*limit - kSeriousMargin_mC) : std::nullopt);
  std::optional<std::int64_t> fairAt =
      active ? active
             : (seriousAt ? std::optional(*seriousAt - kFairBelowSerious_mC) : std::nullopt);
  if (!criticalAt && !seriousAt && !fairAt) return std::nullopt;
  // Firmware may set a fan trip above the throttling one; the ladder must still climb.
  if (seriousAt && criticalAt) seriousAt = std::min(*seriousAt, *criticalAt);
  if (fairAt && seriousAt) fairAt = std::min(*fairAt, *seriousAt);

  const auto t = zone.temp_mC;
  if (criticalAt && t >= *criticalAt) return ThermalState::critical;
  if (seriousAt && t >= *seriousAt) return ThermalState::serious;
  if (fairAt && t >= *fairAt) return ThermalState::fair;
  return ThermalState::nominal;
}

ThermalAssessment assessThermalZones(const std::vector<ThermalZoneReading>& zones) {
  ThermalAssessment result;
  for (const auto& zone : zones) {
    auto state = thermalStateOfZone(zone);
    if (!state) continue;
    bool worse = !result.decidingZone || *state > result.state ||
                 (*state == result.state && zone.temp_mC > result.decidingZone->temp_mC);
    if (worse) {
      result.state = *state;
      result.decidingZone = zone;
    }
  }
  return result;
}

LinuxThermalMonitor::LinuxThermalMonitor(std::filesystem::path thermalRoot)
    : root_(std::move(thermalRoot)), log_(logging::get("Thermal")) {}

LinuxThermalMonitor::~LinuxThermalMonitor() {
  stop();
}

ThermalState LinuxThermalMonitor::currentThermalState() const {
  std::lock_guard lock(stateMutex_);
  return state_;
}

ThermalState LinuxThermalMonitor::sample() {
  auto scan = readThermalZones(root_);
  std::optional<std::string> failure = scan.error;
  if (!failure && scan.zones.empty()) {
    failure = fmt::format("no thermal zone can be read in {}", root_.string());
  }
  if (failure) {
    failedSamples_.fetch_add(1);
    ThermalState kept = currentThermalState();
    if (failure != loggedFailure_) {
      log_->warn("{} — thermal state stays {}", *failure, toString(kept));
      loggedFailure_ = failure;
    }
    return kept;
  }
  if (loggedFailure_) {
    log_->info("thermal zones in {} readable again", root_.string());
    loggedFailure_.reset();
  }

  auto assessment = assessThermalZones(scan.zones);
  ThermalState previous;
  {
    std::lock_guard lock(stateMutex_);
    previous = state_;
    state_ = assessment.state;
  }
  if (assessment.state != previous) {
    log_->info("thermal state changed from {} to {} — {}", toString(previous),
               toString(assessment.state),
               assessment.decidingZone ? describeZone(*assessment.decidingZone)
                                       : std::string("no zone has a usable trip point"));
  }
  return assessment.state;
}

void LinuxThermalMonitor::start(SerialQueue& queue, Seconds period) {
  timer_ = queue.every(Seconds{0}, period, [this] { sample(); });
}

void LinuxThermalMonitor::stop() {
  timer_.cancel();
}

}  // namespace quorel
