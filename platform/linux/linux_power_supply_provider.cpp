#include "platform/linux/linux_power_supply_provider.hpp"

#include <fmt/format.h>
#include <spdlog/logger.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "core/enum_text.hpp"
#include "core/logging.hpp"
#include "platform/linux/power_supply_scan.hpp"

namespace quorel {

namespace {

// Bounds past which a figure is not a laptop battery's but a driver's garbage; such a value is
// treated as missing. Units are the kernel's: µV, µA, µW, µAh, µWh, tenths of a degree.
constexpr std::int64_t kMaxVoltage_uV = 100'000'000;
constexpr std::int64_t kMaxCurrent_uA = 100'000'000;
constexpr std::int64_t kMaxPower_uW = 1'000'000'000;
constexpr std::int64_t kMaxCharge_uAh = 1'000'000'000;
constexpr std::int64_t kMaxEnergy_uWh = 10'000'000'000;
constexpr std::int64_t kMaxCycleCount = 100'000;
constexpr std::int64_t kMinTemperature_dC = -400;
constexpr std::int64_t kMaxTemperature_dC = 1500;
constexpr std::int64_t kMaxSeconds = std::numeric_limits<std::int32_t>::max();
// A gauge estimate outside 1 to 5999 minutes means the gauge has none.
constexpr std::int64_t kMaxEstimate_min = 5999;

std::optional<std::int64_t> bounded(const sysfs::SysfsDevice& device, std::string_view name,
                                    std::int64_t low, std::int64_t high) {
  auto value = device.integerProperty(name);
  if (!value || *value < low || *value > high) return std::nullopt;
  return value;
}

std::int64_t roundToInt(double value) {
  return static_cast<std::int64_t>(std::llround(value));
}

std::optional<std::int64_t> estimateMinutes(std::optional<std::int64_t> seconds) {
  if (!seconds) return std::nullopt;
  std::int64_t minutes = roundToInt(static_cast<double>(*seconds) / 60.0);
  if (minutes < 1 || minutes > kMaxEstimate_min) return std::nullopt;
  return minutes;
}

// One system battery, in the kernel's units, its current already signed by its status.
struct PackReading {
  double voltage_uV = 0;
  double current_uA = 0;
  double averageCurrent_uA = 0;
  std::optional<double> charge_uAh;
  std::optional<double> full_uAh;
  std::optional<double> design_uAh;
  std::optional<std::int64_t> cycleCount;
  std::optional<std::int64_t> temperature_dC;
  std::optional<std::int64_t> capacityPercent;
  std::optional<std::int64_t> timeToEmpty_s;
  std::optional<std::int64_t> timeToFull_s;
  std::optional<std::int64_t> timeToEmptyAverage_s;
  std::optional<std::string> serial;
  PowerSupplyPackDiagnostics diagnostics;

