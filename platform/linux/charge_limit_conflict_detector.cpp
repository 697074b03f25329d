#include "platform/linux/charge_limit_conflict_detector.hpp"

#include <fmt/format.h>

#include <map>

#include "platform/linux/sysfs_attributes.hpp"

namespace quorel {
namespace {

namespace fs = std::filesystem;

fs::path under(const fs::path& root, const fs::path& absolute) {
  return root / absolute.relative_path();
}

// Calls `line` with each line of `text`, surrounding whitespace removed.
template <class F>
void forEachLine(std::string_view text, F&& line) {
  while (!text.empty()) {
    const std::size_t eol = text.find('\n');
    line(sysfs::trim(text.substr(0, eol)));
    text = eol == std::string_view::npos ? std::string_view{} : text.substr(eol + 1);
  }
}

// TLP's values are bare words or quoted; a bare word ends at the first space or '#'.
std::string unquote(std::string_view value) {
  if (!value.empty() && (value.front() == '"' || value.front() == '\'')) {
    const auto close = value.find(value.front(), 1);
    return std::string(value.substr(1, close == std::string_view::npos ? close : close - 1));
  }
  return std::string(value.substr(0, value.find_first_of(" \t#")));
}

bool isThresholdKey(std::string_view key) {
  return key.rfind("START_CHARGE_THRESH_", 0) == 0 || key.rfind("STOP_CHARGE_THRESH_", 0) == 0;
}

struct TlpState {
  std::optional<std::string> enable;
  std::map<std::string, TlpThresholdSetting> thresholds;
};

void readTlpFile(const fs::path& root, const fs::path& file, TlpState& state) {
  auto text = sysfs::readFile(under(root, file));
  if (!text) return;
  forEachLine(*text, [&](std::string_view line) {
    if (line.empty() || line.front() == '#') return;
    const auto eq = line.find('=');
    if (eq == std::string_view::npos) return;
    const std::string key(sysfs::trim(line.substr(0, eq)));
    std::string value = unquote(sysfs::trim(line.substr(eq + 1)));
    if (key == "TLP_ENABLE") {
      state.enable = value;
    } else if (isThresholdKey(key)) {
      state.thresholds[key] = TlpThresholdSetting{key, std::move(value), file};
    }
  });
}

// The value of `key` in a file of "key: value," lines (asusd's configuration).
std::optional<std::int64_t> ronInteger(std::string_view text, std::string_view key) {
  std::optional<std::int64_t> found;
  forEachLine(text, [&](std::string_view line) {
    if (line.rfind(key, 0) != 0) return;
    line.remove_prefix(key.size());
    line = sysfs::trim(line);
    if (line.empty() || line.front() != ':') return;
    line.remove_prefix(1);
    if (!line.empty() && line.back() == ',') line.remove_suffix(1);
    if (auto value = sysfs::parseInteger(line)) found = value;
  });
  return found;
}

// The keys of one section of an INI file, the section named exactly as written.
std::map<std::string, std::string> iniSection(std::string_view text, std::string_view section) {
  std::map<std::string, std::string> keys;
  bool inSection = false;
  forEachLine(text, [&](std::string_view line) {
    if (line.empty() || line.front() == '#' || line.front() == ';') return;
    if (line.front() == '[') {
      inSection = line == fmt::format("[{}]", section);
      return;
    }
    const auto eq = line.find('=');
    if (!inSection || eq == std::string_view::npos) return;
    keys[std::string(sysfs::trim(line.substr(0, eq)))] = unquote(sysfs::trim(line.substr(eq + 1)));
  });
  return keys;
}

std::string unitWords(std::string_view unit, const SystemdUnitState& state) {
  if (state.masked) return fmt::format("{} is masked", unit);
  return fmt::format("{} is {}", unit, state.enabled ? "enabled" : "not enabled");
}

}  // namespace

TlpConfiguration readTlpConfiguration(const fs::path& root) {
  TlpState state;
  const fs::path dropIns = "/etc/tlp.d";
  for (const auto& name :
       sysfs::listDirectory(under(root, dropIns)).value_or(std::vector<std::string>{})) {
    if (name.size() > 5 && name.substr(name.size() - 5) == ".conf") {
      readTlpFile(root, dropIns / name, state);
    }
  }
  readTlpFile(root, "/etc/tlp.conf", state);
  TlpConfiguration config;
  config.enabled = state.enable != "0";
  for (auto& [key, setting] : state.thresholds) {
    if (!setting.value.empty()) config.thresholds.push_back(std::move(setting));
  }
  return config;
}

SystemdUnitState systemdUnitState(const fs::path& root, std::string_view unit) {
  SystemdUnitState state;
  const fs::path local = under(root, "/etc/systemd/system") / unit;
  std::error_code ec;
  if (fs::is_symlink(local, ec) && fs::read_symlink(local, ec) == "/dev/null") {
    state.masked = true;
  }
  for (const char* dir :
       {"/etc/systemd/system", "/usr/lib/systemd/system", "/lib/systemd/system"}) {
    if (fs::exists(under(root, dir) / unit, ec)) state.installed = true;
  }
  const fs::path etc = under(root, "/etc/systemd/system");
  for (const auto& name : sysfs::listDirectory(etc).value_or(std::vector<std::string>{})) {
    if (name.size() > 6 && name.substr(name.size() - 6) == ".wants" &&
        fs::is_symlink(etc / name / unit, ec)) {
      state.enabled = true;
    }
  }
  return state;
}

ChargeLimitConflictDetector::ChargeLimitConflictDetector(fs::path root,
                                                         UPowerChargeThresholds* upower)
    : root_(std::move(root)), upower_(upower) {}

bool ChargeLimitConflictDetector::exists(const fs::path& absolute) const {
  std::error_code ec;
  return fs::exists(under(root_, absolute), ec);
}

ConflictReport ChargeLimitConflictDetector::reevaluate(
    const std::optional<BatteryChargeReading>& battery) {
  ConflictReport report;
  for (auto conflict :
       {detectTlp(), detectUPower(), detectDesktop(battery), detectAsusd(), detectAutoCpufreq()}) {
    if (conflict) report.conflicts.push_back(std::move(*conflict));
  }
  return report;
}

std::optional<ChargeLimitConflict> ChargeLimitConflictDetector::detectTlp() const {
  const auto config = readTlpConfiguration(root_);
  if (!config.enabled || config.thresholds.empty()) return std::nullopt;
  const auto unit = systemdUnitState(root_, "tlp.service");
  if (!unit.installed && !exists("/usr/sbin/tlp") && !exists("/usr/bin/tlp")) {
    return std::nullopt;
  }
  std::string evidence;
  for (const auto& s : config.thresholds) {
    evidence += fmt::format("{}={} in {}; ", s.key, s.value, s.file.string());
  }
  return ChargeLimitConflict{ChargeLimitManager::tlp, evidence + unitWords("tlp.service", unit)};
}

std::optional<ChargeLimitConflict> ChargeLimitConflictDetector::detectUPower() const {
  if (upower_ == nullptr) return std::nullopt;
  const auto devices = upower_->batteryThresholds();
  if (!devices) return std::nullopt;
  std::vector<std::string> on;
  for (const auto& d : *devices) {
    if (d.enabled) on.push_back(d.devicePath);
  }
  if (on.empty()) return std::nullopt;
  return ChargeLimitConflict{
      ChargeLimitManager::upower,
      fmt::format("ChargeThresholdEnabled is on for {}", fmt::join(on, ", "))};
}

std::optional<ChargeLimitConflict> ChargeLimitConflictDetector::detectDesktop(
    const std::optional<BatteryChargeReading>& battery) const {
  // The desktop keeps no setting of its own here: its helper writes the thresholds and reads
  // them back. So it counts only while the battery holds a threshold its helper could have set.
  const fs::path helper =
      "/usr/share/dbus-1/system-services/org.kde.powerdevil.chargethresholdhelper.service";
  if (!battery || !battery->endThreshold_percent || *battery->endThreshold_percent >= 100 ||
      !exists(helper)) {
    return std::nullopt;
  }
  return ChargeLimitConflict{
      ChargeLimitManager::desktopPowerManager,
      fmt::format("its charge-limit helper is installed ({}) and {}'s "
                  "charge_control_end_threshold reads {}",
                  helper.string(), battery->supply, *battery->endThreshold_percent)};
}

std::optional<ChargeLimitConflict> ChargeLimitConflictDetector::detectAsusd() const {
  const fs::path config = "/etc/asusd/asusd.ron";
  const auto text = sysfs::readFile(under(root_, config));
  const auto unit = systemdUnitState(root_, "asusd.service");
  if (!text || !unit.installed) return std::nullopt;
  // Newer releases name the kernel's attribute; older ones their own key.
  for (std::string_view key : {"charge_control_end_threshold", "bat_charge_limit"}) {
    if (auto limit = ronInteger(*text, key); limit && *limit < 100) {
      return ChargeLimitConflict{ChargeLimitManager::asusd,
                                 fmt::format("{}: {} in {}; {}", key, *limit, config.string(),
                                             unitWords("asusd.service", unit))};
    }
  }
  return std::nullopt;
}

std::optional<ChargeLimitConflict> ChargeLimitConflictDetector::detectAutoCpufreq() const {
  const fs::path config = "/etc/auto-cpufreq.conf";
  const auto text = sysfs::readFile(under(root_, config));
  if (!text) return std::nullopt;
  const auto unit = systemdUnitState(root_, "auto-cpufreq.service");
  if (!unit.installed && !exists("/usr/bin/auto-cpufreq") &&
      !exists("/usr/local/bin/auto-cpufreq")) {
    return std::nullopt;
  }
  auto battery = iniSection(*text, "battery");
  if (battery["enable_thresholds"] != "true") return std::nullopt;
  std::string evidence = "enable_thresholds = true";
  for (const char* key : {"start_threshold", "stop_threshold"}) {
    if (!battery[key].empty()) evidence += fmt::format(", {} = {}", key, battery[key]);
  }
  return ChargeLimitConflict{ChargeLimitManager::autoCpufreq,
                             fmt::format("{} in [battery] of {}; {}", evidence, config.string(),
                                         unitWords("auto-cpufreq.service", unit))};
}

}  // namespace quorel
