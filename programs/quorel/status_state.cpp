#include "status_state.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace quorel {

namespace {

std::optional<PowerPhase> phaseNamed(std::string_view name) {
  for (int i = 0; i <= static_cast<int>(PowerPhase::noBattery); ++i) {
    const auto phase = static_cast<PowerPhase>(i);
    if (toString(phase) == name) return phase;
  }
  return std::nullopt;
}

// The text fields, by key: one table serves writing and reading, so the two cannot drift.
struct TextField {
  const char* key;
  std::string DisplayState::*member;
};
constexpr TextField kTexts[] = {
    {"wattage_text", &DisplayState::wattageText},
    {"battery_percent", &DisplayState::batteryPercent},
    {"health_percent", &DisplayState::healthPercent},
    {"cycle_count_text", &DisplayState::cycleCountText},
    {"phase_label", &DisplayState::phaseLabel},
    {"thermal_state_text", &DisplayState::thermalStateText},
};

struct OptionalTextField {
  const char* key;
  std::optional<std::string> DisplayState::*member;
};
constexpr OptionalTextField kOptionalTexts[] = {
    {"temperature_text", &DisplayState::temperatureText},
    {"time_remaining", &DisplayState::timeRemaining},
    {"calculated_time_remaining", &DisplayState::calculatedTimeRemaining},
    {"end_time_text", &DisplayState::endTimeText},
    {"adapter_info", &DisplayState::adapterInfo},
    {"connection_type_text", &DisplayState::connectionTypeText},
    {"wall_power_text", &DisplayState::wallPowerText},
    {"adapter_efficiency_text", &DisplayState::adapterEfficiencyText},
    {"daily_soc_range_text", &DisplayState::dailySocRangeText},
    {"carbon_footprint_text", &DisplayState::carbonFootprintText},
    {"calendar_prediction", &DisplayState::calendarPrediction},
    {"habit_score", &DisplayState::habitScore},
};

struct NumberField {
  const char* key;
  double DisplayState::*member;
};
constexpr NumberField kNumbers[] = {
    {"smoothed_wattage", &DisplayState::smoothedWattage},
    {"battery_percentage_raw", &DisplayState::batteryPercentageRaw},
    {"battery_fraction", &DisplayState::batteryFraction},
    {"temperature_celsius", &DisplayState::temperatureCelsius},
    {"session_energy_wh", &DisplayState::sessionEnergy_Wh},
};

struct OptionalNumberField {
  const char* key;
  std::optional<double> DisplayState::*member;
};
constexpr OptionalNumberField kOptionalNumbers[] = {
    {"component_power_avg_w", &DisplayState::componentPowerAvg_W},
    {"system_consumption_w", &DisplayState::systemConsumption_W},
    {"lifetime_energy_wh", &DisplayState::lifetimeEnergy_Wh},
    {"cycle_progress", &DisplayState::cycleProgress},
};

struct ColorField {
  const char* key;
  NamedColor DisplayState::*member;
};
constexpr ColorField kColors[] = {
    {"wattage_color", &DisplayState::wattageColor},
    {"thermal_state_color", &DisplayState::thermalStateColor},
    {"habit_score_color", &DisplayState::habitScoreColor},
};

}  // namespace

std::filesystem::path instanceLockFile(const QuorelPaths& paths) {
  return paths.runtimeDirectory ? *paths.runtimeDirectory / "quorel.lock"
                                : paths.dataDirectory / "quorel.lock";
}

std::filesystem::path stateFile(const QuorelPaths& paths) {
  return paths.runtimeDirectory ? *paths.runtimeDirectory / "quorel" / "state.json"
                                : paths.dataDirectory / "state.json";
}

MenuBarMode effectiveMenuBarMode(MenuBarMode chosen, bool developerMode) {
  return developerMode ? chosen : MenuBarMode::wattage;
}

nlohmann::json statusToJson(const StatusSnapshot& snapshot) {
  const DisplayState& d = snapshot.display;
  nlohmann::json out = nlohmann::json::object();
  out["available"] = true;
  out["phase"] = std::string(toString(d.phase));
  for (const auto& f : kTexts) out[f.key] = d.*f.member;
  for (const auto& f : kOptionalTexts) {
    const auto& v = d.*f.member;
    out[f.key] = v ? nlohmann::json(*v) : nlohmann::json(nullptr);
  }
  for (const auto& f : kNumbers) out[f.key] = d.*f.member;
  for (const auto& f : kOptionalNumbers) {
    const auto& v = d.*f.member;
    out[f.key] = v ? nlohmann::json(*v) : nlohmann::json(nullptr);
  }
  for (const auto& f : kColors) out[f.key] = std::string(kNamedColorTexts.text(d.*f.member));
  out["current_display_percent"] = d.currentDisplayPercent;
  out["design_cycle_count"] =
      d.designCycleCount ? nlohmann::json(*d.designCycleCount) : nlohmann::json(nullptr);
  out["system_power_in_last"] = d.systemPowerInData.empty()
                                    ? nlohmann::json(nullptr)
                                    : nlohmann::json(d.systemPowerInData.back());
  out["menu_bar_mode"] = std::string(kMenuBarModeTexts.text(snapshot.effectiveMode));
  out["menu_bar_color_enabled"] = snapshot.colorEnabled;
  return out;
}

