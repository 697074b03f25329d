#include "telemetry/display_text.hpp"

#include <fmt/format.h>

#include <cmath>
#include <cstdlib>

#include "core/local_time.hpp"

namespace quorel {

namespace {

inline constexpr EnumTextTable<ThermalState, 4> kThermalStateTexts{{{
    {ThermalState::nominal, "Nominal"},
    {ThermalState::fair, "Fair"},
    {ThermalState::serious, "Serious"},
    {ThermalState::critical, "Critical"},
}}};

bool movesTowardEmptyOrFull(PowerPhase phase) {
  return phase == PowerPhase::draining || phase == PowerPhase::charging ||
         phase == PowerPhase::trickleCharge || phase == PowerPhase::supplementing;
}

std::string clockText(TimePoint t) {
  const LocalDateTime local = localDateTime(t);
  return fmt::format("{:02}:{:02}", local.hour, local.minute);
}

}  // namespace

NamedColor menuBarColor(PowerPhase phase, double wattage, bool minimalMode) {
  const NamedColor drain = minimalMode ? NamedColor::pink : NamedColor::orange;
  if (wattage < -0.5) return drain;
  switch (phase) {
    case PowerPhase::thermalHold:
      return NamedColor::yellow;
    case PowerPhase::onHold:
    case PowerPhase::chargeLimitHold:
      return NamedColor::beige;
    case PowerPhase::noBattery:
      return NamedColor::secondaryLabel;
    case PowerPhase::charging:
    case PowerPhase::trickleCharge:
    case PowerPhase::full:
    case PowerPhase::bootSurge:
      return NamedColor::blue;
    case PowerPhase::draining:
    case PowerPhase::supplementing:
      return drain;
  }
  return NamedColor::secondaryLabel;
}

namespace display_text {

std::optional<std::string> durationText(std::int64_t minutes) {
  if (minutes < 1) return std::nullopt;
  if (minutes >= 60) {
    return fmt::format("{}h {}m", minutes / 60, minutes % 60);
  }
  return fmt::format("{}m", minutes);
}

std::string wattageText(PowerPhase phase, double smoothedWattage) {
  if (phase == PowerPhase::noBattery) return "--";
  const long long watts = std::llround(smoothedWattage);
  return watts >= 1 ? fmt::format("+{}W", watts) : fmt::format("{}W", watts);
}

std::optional<std::string> temperatureText(double celsius, bool fahrenheit) {
  if (!(celsius > 0)) return std::nullopt;
  if (fahrenheit) return fmt::format("{:.1f}°F", celsius * 9.0 / 5.0 + 32.0);
  return fmt::format("{:.1f}°C", celsius);
}

std::optional<std::string> calculatedTimeRemainingText(std::optional<std::int64_t> minutes) {
  if (!minutes) return std::nullopt;
  auto duration = durationText(std::llabs(*minutes));
  if (!duration) return std::nullopt;
  return "~" + *duration + (*minutes < 0 ? " until empty" : " until full");
}

std::optional<std::string> endTimeText(PowerPhase phase, std::optional<std::int64_t> timeRemaining,
                                       std::optional<std::int64_t> calculated, TimePoint now) {
  if (!movesTowardEmptyOrFull(phase)) return std::nullopt;
  const auto minutes = timeRemaining ? timeRemaining : calculated;
  if (!minutes || *minutes == 0 || std::llabs(*minutes) >= 1440) return std::nullopt;
  return clockText(now + std::chrono::minutes(std::llabs(*minutes)));
}

std::optional<std::string> adapterInfoText(std::optional<std::int64_t> adapterWatts,
                                           bool externalConnected) {
  if (adapterWatts && *adapterWatts > 0) {
    return fmt::format("{}W charger", *adapterWatts);
  }
  if (externalConnected) return "Charger connected";
  return std::nullopt;
}

std::optional<std::string> carbonFootprintText(std::optional<double> grams, bool enabled) {
  if (!grams || !enabled) return std::nullopt;
  if (*grams < 1) return "Today: <1g CO₂";
  return fmt::format("Today: {:.0f}g CO₂", *grams);
}

std::string_view thermalStateText(ThermalState state) {
  return kThermalStateTexts.text(state, "Unknown");
}

NamedColor thermalStateColor(ThermalState state) {
  switch (state) {
    case ThermalState::nominal:
      return NamedColor::green;
    case ThermalState::fair:
      return NamedColor::yellow;
    case ThermalState::serious:
      return NamedColor::orange;
    case ThermalState::critical:
      return NamedColor::red;
  }
  return NamedColor::secondaryLabel;
}

std::string cycleCountText(std::int64_t cycles, std::optional<std::int64_t> designCycles) {
  if (designCycles && *designCycles >= 1) {
    return fmt::format("{} / {} cycles", cycles, *designCycles);
  }
  return fmt::format("{} cycles", cycles);
}

std::optional<std::string> dailySocRangeText(std::optional<std::int64_t> low,
                                             std::optional<std::int64_t> high) {
  if (!low || !high) return std::nullopt;
  return fmt::format("Today: {}–{}%", *low, *high);
}

NamedColor dailySocRangeColor(std::optional<std::int64_t> low, std::optional<std::int64_t> high) {
  if (!low || !high) return NamedColor::secondaryLabel;
  return *low >= 20 && *high <= 80 ? NamedColor::green : NamedColor::orange;
}

std::optional<std::string> calendarPredictionText(const std::optional<CalendarPrediction>& p) {
  if (!p) return std::nullopt;
  return fmt::format("~{:.0f}% at ", p->predictedPct) + clockText(p->eventTime) + " (" +
         p->eventName + ")";
}

NamedColor habitGradeColor(std::string_view grade) {
  if (grade.empty()) return NamedColor::secondaryLabel;
  switch (grade.front()) {
    case 'A':
      return NamedColor::green;
    case 'B':
      return NamedColor::blue;
    case 'C':
      return NamedColor::yellow;
    case 'D':
      return NamedColor::orange;
    case 'F':
      return NamedColor::red;
    default:
      return NamedColor::secondaryLabel;
  }
}

std::string_view connectionTypeText(ConnectionType type) {
  return kConnectionTypeLabels.text(type, "External");
}

std::string percentText(double percent) {
  return fmt::format("{:.0f}%", percent);
}

std::optional<std::string> wattsText(std::optional<double> watts) {
  if (!watts) return std::nullopt;
  return fmt::format("{:.1f} W", *watts);
}

std::optional<std::string> efficiencyText(std::optional<double> ratio) {
  if (!ratio) return std::nullopt;
  return fmt::format("{:.0f}%", *ratio * 100);
}

}  // namespace display_text
}  // namespace quorel
