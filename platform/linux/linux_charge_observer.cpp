#include "platform/linux/linux_charge_observer.hpp"

#include <sys/stat.h>

#include "platform/linux/power_supply_scan.hpp"
#include "platform/linux/sysfs_attributes.hpp"

namespace quorel {
namespace {

constexpr std::string_view kEndThreshold = "charge_control_end_threshold";
constexpr std::string_view kBehaviour = "charge_behaviour";

// The word in brackets of a choice list ("auto [inhibit-charge] force-discharge"); an attribute
// holding a single value ("Long Life") is that value.
std::optional<std::string> selectedWord(std::string_view list) {
  const auto open = list.find('[');
  const auto close = list.find(']', open);
  if (open != std::string_view::npos && close != std::string_view::npos) {
    return std::string(list.substr(open + 1, close - open - 1));
  }
  const auto value = sysfs::trim(list);
  if (value.empty()) return std::nullopt;
  return std::string(value);
}

std::optional<std::int64_t> percentAttribute(const sysfs::SysfsDevice& d, std::string_view name) {
  auto value = d.integerAttribute(name);
  if (!value || *value < 0 || *value > 100) return std::nullopt;
  return value;
}

const PowerSupplyEntry* firstSystemBattery(const PowerSupplyScan& scan) {
  for (const auto& supply : scan.supplies) {
    if (supply.isSystemBattery() && supply.isPresent()) return &supply;
  }
  return nullptr;
}

// Whether a space-separated choice list offers `word`, selected (in brackets) or not.
bool offersWord(std::string_view list, std::string_view word) {
  std::size_t start = 0;
  while (start < list.size()) {
    std::size_t end = list.find_first_of(" \t\n", start);
    if (end == std::string_view::npos) end = list.size();
    std::string_view w = list.substr(start, end - start);
    if (!w.empty() && w.front() == '[' && w.back() == ']') w = w.substr(1, w.size() - 2);
    if (w == word) return true;
    start = end + 1;
  }
  return false;
}

bool ownerWritable(const std::filesystem::path& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && (info.st_mode & S_IWUSR);
}

}  // namespace

std::optional<BatteryChargeReading> readBatteryChargeReading(
    const std::filesystem::path& powerSupplyRoot) {
  const auto scan = scanPowerSupplies(powerSupplyRoot);
  const PowerSupplyEntry* battery = firstSystemBattery(scan);
  if (battery == nullptr) return std::nullopt;
  const auto& d = battery->device;

  BatteryChargeReading r;
  r.supply = battery->name;
  if (auto text = d.property("status")) r.status = parseBatteryChargeStatus(*text);
  // The charge-control attributes often come from a platform driver beside the battery's own
  // properties, so they are missing from its uevent: the attribute files are read too.
  if (auto text = d.attribute(kBehaviour)) {
    if (auto word = selectedWord(*text)) r.behaviour = parseChargeBehaviour(*word);
  }
  r.startThreshold_percent = percentAttribute(d, "charge_control_start_threshold");
  r.endThreshold_percent = percentAttribute(d, kEndThreshold);
  r.capacity_percent = percentAttribute(d, "capacity");
  if (auto text = d.attribute("charge_type")) r.chargeType = selectedWord(*text);
  r.health = d.property("health");
  r.energyFull_uWh = d.integerProperty("energy_full");
  r.energyFullDesign_uWh = d.integerProperty("energy_full_design");
  r.chargeFull_uAh = d.integerProperty("charge_full");
  r.chargeFullDesign_uAh = d.integerProperty("charge_full_design");

  for (const auto& supply : scan.supplies) {
    if (!supply.isExternalSource()) continue;
    if (auto online = supply.isOnline()) {
      r.externalConnected = r.externalConnected.value_or(false) || *online;
    }
  }
  if (!r.externalConnected && r.status && *r.status != BatteryChargeStatus::unknown) {
    r.externalConnected = *r.status != BatteryChargeStatus::discharging;
  }
  return r;
}

BatteryControlAvailability probeBatteryControlAvailability(
    const std::filesystem::path& powerSupplyRoot) {
  const auto scan = scanPowerSupplies(powerSupplyRoot);
  const PowerSupplyEntry* battery = firstSystemBattery(scan);
  if (battery == nullptr) return resolveBatteryControlAvailability(false, false);
  const auto& dir = battery->device.dir();
  bool control = ownerWritable(dir / kEndThreshold);
  if (!control && ownerWritable(dir / kBehaviour)) {
    const auto text = sysfs::readFile(dir / kBehaviour).value_or("");
    control = offersWord(text, "inhibit-charge") || offersWord(text, "force-discharge");
  }
  return resolveBatteryControlAvailability(true, control);
}

LinuxChargeObserver::LinuxChargeObserver(Options options, UPowerChargeThresholds* upower,
                                         const Clock& clock)
    : options_(std::move(options)), clock_(clock), detector_(options_.configRoot, upower) {}

ChargeObservation LinuxChargeObserver::observe() {
  const auto powerSupplyRoot = sysfs::powerSupplyClassPath(options_.sysfsRoot);
  const auto battery = readBatteryChargeReading(powerSupplyRoot);
  const MonotonicTime now = clock_.monotonicNow();
  if (!lastConflictCheck_ || now - *lastConflictCheck_ >= options_.conflictRefresh) {
    lastConflictCheck_ = now;
    conflicts_ = detector_.reevaluate(battery);
  }
  return composeChargeObservation(battery, inferrer_,
                                  probeBatteryControlAvailability(powerSupplyRoot), conflicts_,
                                  clock_.now());
}

}  // namespace quorel
