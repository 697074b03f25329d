#include "platform/sandbox/sandbox_config_file.hpp"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>
#include <vector>

namespace quorel {

namespace {

using nlohmann::json;

// A choice as the file may name it: by its text or by its case name.
template <class E, std::size_t N>
struct Choices {
  EnumTextTable<E, N> texts;
  EnumTextTable<E, N> caseNames;

  std::optional<E> pick(std::string_view given) const {
    if (auto e = texts.parse(given)) return e;
    return caseNames.parse(given);
  }

  std::string describe() const {
    std::string quoted;
    std::string names;
    for (std::size_t i = 0; i < N; ++i) {
      if (i > 0) {
        quoted += ", ";
        names += ", ";
      }
      quoted += fmt::format("\"{}\"", texts.entries[i].second);
      names += caseNames.text(texts.entries[i].first);
    }
    return fmt::format("one of {} (or the case names {})", quoted, names);
  }
};

// A table of the texts another library gives its enumeration through a function.
template <class E, std::size_t N>
EnumTextTable<E, N> tableOf(const std::array<E, N>& all, std::string_view (*text)(E)) {
  EnumTextTable<E, N> table{};
  for (std::size_t i = 0; i < N; ++i) table.entries[i] = {all[i], text(all[i])};
  return table;
}

std::string_view modelText(MacModel m) {
  return displayName(m);
}
std::string_view modelName(MacModel m) {
  return toString(m);
}
std::string_view connectionName(ConnectionType t) {
  return toString(t);
}

constexpr Choices<SandboxPowerSource, 5> kPowerSources{kSandboxPowerSourceTexts,
                                                       kSandboxPowerSourceNames};
constexpr Choices<SandboxLoadPreset, 5> kLoads{kSandboxLoadPresetTexts, kSandboxLoadPresetNames};
constexpr Choices<SandboxThermalState, 4> kThermalStates{kSandboxThermalStateTexts,
                                                         kSandboxThermalStateNames};
constexpr std::array<MacModel, 8> kAllModels{
    MacModel::macBookPro, MacModel::macBookAir, MacModel::macBookNeo, MacModel::macStudio,
    MacModel::macPro,     MacModel::macMini,    MacModel::iMac,       MacModel::unknown};
const Choices<MacModel, 8> kModels{tableOf(kAllModels, modelText), tableOf(kAllModels, modelName)};
const Choices<ConnectionType, 7> kConnections{
    kConnectionTypeLabels,
    tableOf(std::array<ConnectionType, 7>{ConnectionType::magsafe3, ConnectionType::thunderbolt5,
                                          ConnectionType::thunderbolt4,
                                          ConnectionType::thunderbolt3, ConnectionType::usbCPD,
                                          ConnectionType::usbC, ConnectionType::unknown},
            connectionName)};

// Each setting's reader returns what is allowed when the value is refused.
using Reader = std::function<std::optional<std::string>(const json&, SandboxSettings&)>;

Reader boolean(bool SandboxSettings::*field) {
  return [field](const json& v, SandboxSettings& s) -> std::optional<std::string> {
    if (!v.is_boolean()) return "true or false";
    s.*field = v.get<bool>();
    return std::nullopt;
  };
}

Reader real(double SandboxSettings::*field, double min, double max, std::string allowed) {
  return [=](const json& v, SandboxSettings& s) -> std::optional<std::string> {
    if (!v.is_number()) return allowed;
    const double d = v.get<double>();
    if (!std::isfinite(d) || d < min || d > max) return allowed;
    s.*field = d;
    return std::nullopt;
  };
}

Reader whole(std::int64_t SandboxSettings::*field, std::int64_t min, std::int64_t max,
             std::string allowed) {
  return [=](const json& v, SandboxSettings& s) -> std::optional<std::string> {
    if (!v.is_number()) return allowed;
    double d = 0;
    if (v.is_number_unsigned()) {
      const auto u = v.get<std::uint64_t>();
      if (u > static_cast<std::uint64_t>(max)) return allowed;
      d = static_cast<double>(u);
    } else if (v.is_number_integer()) {
      d = static_cast<double>(v.get<std::int64_t>());
    } else {
      d = v.get<double>();  // 96.0 is as whole as 96
    }
    if (!std::isfinite(d) || d != std::trunc(d) || d < static_cast<double>(min) ||
        d > static_cast<double>(max)) {
      return allowed;
    }
    s.*field = static_cast<std::int64_t>(d);
    return std::nullopt;
  };
}

Reader text(std::string SandboxSettings::*field) {
  return [field](const json& v, SandboxSettings& s) -> std::optional<std::string> {
    if (!v.is_string() || v.get_ref<const std::string&>().empty()) return "a non-empty text";
    s.*field = v.get<std::string>();
    return std::nullopt;
  };
}

template <class E, std::size_t N>
Reader choice(E SandboxSettings::*field, const Choices<E, N>& choices) {
  return [field, &choices](const json& v, SandboxSettings& s) -> std::optional<std::string> {
    if (v.is_string()) {
      if (auto e = choices.pick(v.get_ref<const std::string&>())) {
        s.*field = *e;
        return std::nullopt;
      }
    }
    return choices.describe();
  };
}

struct Setting {
  std::string_view key;
  Reader read;
};

const std::vector<Setting>& settings() {
  static const std::vector<Setting> kSettings = [] {
    using S = SandboxSettings;
    std::vector<Setting> v;
    v.push_back({"enabled", boolean(&S::enabled)});
    v.push_back({"powerSource", choice(&S::powerSource, kPowerSources)});
    v.push_back({"connectionType", choice(&S::connectionType, kConnections)});
    v.push_back({"adapterWatts",
                 whole(&S::adapterWatts, 0, 1000, "a whole number of watts from 0 to 1000")});
    v.push_back({"batteryPercentage",
                 real(&S::batteryPercentage, 0, 100, "a number from 0 to 100 (percent)")});
    v.push_back(
        {"batteryHealth", real(&S::batteryHealth, 0, 100, "a number from 0 to 100 (percent)")});
    v.push_back({"cycleCount",
                 whole(&S::cycleCount, 0, 100'000, "a whole number of cycles from 0 to 100000")});
    v.push_back({"temperature",
                 real(&S::temperature, -40, 100, "a number of degrees Celsius from -40 to 100")});
    v.push_back({"isCharging", boolean(&S::isCharging)});
    v.push_back({"systemLoad", choice(&S::systemLoad, kLoads)});
    v.push_back({"wattageOverride", [](const json& j, S& s) -> std::optional<std::string> {
                   const std::string allowed =
                       "a number of watts from -1000 to 1000, or null for none";
                   if (j.is_null()) {
                     s.wattageOverride.reset();
                     return std::nullopt;
                   }
                   if (!j.is_number()) return allowed;
                   const double d = j.get<double>();
                   if (!std::isfinite(d) || d < -1000 || d > 1000) return allowed;
                   s.wattageOverride = d;
                   return std::nullopt;
                 }});
    v.push_back({"thermalState", choice(&S::thermalState, kThermalStates)});
    v.push_back({"macModel", choice(&S::macModel, kModels)});
    v.push_back({"externalMonitor", boolean(&S::externalMonitor)});
    v.push_back({"monitorName", text(&S::monitorName)});
    v.push_back({"dock", boolean(&S::dock)});
    v.push_back({"dockName", text(&S::dockName)});
    v.push_back({"keyboard", boolean(&S::keyboard)});
    v.push_back({"mouse", boolean(&S::mouse)});
    v.push_back({"externalDrive", boolean(&S::externalDrive)});
    v.push_back({"webcam", boolean(&S::webcam)});
    v.push_back({"networkAdapter", boolean(&S::networkAdapter)});
    return v;
  }();
  return kSettings;
}

std::string kindOf(const json& v) {
  switch (v.type()) {
    case json::value_t::null:
      return "null";
    case json::value_t::boolean:
      return "a boolean";
    case json::value_t::string:
      return "a text";
    case json::value_t::array:
      return "an array";
    case json::value_t::number_integer:
    case json::value_t::number_unsigned:
    case json::value_t::number_float:
      return "a number";
    default:
      return "something else";
  }
}

std::string shown(const json& v) {
  std::string s = v.dump();
  if (s.size() > 60) s = s.substr(0, 57) + "...";
  return s;
}

// The parser's own words, without its exception prefix and position, which we give ourselves.
std::string parseReason(const std::string& what) {
  std::string reason = what;
  if (auto bracket = reason.find("] "); bracket != std::string::npos) {
    reason = reason.substr(bracket + 2);
  }
  if (reason.rfind("parse error", 0) == 0) {
    if (auto colon = reason.find(": "); colon != std::string::npos) {
      reason = reason.substr(colon + 2);
    }
  }
  return reason;
}

SandboxConfigFileResult failure(std::string message) {
  return SandboxConfigFileResult{std::nullopt, std::move(message)};
}

}  // namespace

SandboxConfigFileResult parseSandboxConfig(std::string_view text, const SandboxSettings& base,
                                           std::string_view source) {
  json document;
  try {
    document = json::parse(text.begin(), text.end());
  } catch (const json::parse_error& e) {
    // `byte` is 1-based and points at the character that could not be read.
    const std::size_t offset = std::min<std::size_t>(e.byte > 0 ? e.byte - 1 : 0, text.size());
    std::size_t line = 1;
    std::size_t column = 1;
    for (std::size_t i = 0; i < offset; ++i) {
      if (text[i] == '\n') {
        ++line;
        column = 1;
      } else {
        ++column;
      }
    }
    return failure(
        fmt::format("{} is not valid JSON at line {}, column {}: {}. Fix the JSON and "
                    "try again.",
                    source, line, column, parseReason(e.what())));
  }
  if (!document.is_object()) {
    return failure(fmt::format(
        "{} must hold a JSON object of settings, such as {{\"systemLoad\": \"Heavy\"}}, but holds "
        "{}.",
        source, kindOf(document)));
  }

  SandboxSettings result = base;
  for (const auto& [key, value] : document.items()) {
    const Setting* setting = nullptr;
    for (const auto& s : settings()) {
      if (s.key == key) setting = &s;
    }
    if (!setting) {
      std::string known;
      for (const auto& s : settings()) {
        if (!known.empty()) known += ", ";
        known += s.key;
      }
      return failure(
          fmt::format("{}: unknown setting \"{}\". Known settings: {}.", source, key, known));
    }
    if (auto allowed = setting->read(value, result)) {
      return failure(fmt::format("{}: setting \"{}\" must be {}, not {}.", source, key, *allowed,
                                 shown(value)));
    }
  }
  return SandboxConfigFileResult{std::move(result), {}};
}

SandboxConfigFileResult readSandboxConfigFile(const std::filesystem::path& file,
                                              const SandboxSettings& base) {
  const std::string source = fmt::format("Sandbox config file \"{}\"", file.string());
  std::error_code ec;
  if (std::filesystem::is_directory(file, ec)) {
    return failure(
        fmt::format("{} is a directory, not a file. Give the path of a JSON file.", source));
  }
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    return failure(fmt::format("{} cannot be read: {}. Check the path and its permissions.", source,
                               std::strerror(errno)));
  }
  std::ostringstream contents;
  contents << in.rdbuf();
  if (in.bad()) {
    return failure(fmt::format("{} cannot be read: {}. Check the path and its permissions.", source,
                               std::strerror(errno)));
  }
  return parseSandboxConfig(contents.str(), base, source);
}

}  // namespace quorel
