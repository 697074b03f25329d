#include "platform/linux/linux_powercap_component_sampler.hpp"

#include <fmt/format.h>
#include <spdlog/logger.h>

#include <algorithm>
#include <map>

#include "core/logging.hpp"

namespace quorel {

namespace {

constexpr std::string_view kRootOnlyMessage =
    "energy counters are readable by root only — component power unavailable until the helper "
    "is installed";

// One package's zones, added up by role.
struct PackageFigures {
  std::optional<double> package;
  bool hasCore = false;
  double core = 0;
  double uncore = 0;
  double dram = 0;

  double cores() const {
    if (hasCore) return core;
    // Without a core zone the package less what is not the cores is the closest figure.
    return package ? std::max(0.0, *package - uncore - dram) : 0.0;
  }
};

double bounded(const std::optional<double>& watts) {
  return watts && *watts >= 0 && *watts <= LinuxPowercapComponentSampler::kMaxZoneWatts ? *watts
                                                                                        : 0.0;
}

}  // namespace

LinuxPowercapComponentSampler::LinuxPowercapComponentSampler(std::filesystem::path powercapRoot,
                                                             AttributeReader read,
                                                             KernelClockSource clocks)
    : root_(std::move(powercapRoot)),
      read_(std::move(read)),
      clocks_(std::move(clocks)),
      log_(logging::get("Powercap")) {
  discover();
  std::string zones;
  for (const auto& zone : counters_->zones()) {
    zones += fmt::format("{}{} ({})", zones.empty() ? "" : ", ", zone.id, zone.name);
  }
  log_->info("init: energy zones = [{}], isAvailable={}", zones, available_);
}

void LinuxPowercapComponentSampler::discoverGpus() {
  std::vector<GpuPowerSource> discrete;
  std::string found;
  for (auto& source : discoverGpuPowerSources(root_.parent_path() / "drm", read_)) {
    found += fmt::format(
        "{}{} ({}{})", found.empty() ? "" : ", ", source.card, source.file.filename().string(),
        source.integrated ? ", integrated: processor's power included, unused" : "");
    if (!source.integrated) discrete.push_back(std::move(source));
  }
  if (!found.empty()) log_->info("init: GPU power readings = [{}]", found);
  gpus_ = std::make_unique<GpuPowerMeter>(std::move(discrete), read_, clocks_);
}

LinuxPowercapComponentSampler::~LinuxPowercapComponentSampler() = default;

// The whole-machine zone belongs to the rails, not to the breakdown of the chip.
void LinuxPowercapComponentSampler::discover() {
  discoverGpus();
  PowercapDiscovery discovery = discoverPowercapZones(root_, read_);
  if (discovery.error) log_->warn("init: {} — component power unavailable", *discovery.error);
  std::erase_if(discovery.zones,
                [](const PowercapZone& z) { return z.kind == PowercapZoneKind::psys; });
  counters_ = std::make_unique<EnergyCounterSet>(std::move(discovery.zones), read_, clocks_);
  available_ = false;
  if (counters_->zones().empty()) return;
  // One reading tells whether the counters may be read by this user at all. It is not kept as
  // a baseline: the first sample() starts the measurement, as for any sampler.
  const EnergyCounterSet::Reading probe = counters_->read();
  counters_->reset();
  if (probe.outcome == EnergyCounterSet::Outcome::denied) {
    reportDenied();
    return;
  }
  available_ = true;
}

void LinuxPowercapComponentSampler::reportDenied() {
  available_ = false;
  if (deniedLogged_) return;
  deniedLogged_ = true;
  log_->warn("{}", kRootOnlyMessage);
}

std::optional<ComponentPower> LinuxPowercapComponentSampler::recordFailure(
    const std::string& what) {
  ++consecutiveFailures_;
  log_->warn("sample: {} (consecutive failures: {})", what, consecutiveFailures_);
  if (consecutiveFailures_ >= kRediscoverAfterFailures) {
    log_->warn("sample: {} consecutive failures — rediscovering energy zones",
               consecutiveFailures_);
    discover();
    consecutiveFailures_ = 0;
    log_->info("rediscover: zones={}, isAvailable={}", counters_->zones().size(), available_);
  }
  return std::nullopt;
}

std::optional<ComponentPower> LinuxPowercapComponentSampler::sample() {
  if (!available_) {
    log_->debug("sample: unavailable (isAvailable={})", available_);
    return std::nullopt;
  }
  const EnergyCounterSet::Reading reading = counters_->read();
  // The GPUs' counters keep the same baselines as the zones': taken when the zones take theirs,
  // kept while a call comes too soon, dropped with them.
  switch (reading.outcome) {
    case EnergyCounterSet::Outcome::first:
      gpus_->reset();
      gpus_->read();
      return std::nullopt;
    case EnergyCounterSet::Outcome::tooShort:
      return std::nullopt;
    case EnergyCounterSet::Outcome::sleptBetween:
      log_->info("sample: skipping sleep-boundary sample (slept {:.1f}s between readings)",
                 reading.slept.count());
      consecutiveFailures_ = 0;
      gpus_->reset();
      gpus_->read();
      return std::nullopt;
    case EnergyCounterSet::Outcome::denied:
      gpus_->reset();
      reportDenied();
      return std::nullopt;
    case EnergyCounterSet::Outcome::failed:
      gpus_->reset();
      return recordFailure(reading.failure);
    case EnergyCounterSet::Outcome::measured:
      break;
  }
  consecutiveFailures_ = 0;
  ComponentPower power = combine(reading);
  // The kernel has no efficiency-core counter, so the cores and memory reading exactly nothing
  // across a whole sample means the counters stalled, not that the machine drew nothing.
  power.cpuAndMemoryAvailable =
      !(power.ecpuWatts == 0 && power.pcpuWatts == 0 && power.dramWatts == 0);
  log_->debug("sample ok: ecpu={:f} pcpu={:f} gpu={:f} ane={:f} dram={:f}", power.ecpuWatts,
              power.pcpuWatts, power.gpuWatts, power.aneWatts, power.dramWatts);
  return power;
}

ComponentPower LinuxPowercapComponentSampler::combine(const EnergyCounterSet::Reading& reading) {
  std::map<std::string, PackageFigures> packages;
  const auto& zones = counters_->zones();
  for (std::size_t i = 0; i < zones.size(); ++i) {
    const PowercapZone& zone = zones[i];
    const double watts = bounded(reading.watts[i]);
    PackageFigures& figures = packages[zone.groupId];
    switch (zone.kind) {
      case PowercapZoneKind::package:
        figures.package = figures.package.value_or(0) + watts;
        break;
      case PowercapZoneKind::core:
        figures.hasCore = true;
        figures.core += watts;
        break;
      case PowercapZoneKind::uncore:
        figures.uncore += watts;
        break;
      case PowercapZoneKind::dram:
        figures.dram += watts;
        break;
      case PowercapZoneKind::psys:
        break;
      case PowercapZoneKind::unknown:
        if (loggedUnknownZones_.insert(zone.name).second) {
          log_->info("unmapped powercap zone '{}' ({:.2f} W) — contribution dropped from breakdown",
                     zone.name, watts);
        }
        break;
    }
  }
  ComponentPower power;
  for (const auto& [group, figures] : packages) {
    power.pcpuWatts += figures.cores();
    power.gpuWatts += figures.uncore;
    power.dramWatts += figures.dram;
  }
  if (!gpus_->sources().empty()) {
    // A GPU's own reading is the better figure for graphics; the uncore zone holds more than
    // the integrated graphics, and nothing of a discrete card.
    power.gpuWatts = 0;
    for (const std::optional<double>& watts : gpus_->read()) power.gpuWatts += bounded(watts);
  }
  return power;
}

}  // namespace quorel
