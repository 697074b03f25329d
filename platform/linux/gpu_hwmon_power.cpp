#include "platform/linux/gpu_hwmon_power.hpp"

#include <system_error>

#include "platform/linux/sysfs_attributes.hpp"

namespace quorel {

namespace {

struct ReadingFile {
  std::string_view name;
  GpuReadingKind kind;
};

// In order of preference: a counter averages over the whole interval between samples, as the
// powercap figures beside it do; a driver's average comes next; an instant figure last.
constexpr ReadingFile kReadingFiles[] = {
    {"energy1_input", GpuReadingKind::energy},
    {"power1_average", GpuReadingKind::averagePower},
    {"power1_input", GpuReadingKind::instantPower},
};

bool isCardName(std::string_view name) {
  constexpr std::string_view kPrefix = "card";
  if (name.size() <= kPrefix.size() || name.substr(0, kPrefix.size()) != kPrefix) return false;
  for (char c : name.substr(kPrefix.size())) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

std::optional<GpuPowerSource> findReading(const std::filesystem::path& device) {
  const auto monitors = sysfs::listDirectory(device / "hwmon");
  if (!monitors) return std::nullopt;
  for (const ReadingFile& candidate : kReadingFiles) {
    for (const auto& monitor : *monitors) {
      const auto file = device / "hwmon" / monitor / candidate.name;
      std::error_code ignored;
      if (std::filesystem::is_regular_file(file, ignored)) {
        GpuPowerSource source;
        source.device = device;
        source.file = file;
        source.kind = candidate.kind;
        return source;
      }
    }
  }
  return std::nullopt;
}

std::optional<std::int64_t> readInteger(const AttributeReader& read,
                                        const std::filesystem::path& path) {
  const auto text = read(path, nullptr);
  if (!text) return std::nullopt;
  return sysfs::parseInteger(*text);
}

}  // namespace

bool isIntegratedGpu(const std::filesystem::path& device, const AttributeReader& read) {
  const auto memory = readInteger(read, device / "mem_info_vram_total");
  return memory && *memory >= 0 && *memory <= kMaxIntegratedGpuMemory_bytes;
}

std::vector<GpuPowerSource> discoverGpuPowerSources(const std::filesystem::path& drmRoot,
                                                    const AttributeReader& read) {
  std::vector<GpuPowerSource> sources;
  const auto cards = sysfs::listDirectory(drmRoot);
  if (!cards) return sources;
  for (const auto& card : *cards) {
    if (!isCardName(card)) continue;
    const auto device = drmRoot / card / "device";
    auto source = findReading(device);
    if (!source) continue;
    source->card = card;
    source->integrated = isIntegratedGpu(device, read);
    sources.push_back(std::move(*source));
  }
  return sources;
}

GpuPowerMeter::GpuPowerMeter(std::vector<GpuPowerSource> sources, AttributeReader read,
                             KernelClockSource clocks)
    : sources_(std::move(sources)),
      read_(std::move(read)),
      clocks_(std::move(clocks)),
      previousEnergy_uJ_(sources_.size()) {}

void GpuPowerMeter::reset() {
  previousClocks_.reset();
  previousEnergy_uJ_.assign(sources_.size(), std::nullopt);
}

std::vector<std::optional<double>> GpuPowerMeter::read() {
  std::vector<std::optional<double>> watts(sources_.size());
  std::vector<std::optional<std::uint64_t>> energy(sources_.size());
  for (std::size_t i = 0; i < sources_.size(); ++i) {
    const auto status = read_(sources_[i].device / "power/runtime_status", nullptr);
    if (status && sysfs::trim(*status) == "suspended") {
      watts[i] = 0.0;
      continue;
    }
    const auto value = readInteger(read_, sources_[i].file);
    if (!value || *value < 0) continue;
    if (sources_[i].kind == GpuReadingKind::energy) {
      energy[i] = static_cast<std::uint64_t>(*value);
    } else {
      watts[i] = static_cast<double>(*value) * 1e-6;
    }
  }
  const KernelClockReading now = clocks_();
  if (previousClocks_) {
    const Seconds elapsed = now.monotonic - previousClocks_->monotonic;
    const Seconds slept = (now.boottime - previousClocks_->boottime) - elapsed;
    const bool measurable = slept <= EnergyCounterSet::kSleepTolerance && elapsed.count() > 0;
    for (std::size_t i = 0; i < sources_.size(); ++i) {
      if (!measurable || !energy[i] || !previousEnergy_uJ_[i]) continue;
      // The counters are 64 bits wide and do not wrap in practice; going backwards means the
      // driver was reloaded, and that pair says nothing.
      if (const auto delta = energyDelta_uJ(*previousEnergy_uJ_[i], *energy[i], std::nullopt)) {
        watts[i] = static_cast<double>(*delta) * 1e-6 / elapsed.count();
      }
    }
  }
  previousClocks_ = now;
  previousEnergy_uJ_ = std::move(energy);
  return watts;
}

}  // namespace quorel
