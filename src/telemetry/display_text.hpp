#pragma once
// The words and colours of the display, as pure functions of their inputs, so that every
// surface and every test derives them the same way.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/clock.hpp"
#include "core/power_phase.hpp"
#include "core/power_snapshot.hpp"
#include "telemetry/display_state.hpp"

namespace quorel {

// The few settings the display depends on, copied from the user's settings by the caller.
struct DisplayPreferences {
  bool fahrenheit = false;
  bool showCarbonFootprint = false;
  // The menu bar draws its minimal mode, which colours drain pink instead of orange.
  bool minimalMenuBar = false;
  bool operator==(const DisplayPreferences&) const = default;
};

// Regardless of phase, a battery giving more than half a watt shows the drain colour.
NamedColor menuBarColor(PowerPhase phase, double wattage, bool minimalMode);

namespace display_text {

// "42m" below an hour, "2h 5m" from 60 minutes on; absent below one minute.
std::optional<std::string> durationText(std::int64_t minutes);
// "+12W" from one watt up, "-8W", "0W"; "--" without a battery.
std::string wattageText(PowerPhase phase, double smoothedWattage);
// "31.4°C", or in Fahrenheit; absent unless the temperature is positive.
std::optional<std::string> temperatureText(double celsius, bool fahrenheit);
// "~1h 30m until empty" for a negative figure, "~45m until full" for a positive one.
std::optional<std::string> calculatedTimeRemainingText(std::optional<std::int64_t> minutes);
// The local clock time ("HH:MM") when the battery will be empty or full, for the phases that
// move toward either; absent for no estimate or one of a day or more.
std::optional<std::string> endTimeText(PowerPhase phase, std::optional<std::int64_t> timeRemaining,
                                       std::optional<std::int64_t> calculated, TimePoint now);
// "96W charger"; "Charger connected" on external power of unknown rating.
std::optional<std::string> adapterInfoText(std::optional<std::int64_t> adapterWatts,
                                           bool externalConnected);
std::optional<std::string> carbonFootprintText(std::optional<double> grams, bool enabled);
std::string_view thermalStateText(ThermalState state);
NamedColor thermalStateColor(ThermalState state);
// "312 / 1000 cycles", or "312 cycles" when the gauge has no design count.
std::string cycleCountText(std::int64_t cycles, std::optional<std::int64_t> designCycles);
// "Today: 20–80%".
std::optional<std::string> dailySocRangeText(std::optional<std::int64_t> low,
                                             std::optional<std::int64_t> high);
// Green while the day stayed within 20 to 80 %, where the cells age least.
NamedColor dailySocRangeColor(std::optional<std::int64_t> low, std::optional<std::int64_t> high);
// "~42% at 14:30 (Standup)".
std::optional<std::string> calendarPredictionText(const std::optional<CalendarPrediction>& p);
NamedColor habitGradeColor(std::string_view grade);
std::string_view connectionTypeText(ConnectionType type);
// "87%": a percentage rounded to the whole number.
std::string percentText(double percent);
// "12.3 W".
std::optional<std::string> wattsText(std::optional<double> watts);
// The adapter's efficiency, a ratio, as "91%".
std::optional<std::string> efficiencyText(std::optional<double> ratio);

}  // namespace display_text
}  // namespace quorel
