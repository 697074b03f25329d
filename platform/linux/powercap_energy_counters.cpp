#include "platform/linux/powercap_energy_counters.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "core/enum_text.hpp"
#include "platform/linux/sysfs_attributes.hpp"

namespace quorel {

namespace {

constexpr EnumTextTable kZoneNames{std::array{
    std::pair{PowercapZoneKind::core, std::string_view{"core"}},
    std::pair{PowercapZoneKind::uncore, std::string_view{"uncore"}},
    std::pair{PowercapZoneKind::dram, std::string_view{"dram"}},
    std::pair{PowercapZoneKind::psys, std::string_view{"psys"}},
}};

Seconds clockSeconds(clockid_t id) {
  timespec ts{};
  ::clock_gettime(id, &ts);
  return Seconds{static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9};
}

bool allDigits(std::string_view text) {
  if (text.empty()) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

std::optional<std::uint64_t> parseCounter(std::string_view text) {
  auto value = sysfs::parseInteger(text);
  if (!value || *value < 0) return std::nullopt;
  return static_cast<std::uint64_t>(*value);
}

}  // namespace

KernelClockReading readKernelClocks() {
  KernelClockReading reading;
  reading.monotonic = clockSeconds(CLOCK_MONOTONIC);
  reading.boottime = clockSeconds(CLOCK_BOOTTIME);
  return reading;
}

AttributeReader sysfsAttributeReader() {
  return [](const std::filesystem::path& path, int* error) { return sysfs::readFile(path, error); };
}

PowercapZoneKind powercapZoneKind(std::string_view name) {
  constexpr std::string_view kPackagePrefix = "package-";
  if (name.substr(0, kPackagePrefix.size()) == kPackagePrefix &&
      allDigits(name.substr(kPackagePrefix.size()))) {
    return PowercapZoneKind::package;
  }
  return kZoneNames.parse(name).value_or(PowercapZoneKind::unknown);
}

std::optional<std::string> powercapZoneGroup(std::string_view directoryName) {
  constexpr std::string_view kMarker = "-rapl:";
  const auto marker = directoryName.find(kMarker);
  if (marker == std::string_view::npos || marker == 0) return std::nullopt;
  const std::string_view indices = directoryName.substr(marker + kMarker.size());
  const auto colon = indices.find(':');
  const std::string_view first = indices.substr(0, colon);
  if (!allDigits(first)) return std::nullopt;
  if (colon != std::string_view::npos && !allDigits(indices.substr(colon + 1))) {
    return std::nullopt;
  }
  return std::string(directoryName.substr(0, marker + kMarker.size() + first.size()));
}

PowercapDiscovery discoverPowercapZones(const std::filesystem::path& powercapRoot,
                                        const AttributeReader& read) {
  PowercapDiscovery discovery;
  int error = 0;
  auto names = sysfs::listDirectory(powercapRoot, &error);
  if (!names) {
    discovery.error =
        fmt::format("cannot list {} ({})", powercapRoot.string(), std::strerror(error));
    return discovery;
  }
  for (auto& id : *names) {
    auto group = powercapZoneGroup(id);
    if (!group) continue;
    const auto dir = powercapRoot / id;
    auto name = read(dir / "name", nullptr);
    if (!name) continue;
    PowercapZone zone;
    zone.name = std::string(sysfs::trim(*name));
    zone.kind = powercapZoneKind(zone.name);
    zone.groupId = std::move(*group);
    zone.dir = dir;
    if (auto range = read(dir / "max_energy_range_uj", nullptr)) {
      zone.maxEnergyRange_uJ = parseCounter(*range);
    }
    zone.id = std::move(id);
    discovery.zones.push_back(std::move(zone));
  }
  return discovery;
}

std::optional<std::uint64_t> energyDelta_uJ(std::uint64_t previous, std::uint64_t current,
                                            std::optional<std::uint64_t> maxRange) {
  if (current >= previous) return current - previous;
  if (!maxRange || *maxRange < previous) return std::nullopt;
  return *maxRange - previous + current;
}

EnergyCounterSet::EnergyCounterSet(std::vector<PowercapZone> zones, AttributeReader read,
                                   KernelClockSource clocks)
    : zones_(std::move(zones)), read_(std::move(read)), clocks_(std::move(clocks)) {}

EnergyCounterSet::Reading EnergyCounterSet::read() {
  Reading reading;
  Snapshot now;
  now.energy_uJ.reserve(zones_.size());
  for (const auto& zone : zones_) {
    int error = 0;
    auto text = read_(zone.dir / "energy_uj", &error);
    if (!text && (error == EACCES || error == EPERM)) {
      previous_.reset();
      reading.outcome = Outcome::denied;
      reading.failure =
          fmt::format("energy_uj of {} not readable ({})", zone.id, std::strerror(error));
      return reading;
    }
    auto energy = text ? parseCounter(*text) : std::nullopt;
    if (!energy) {
      previous_.reset();
      reading.outcome = Outcome::failed;
      reading.failure =
          text ? fmt::format("energy_uj of {} is not a counter", zone.id)
               : fmt::format("energy_uj of {} unreadable ({})", zone.id, std::strerror(error));
      return reading;
    }
    now.energy_uJ.push_back(*energy);
  }
  now.clocks = clocks_();

  if (!previous_) {
    previous_ = std::move(now);
    return reading;
  }
  const Seconds elapsed = now.clocks.monotonic - previous_->clocks.monotonic;
  const Seconds slept = (now.clocks.boottime - previous_->clocks.boottime) - elapsed;
  if (slept > kSleepTolerance) {
    reading.outcome = Outcome::sleptBetween;
    reading.slept = slept;
    previous_ = std::move(now);
    return reading;
  }
  if (elapsed < kMinimumInterval) {
    reading.outcome = Outcome::tooShort;
    reading.interval = elapsed;
    return reading;
  }
  reading.outcome = Outcome::measured;
  reading.interval = elapsed;
  reading.watts.reserve(zones_.size());
  for (std::size_t i = 0; i < zones_.size(); ++i) {
    auto delta =
        energyDelta_uJ(previous_->energy_uJ[i], now.energy_uJ[i], zones_[i].maxEnergyRange_uJ);
    if (delta) {
      reading.watts.emplace_back(static_cast<double>(*delta) * 1e-6 / elapsed.count());
    } else {
      reading.watts.emplace_back(std::nullopt);
    }
  }
  previous_ = std::move(now);
  return reading;
}

}  // namespace quorel