std::optional<StatusSnapshot> statusFromJson(const nlohmann::json& in) {
  if (!in.is_object() || !in.contains("phase") || !in["phase"].is_string()) return std::nullopt;
  StatusSnapshot s;
  DisplayState& d = s.display;
  const auto phase = phaseNamed(in["phase"].get<std::string>());
  if (!phase) return std::nullopt;
  d.phase = *phase;
  auto at = [&](const char* key) -> const nlohmann::json* {
    const auto it = in.find(key);
    return it == in.end() ? nullptr : &*it;
  };
  for (const auto& f : kTexts) {
    if (const auto* v = at(f.key); v && v->is_string()) d.*f.member = v->get<std::string>();
  }
  for (const auto& f : kOptionalTexts) {
    if (const auto* v = at(f.key); v && v->is_string()) d.*f.member = v->get<std::string>();
  }
  for (const auto& f : kNumbers) {
    if (const auto* v = at(f.key); v && v->is_number()) d.*f.member = v->get<double>();
  }
  for (const auto& f : kOptionalNumbers) {
    if (const auto* v = at(f.key); v && v->is_number()) d.*f.member = v->get<double>();
  }
  for (const auto& f : kColors) {
    if (const auto* v = at(f.key); v && v->is_string()) {
      if (auto c = kNamedColorTexts.parse(v->get<std::string>())) d.*f.member = *c;
    }
  }
  if (const auto* v = at("current_display_percent"); v && v->is_number_integer())
    d.currentDisplayPercent = v->get<std::int64_t>();
  if (const auto* v = at("design_cycle_count"); v && v->is_number_integer())
    d.designCycleCount = v->get<std::int64_t>();
  if (const auto* v = at("system_power_in_last"); v && v->is_number())
    d.systemPowerInData = {v->get<double>()};
  if (const auto* v = at("menu_bar_mode"); v && v->is_string()) {
    if (auto m = kMenuBarModeTexts.parse(v->get<std::string>())) s.effectiveMode = *m;
  }
  if (const auto* v = at("menu_bar_color_enabled"); v && v->is_boolean())
    s.colorEnabled = v->get<bool>();
  return s;
}

std::optional<std::string> replaceFileAtomically(const std::filesystem::path& file,
                                                 const std::string& content) {
  std::error_code ec;
  const auto folder = file.parent_path();
  if (!folder.empty() && !std::filesystem::exists(folder, ec)) {
    std::filesystem::create_directories(folder, ec);
    if (ec) return "cannot create " + folder.string() + " — " + ec.message();
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all, ec);
  }
  // The temporary's name is not the file's, so a reader waiting for the file ignores it.
  const auto temporary = file.string() + ".tmp." + std::to_string(::getpid());
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return "cannot write " + temporary + " — " + std::strerror(errno);
  std::size_t written = 0;
  while (written < content.size()) {
    const auto n = ::write(fd, content.data() + written, content.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      const std::string reason = std::strerror(errno);
      ::close(fd);
      ::unlink(temporary.c_str());
      return "cannot write " + temporary + " — " + reason;
    }
    written += static_cast<std::size_t>(n);
  }
  ::close(fd);
  if (::rename(temporary.c_str(), file.c_str()) != 0) {
    const std::string reason = std::strerror(errno);
    ::unlink(temporary.c_str());
    return "cannot replace " + file.string() + " — " + reason;
  }
  return std::nullopt;
}

StateFilePublisher::~StateFilePublisher() {
  if (!lastWritten_) return;
  std::error_code ec;
  std::filesystem::remove(file_, ec);
}

bool StateFilePublisher::publish(const StatusSnapshot& snapshot) {
  std::string content = statusToJson(snapshot).dump() + "\n";
  if (lastWritten_ && *lastWritten_ == content) return false;
  if (auto failure = replaceFileAtomically(file_, content)) {
    lastError_ = std::move(*failure);
    return false;
  }
  lastError_.clear();
  lastWritten_ = std::move(content);
  return true;
}

}  // namespace quorel
