#include "platform/linux/linux_battery_controls.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/linux/power_supply_scan.hpp"
#include "platform/linux/powercap_energy_counters.hpp"
#include "platform/linux/sysfs_attributes.hpp"

namespace quorel {

namespace {

constexpr std::string_view kEndThreshold = "charge_control_end_threshold";
constexpr std::string_view kStartThreshold = "charge_control_start_threshold";
constexpr std::string_view kBehaviour = "charge_behaviour";
constexpr std::string_view kChargeTypes = "charge_types";

// Writable by its owner as the kernel created it: sysfs shows read-only attributes as 0444, and
// root would pass an access() check either way.
bool isWritableAttribute(const std::filesystem::path& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && (info.st_mode & S_IWUSR);
}

std::optional<std::int64_t> readInteger(const std::filesystem::path& path) {
  auto text = sysfs::readFile(path);
  return text ? sysfs::parseInteger(*text) : std::nullopt;
}

}  // namespace

AttributeWriter sysfsAttributeWriter() {
  return [](const std::filesystem::path& path, std::string_view value) -> int {
    // O_NOFOLLOW: an attribute replaced by a symbolic link is not followed elsewhere.
    const int fd = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return errno;
    ssize_t n;
    do {
      n = ::write(fd, value.data(), value.size());
    } while (n < 0 && errno == EINTR);
    const int error = n < 0 ? errno : (static_cast<std::size_t>(n) != value.size() ? EIO : 0);
    ::close(fd);
    return error;
  };
}

std::optional<std::string> selectedChoice(std::string_view list) {
  const auto open = list.find('[');
  const auto close = list.find(']', open);
  if (open == std::string_view::npos || close == std::string_view::npos) {
    // A driver with a single choice may print it bare.
    const auto word = sysfs::trim(list);
    if (word.empty() || word.find(' ') != std::string_view::npos) return std::nullopt;
    return std::string(word);
  }
  return std::string(list.substr(open + 1, close - open - 1));
}

std::vector<std::string> listedChoices(std::string_view list) {
  std::vector<std::string> words;
  std::string word;
  for (char c : list) {
    if (c == '[' || c == ']') continue;
    if (c == ' ' || c == '\n' || c == '\t') {
      if (!word.empty()) words.push_back(std::move(word));
      word.clear();
    } else {
      word.push_back(c);
    }
  }
  if (!word.empty()) words.push_back(std::move(word));
  return words;
}

bool writeEndThresholdFirst(std::optional<std::int64_t> currentEnd, std::int64_t newStart) {
  return !currentEnd || newStart >= *currentEnd;
}

Result<std::unique_ptr<LinuxBatteryControls>> LinuxBatteryControls::open(
    const std::filesystem::path& sysfsRoot, AttributeWriter writer) {
  const auto scan = scanPowerSupplies(sysfs::powerSupplyClassPath(sysfsRoot));
  if (scan.error) return Error{*scan.error};
  const auto battery = std::find_if(scan.supplies.begin(), scan.supplies.end(),
                                    [](const auto& s) { return s.isSystemBattery(); });
  if (battery == scan.supplies.end()) {
    return Error{"no battery powering this machine under " +
                 sysfs::powerSupplyClassPath(sysfsRoot).string()};
  }
  return std::unique_ptr<LinuxBatteryControls>(
      new LinuxBatteryControls(sysfsRoot, battery->device.dir(), std::move(writer)));
}

LinuxBatteryControls::LinuxBatteryControls(std::filesystem::path sysfsRoot,
                                           std::filesystem::path battery, AttributeWriter writer)
    : sysfsRoot_(std::move(sysfsRoot)), battery_(std::move(battery)), writer_(std::move(writer)) {
  capabilities_.nativeCharging = isWritableAttribute(battery_ / kEndThreshold);
  hasStart_ = capabilities_.nativeCharging && isWritableAttribute(battery_ / kStartThreshold);
  if (isWritableAttribute(battery_ / kBehaviour)) {
    const auto choices = listedChoices(sysfs::readFile(battery_ / kBehaviour).value_or(""));
    const auto has = [&](std::string_view w) {
      return std::find(choices.begin(), choices.end(), w) != choices.end();
    };
    capabilities_.tahoeCharging = capabilities_.preTahoeCharging = has("inhibit-charge");
    capabilities_.tahoeDischarge = capabilities_.preTahoeDischarge = has("force-discharge");
  }
}

LinuxBatteryControls::~LinuxBatteryControls() {
  if (lidInhibitor_ >= 0) ::close(lidInhibitor_);
}

std::optional<ChargeThresholds> LinuxBatteryControls::readThresholds() const {
  if (!capabilities_.nativeCharging) return std::nullopt;
  auto end = readInteger(battery_ / kEndThreshold);
  if (!end) return std::nullopt;
  std::optional<std::int64_t> start;
  if (hasStart_) {
    start = readInteger(battery_ / kStartThreshold);
    if (!start) return std::nullopt;
  }
  return ChargeThresholds{*end, start};
}

BatteryReading LinuxBatteryControls::read() {
  BatteryReading r;
  r.capacity_percent = readInteger(battery_ / "capacity");
  const auto status = sysfs::readFile(battery_ / "status");
  r.full = status && sysfs::trim(*status) == "Full";
  // Fresh every time: adapters come and go, and some appear only when plugged in.
  const auto scan = scanPowerSupplies(sysfs::powerSupplyClassPath(sysfsRoot_));
  for (const auto& supply : scan.supplies) {
    if (!supply.isExternalSource()) continue;
    if (auto online = supply.isOnline()) {
      r.externalConnected = r.externalConnected.value_or(false) || *online;
    }
  }
  r.thresholds = readThresholds();
  if (capabilities_.canControlCharging() || capabilities_.canForceDischarge()) {
    if (auto text = sysfs::readFile(battery_ / kBehaviour)) {
      if (auto word = selectedChoice(*text)) r.behaviour = parseChargeBehaviour(*word);
    }
  }
  return r;
}

std::optional<std::string> LinuxBatteryControls::write(std::string_view attribute,
                                                       std::string_view value) const {
  const int error = writer_(battery_ / attribute, value);
  if (error == 0) return std::nullopt;
  return std::string(attribute) + ": " + std::strerror(error);
}

Result<ChargeThresholds> LinuxBatteryControls::writeThresholds(const ChargeThresholds& wanted) {
  if (!capabilities_.nativeCharging) return Error{"no writable charge_control_end_threshold"};
  if (wanted.end_percent < 0 || wanted.end_percent > 100 ||
      (wanted.start_percent && (*wanted.start_percent < 0 || *wanted.start_percent > 100))) {
    return Error{"threshold outside 0 to 100"};
  }
  // Some drivers obey the thresholds only in their Custom charge type.
  if (auto types = sysfs::readFile(battery_ / kChargeTypes)) {
    const auto choices = listedChoices(*types);
    if (std::find(choices.begin(), choices.end(), "Custom") != choices.end() &&
        selectedChoice(*types) != "Custom") {
      if (auto error = write(kChargeTypes, "Custom")) return Error{*error};
    }
  }
  const auto end = std::to_string(wanted.end_percent);
  if (!hasStart_ || !wanted.start_percent) {
    if (auto error = write(kEndThreshold, end)) return Error{*error};
  } else {
    const auto start = std::to_string(*wanted.start_percent);
    const bool endFirst =
        writeEndThresholdFirst(readInteger(battery_ / kEndThreshold), *wanted.start_percent);
    if (auto error = endFirst ? write(kEndThreshold, end) : write(kStartThreshold, start)) {
      return Error{*error};
    }
    if (auto error = endFirst ? write(kStartThreshold, start) : write(kEndThreshold, end)) {
      return Error{*error};
    }
  }
  auto readBack = readThresholds();
  if (!readBack) return Error{"the thresholds could not be read back"};
  return *readBack;
}

Result<ChargeBehaviour> LinuxBatteryControls::writeBehaviour(ChargeBehaviour wanted) {
  const bool inhibit = capabilities_.preTahoeCharging;
  const bool discharge = capabilities_.canForceDischarge();
  const bool supported = (wanted == ChargeBehaviour::inhibitCharge && inhibit) ||
                         (wanted == ChargeBehaviour::forceDischarge && discharge) ||
                         (wanted == ChargeBehaviour::automatic && (inhibit || discharge));
  if (!supported)
    return Error{"charge_behaviour does not offer " + std::string(chargeBehaviourText(wanted))};
  if (auto error = write(kBehaviour, chargeBehaviourText(wanted))) return Error{*error};
  const auto text = sysfs::readFile(battery_ / kBehaviour);
  const auto word = text ? selectedChoice(*text) : std::nullopt;
  const auto readBack = word ? parseChargeBehaviour(*word) : std::nullopt;
  if (!readBack) return Error{"charge_behaviour could not be read back"};
  return *readBack;
}

Result<bool> LinuxBatteryControls::setKeepAwake(bool enable) {
  if (!enable) {
    if (lidInhibitor_ >= 0) ::close(lidInhibitor_);
    lidInhibitor_ = -1;
    return false;
  }
  if (lidInhibitor_ >= 0) return true;
  sd_bus* bus = nullptr;
  if (const int r = sd_bus_open_system(&bus); r < 0) {
    return Error{std::string("system bus: ") + std::strerror(-r)};
  }
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  int r = sd_bus_call_method(bus, "org.freedesktop.login1", "/org/freedesktop/login1",
                             "org.freedesktop.login1.Manager", "Inhibit", &error, &reply, "ssss",
                             "handle-lid-switch:sleep", "Quorel",
                             "Keeping the machine awake with its lid closed", "block");
  std::string failure;
  int fd = -1;
  if (r < 0) {
    failure = error.message ? error.message : std::strerror(-r);
  } else if ((r = sd_bus_message_read(reply, "h", &fd)) < 0) {
    failure = "logind answered without a descriptor";
  } else if ((lidInhibitor_ = ::fcntl(fd, F_DUPFD_CLOEXEC, 3)) < 0) {
    failure = std::strerror(errno);
  }
  sd_bus_message_unref(reply);
  sd_bus_error_free(&error);
  sd_bus_flush_close_unref(bus);
  if (!failure.empty()) return Error{"logind Inhibit: " + failure};
  return true;
}

Result<std::vector<EnergyCounterValue>> LinuxBatteryControls::readEnergyCounters() {
  const auto read = sysfsAttributeReader();
  const auto discovery = discoverPowercapZones(sysfs::powercapClassPath(sysfsRoot_), read);
  if (discovery.error) return Error{*discovery.error};
  std::vector<EnergyCounterValue> values;
  for (const auto& zone : discovery.zones) {
    int error = 0;
    const auto text = read(zone.dir / "energy_uj", &error);
    const auto energy = text ? sysfs::parseInteger(*text) : std::nullopt;
    if (!energy || *energy < 0) continue;
    values.push_back({zone.id, zone.name, static_cast<std::uint64_t>(*energy)});
  }
  return values;
}

}  // namespace quorel