  bool charging() const { return diagnostics.status == "Charging"; }
  bool full() const { return diagnostics.status == "Full"; }
};

struct PackResult {
  std::optional<PackReading> pack;
  std::optional<std::string> failure;
};

// Many drivers (the ACPI battery among them) report a positive magnitude whatever the
// direction, so the status decides: positive only while charging.
double signedByStatus(double raw, bool charging, bool* corrected) {
  if (corrected != nullptr && raw != 0 && (raw > 0) != charging) *corrected = true;
  return charging ? std::abs(raw) : -std::abs(raw);
}

PackResult readPack(const PowerSupplyEntry& supply) {
  const auto& d = supply.device;
  PackReading p;
  p.diagnostics.name = supply.name;
  p.diagnostics.status = d.property("status").value_or("Unknown");
  if (p.diagnostics.status.empty()) p.diagnostics.status = "Unknown";

  auto voltage = bounded(d, "voltage_now", 1, kMaxVoltage_uV);
  if (!voltage) {
    return {std::nullopt, fmt::format("battery {} gives no usable voltage_now", supply.name)};
  }
  p.voltage_uV = static_cast<double>(*voltage);
  const bool charging = p.charging();

  double rawCurrent_uA = 0;
  if (auto current = bounded(d, "current_now", -kMaxCurrent_uA, kMaxCurrent_uA)) {
    rawCurrent_uA = static_cast<double>(*current);
    p.diagnostics.currentSource = CurrentSource::currentNow;
  } else if (auto power = bounded(d, "power_now", -kMaxPower_uW, kMaxPower_uW)) {
    rawCurrent_uA = static_cast<double>(*power) / p.voltage_uV * 1e6;
    p.diagnostics.currentSource = CurrentSource::powerNow;
  }
  p.current_uA = signedByStatus(rawCurrent_uA, charging, &p.diagnostics.currentSignCorrected);
  p.averageCurrent_uA = p.current_uA;
  if (auto average = bounded(d, "current_avg", -kMaxCurrent_uA, kMaxCurrent_uA)) {
    p.averageCurrent_uA = signedByStatus(static_cast<double>(*average), charging, nullptr);
  }

  // Charge where the driver reports it; energy otherwise, through the voltage the gauge rates
  // the pack at, so that now, full and design stay on one scale.
  double conversionVoltage_uV = p.voltage_uV;
  CapacityConversion energyConversion = CapacityConversion::viaVoltageNow;
  if (auto v = bounded(d, "voltage_min_design", 1, kMaxVoltage_uV)) {
    conversionVoltage_uV = static_cast<double>(*v);
    energyConversion = CapacityConversion::viaVoltageMinDesign;
  } else if (auto vmax = bounded(d, "voltage_max_design", 1, kMaxVoltage_uV)) {
    conversionVoltage_uV = static_cast<double>(*vmax);
    energyConversion = CapacityConversion::viaVoltageMaxDesign;
  }
  bool usedCharge = false;
  bool usedEnergy = false;
  auto capacityField = [&](std::string_view chargeName,
                           std::string_view energyName) -> std::optional<double> {
    if (auto charge = bounded(d, chargeName, 0, kMaxCharge_uAh)) {
      usedCharge = true;
      return static_cast<double>(*charge);
    }
    if (auto energy = bounded(d, energyName, 0, kMaxEnergy_uWh)) {
      usedEnergy = true;
      return static_cast<double>(*energy) / conversionVoltage_uV * 1e6;
    }
    return std::nullopt;
  };
  p.charge_uAh = capacityField("charge_now", "energy_now");
  p.full_uAh = capacityField("charge_full", "energy_full");
  p.design_uAh = capacityField("charge_full_design", "energy_full_design");
  if (usedEnergy) {
    p.diagnostics.capacityConversion = energyConversion;
  } else if (usedCharge) {
    p.diagnostics.capacityConversion = CapacityConversion::reportsCharge;
  }

  p.cycleCount = bounded(d, "cycle_count", 0, kMaxCycleCount);
  p.diagnostics.cycleCountKnown = p.cycleCount.value_or(0) > 0;
  p.temperature_dC = bounded(d, "temp", kMinTemperature_dC, kMaxTemperature_dC);
  p.capacityPercent = bounded(d, "capacity", 0, 100);
  p.timeToEmpty_s = bounded(d, "time_to_empty_now", 0, kMaxSeconds);
  p.timeToFull_s = bounded(d, "time_to_full_now", 0, kMaxSeconds);
  p.timeToEmptyAverage_s = bounded(d, "time_to_empty_avg", 0, kMaxSeconds);
  if (auto serial = d.property("serial_number"); serial && !serial->empty()) {
    p.serial = std::move(serial);
  }
  return {std::move(p), std::nullopt};
}

struct AdapterFigures {
  std::optional<std::int64_t> watts;
  std::optional<std::int64_t> current_mA;
  std::optional<std::int64_t> voltage_mV;
  bool any() const { return watts || current_mA || voltage_mV; }
};

// USB chargers (a Type-C port controller, a USB PD source) state the contract they negotiated;
// the ACPI mains adapter states nothing but whether it is online.
AdapterFigures readAdapter(const sysfs::SysfsDevice& d) {
  AdapterFigures a;
  auto voltageNow = bounded(d, "voltage_now", 1, kMaxVoltage_uV);
  auto voltageMax = bounded(d, "voltage_max", 1, kMaxVoltage_uV);
  auto currentNow = bounded(d, "current_now", 0, kMaxCurrent_uA);
  auto currentMax = bounded(d, "current_max", 1, kMaxCurrent_uA);
  if (voltageNow) a.voltage_mV = roundToInt(static_cast<double>(*voltageNow) / 1000.0);
  if (currentNow) a.current_mA = roundToInt(static_cast<double>(*currentNow) / 1000.0);
  auto ratedVoltage = voltageNow ? voltageNow : voltageMax;
  if (ratedVoltage && currentMax) {
    std::int64_t watts =
        roundToInt(static_cast<double>(*ratedVoltage) * static_cast<double>(*currentMax) / 1e12);
    if (watts > 0) a.watts = watts;
  }
  return a;
}

std::string joinNames(const std::vector<std::string>& names) {
  std::string out;
  for (const auto& n : names) {
    if (!out.empty()) out += ", ";
    out += n;
  }
  return out;
}

std::int64_t toMilli(double micro) {
  return roundToInt(micro / 1000.0);
}

std::vector<std::string> parseBehaviours(std::string_view text,
                                         std::optional<std::string>* selected) {
  std::vector<std::string> all;
  while (!text.empty()) {
    text = sysfs::trim(text);
    std::size_t space = text.find_first_of(" \t\n");
    std::string_view word = text.substr(0, space);
    text = space == std::string_view::npos ? std::string_view{} : text.substr(space);
    if (word.empty()) continue;
    if (word.size() > 2 && word.front() == '[' && word.back() == ']') {
      word = word.substr(1, word.size() - 2);
      *selected = std::string(word);
    }
    all.emplace_back(word);
  }
  // A driver offering one behaviour prints it without brackets.
  if (!*selected && all.size() == 1) *selected = all.front();
  return all;
}

}  // namespace

std::string_view toString(CapacityConversion conversion) {
  static constexpr EnumTextTable<CapacityConversion, 5> kNames{{{
      {CapacityConversion::none, "none"},
      {CapacityConversion::reportsCharge, "reportsCharge"},
      {CapacityConversion::viaVoltageMinDesign, "viaVoltageMinDesign"},
      {CapacityConversion::viaVoltageMaxDesign, "viaVoltageMaxDesign"},
      {CapacityConversion::viaVoltageNow, "viaVoltageNow"},
  }}};
  return kNames.text(conversion, "none");
}

std::string_view toString(CurrentSource source) {
  static constexpr EnumTextTable<CurrentSource, 3> kNames{{{
      {CurrentSource::currentNow, "currentNow"},
      {CurrentSource::powerNow, "powerNow"},
      {CurrentSource::none, "none"},
  }}};
  return kNames.text(source, "none");
}

std::vector<std::string> PowerSupplyDiagnostics::notes() const {
  std::vector<std::string> out;
  for (const auto& p : packs) {
    switch (p.capacityConversion) {
      case CapacityConversion::none:
        out.push_back(
            fmt::format("{} reports neither charge nor energy — capacities are 0", p.name));
        break;
      case CapacityConversion::reportsCharge:
        break;
      case CapacityConversion::viaVoltageMinDesign:
        out.push_back(fmt::format(
            "{} reports energy, not charge — converted through voltage_min_design", p.name));
        break;
      case CapacityConversion::viaVoltageMaxDesign:
        out.push_back(fmt::format(
            "{} reports energy, not charge — converted through voltage_max_design", p.name));
        break;
      case CapacityConversion::viaVoltageNow:
        out.push_back(
            fmt::format("{} reports energy, not charge, and no design voltage — converted through "
                        "voltage_now",
                        p.name));
        break;
    }
    if (p.currentSource == CurrentSource::powerNow) {
      out.push_back(
          fmt::format("{} reports no current_now — current derived from power_now", p.name));
    } else if (p.currentSource == CurrentSource::none) {
      out.push_back(
          fmt::format("{} reports neither current_now nor power_now — current taken as 0", p.name));
    }
    if (p.currentSignCorrected) {
      out.push_back(fmt::format(
          "{} reports its current with a sign that contradicts status \"{}\" — sign taken from "
          "the status",
          p.name, p.status));
    }
    if (!p.cycleCountKnown) {
      out.push_back(fmt::format("{} reports no cycle count — cycles unknown, kept as 0", p.name));
    }
  }
  for (const auto& name : ignoredPeripherals) {
    out.push_back(fmt::format("{} powers a peripheral — ignored", name));
  }
  for (const auto& name : absentPacks) {
    out.push_back(fmt::format("{} is not present — left out", name));
  }
  if (externalPowerInferredFromStatus) {
    out.push_back("no mains or USB supply is listed — external power told from the battery status");
  }
  return out;
}

LinuxPowerSupplyProvider::LinuxPowerSupplyProvider(std::filesystem::path powerSupplyRoot,
                                                   const Clock& clock)
    : root_(std::move(powerSupplyRoot)), clock_(clock), log_(logging::get("PowerSupply")) {}

LinuxPowerSupplyProvider::~LinuxPowerSupplyProvider() = default;

PowerSupplyReading LinuxPowerSupplyProvider::read() const {
  PowerSupplyReading reading;
  auto& diag = reading.diagnostics;
  auto scan = scanPowerSupplies(root_);
  if (scan.error) {
    reading.failure = scan.error;
    return reading;
  }

  std::vector<PackReading> packs;
  std::vector<const PowerSupplyEntry*> externals;
  for (const auto& supply : scan.supplies) {
    if (!supply.type) {
      // It may be the battery itself whose files went away; a reading without it would lie.
      reading.failure = fmt::format("power supply {} cannot be read", supply.name);
      return reading;
    }
    if (supply.isPeripheralBattery()) {
      diag.ignoredPeripherals.push_back(supply.name);
    } else if (supply.isSystemBattery()) {
      if (!supply.isPresent()) {
        diag.absentPacks.push_back(supply.name);
        continue;
      }
      auto result = readPack(supply);
      if (!result.pack) {
        reading.failure = std::move(result.failure);
        return reading;
      }
      packs.push_back(std::move(*result.pack));
    } else if (supply.isExternalSource()) {
      externals.push_back(&supply);
    }
  }
  if (packs.empty() && !diag.absentPacks.empty()) {
    reading.failure =
        fmt::format("battery {} reports it is not present", joinNames(diag.absentPacks));
    return reading;
  }

  PowerSnapshot s;
  s.timestamp = clock_.now();
  s.batteryInstalled = !packs.empty();

  for (const auto* supply : externals) {
    if (supply->isOnline() != true) continue;
    s.externalConnected = true;
    auto adapter = readAdapter(supply->device);
    if (adapter.any() && !diag.adapterSupply) {
      diag.adapterSupply = supply->name;
      s.adapterWatts = adapter.watts;
      s.adapterCurrent_mA = adapter.current_mA;
      s.adapterVoltage_mV = adapter.voltage_mV;
    }
  }
  if (externals.empty()) {
    // Some machines list no adapter at all; a battery that charges, is full, or holds on
    // purpose can only do so on external power.
    for (const auto& p : packs) {
      const auto& status = p.diagnostics.status;
      if (status == "Charging" || status == "Full" || status == "Not charging") {
        s.externalConnected = true;
        diag.externalPowerInferredFromStatus = true;
      }
    }
  }

  if (!packs.empty()) {
    // The pack that carries the current sets the voltage: with two packs, one usually rests.
    const PackReading* carrier = &packs.front();
    double current_uA = 0;
    double averageCurrent_uA = 0;
    double charge_uAh = 0;
    double full_uAh = 0;
    double design_uAh = 0;
    std::optional<std::int64_t> cycles;
    std::optional<std::int64_t> temperature_dC;
    std::vector<std::string> serials;
    bool anyCharging = false;
    bool allFull = true;
    for (const auto& p : packs) {
      if (std::abs(p.current_uA) > std::abs(carrier->current_uA)) carrier = &p;
      current_uA += p.current_uA;
      averageCurrent_uA += p.averageCurrent_uA;
      charge_uAh += p.charge_uAh.value_or(0);
      full_uAh += p.full_uAh.value_or(0);
      design_uAh += p.design_uAh.value_or(0);
      if (p.diagnostics.cycleCountKnown) cycles = std::max(cycles.value_or(0), *p.cycleCount);
      if (p.temperature_dC) {
        temperature_dC =
            temperature_dC ? std::max(*temperature_dC, *p.temperature_dC) : *p.temperature_dC;
      }
      if (p.serial) serials.push_back(*p.serial);
      anyCharging = anyCharging || p.charging();
      allFull = allFull && p.full();
      diag.packs.push_back(p.diagnostics);
    }
    s.voltage_mV = toMilli(carrier->voltage_uV);
    s.instantAmperage_mA = toMilli(current_uA);
    s.amperage_mA = toMilli(averageCurrent_uA);
    s.currentCapacity_mAh = toMilli(charge_uAh);
    s.maxCapacity_mAh = toMilli(full_uAh);
    s.nominalCapacity_mAh = s.maxCapacity_mAh;
    s.designCapacity_mAh = toMilli(design_uAh);
    s.cycleCount = cycles.value_or(0);
    s.temperature_cC = temperature_dC.value_or(0) * 10;
    s.isCharging = anyCharging;
    s.fullyCharged = allFull;
    if (!serials.empty()) {
      std::string joined;
      for (const auto& serial : serials) joined += (joined.empty() ? "" : "+") + serial;
      s.batterySerial = std::move(joined);
    }

    if (packs.size() == 1) {
      const auto& p = packs.front();
      s.iopsPercent = p.capacityPercent;
      s.timeRemaining_min = estimateMinutes(p.charging() ? p.timeToFull_s : p.timeToEmpty_s);
      s.avgTimeToEmpty_min = estimateMinutes(p.timeToEmptyAverage_s);
    } else {
      // Each pack's percentage weighs by what it holds when full; a pack estimate of time
      // says nothing about the set, so those are left to the monitor.
      bool allPercent = true;
      bool allFullKnown = true;
      double weighted = 0;
      double weights = 0;
      double plain = 0;
      for (const auto& p : packs) {
        if (!p.capacityPercent) {
          allPercent = false;
          break;
        }
        plain += static_cast<double>(*p.capacityPercent);
        if (p.full_uAh && *p.full_uAh > 0) {
          weighted += static_cast<double>(*p.capacityPercent) * *p.full_uAh;
          weights += *p.full_uAh;
        } else {
          allFullKnown = false;
        }
      }
      if (allPercent) {
        s.iopsPercent =
            roundToInt(allFullKnown && weights > 0 ? weighted / weights
                                                   : plain / static_cast<double>(packs.size()));
      }
    }
  }

  reading.snapshot = std::move(s);
  return reading;
}

std::optional<PowerSnapshot> LinuxPowerSupplyProvider::fetchSnapshot() {
  auto reading = read();
  if (!reading.snapshot) {
    failedReads_.fetch_add(1);
    ++consecutiveFailures_;
    if (reading.failure != loggedFailure_) {
      log_->warn("{} — no reading this tick", reading.failure.value_or("power supply unreadable"));
      loggedFailure_ = reading.failure;
    }
    return std::nullopt;
  }
  if (consecutiveFailures_ > 0) {
    log_->info("power supply readable again after {} failed reads", consecutiveFailures_);
    consecutiveFailures_ = 0;
    loggedFailure_.reset();
  }
  auto notes = reading.diagnostics.notes();
  if (notes != loggedNotes_) {
    for (const auto& note : notes) {
      if (std::find(loggedNotes_.begin(), loggedNotes_.end(), note) == loggedNotes_.end()) {
        log_->info("{}", note);
      }
    }
    loggedNotes_ = std::move(notes);
  }
  return std::move(reading.snapshot);
}

std::vector<ChargeControlReading> LinuxPowerSupplyProvider::readChargeControl() const {
  std::vector<ChargeControlReading> out;
  for (const auto& supply : scanPowerSupplies(root_).supplies) {
    if (!supply.isSystemBattery()) continue;
    const auto& d = supply.device;
    ChargeControlReading r;
    r.supply = supply.name;
    // Thresholds are often added by a platform driver beside the battery's own properties,
    // so they are not in its uevent: look at the attribute files too.
    auto percent = [&](std::string_view name) -> std::optional<std::int64_t> {
      auto value = d.integerAttribute(name);
      if (!value || *value < 0 || *value > 100) return std::nullopt;
      return value;
    };
    r.startThreshold_percent = percent("charge_control_start_threshold");
    r.endThreshold_percent = percent("charge_control_end_threshold");
    if (auto text = d.attribute("charge_behaviour")) {
      r.availableBehaviours = parseBehaviours(*text, &r.behaviour);
    }
    if (r.startThreshold_percent || r.endThreshold_percent || r.behaviour) {
      out.push_back(std::move(r));
    }
  }
  return out;
}

}  // namespace quorel
