#pragma once
// The ready-to-show form of one tick: every text and figure that the surfaces (status line,
// tools, dashboard) draw, so that all of them show the same words. A value, compared as a whole
// before it is published.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/battery_diagnostics.hpp"
#include "core/clock.hpp"
#include "core/component_power.hpp"
#include "core/enum_text.hpp"
#include "core/power_phase.hpp"
#include "core/power_snapshot.hpp"
#include "devices/usb_device.hpp"
#include "devices/wireless_device.hpp"
#include "insights/habit_grade_history_store.hpp"
#include "store/history_records.hpp"

namespace quorel {

// The palette, by name: each surface maps a name to what it can draw.
enum class NamedColor { secondaryLabel, blue, orange, pink, yellow, beige, green, red };

inline constexpr EnumTextTable<NamedColor, 8> kNamedColorTexts{{{
    {NamedColor::secondaryLabel, "secondaryLabel"},
    {NamedColor::blue, "blue"},
    {NamedColor::orange, "orange"},
    {NamedColor::pink, "pink"},
    {NamedColor::yellow, "yellow"},
    {NamedColor::beige, "beige"},
    {NamedColor::green, "green"},
    {NamedColor::red, "red"},
}}};

// The battery expected at the next calendar event.
struct CalendarPrediction {
  std::string eventName;
  TimePoint eventTime;
  double predictedPct = 0;
  bool operator==(const CalendarPrediction&) const = default;
};

struct DisplayState {
  std::string wattageText = "--";
  NamedColor wattageColor = NamedColor::secondaryLabel;
  std::string batteryPercent = "--";
  double batteryFraction = 0;  // 0...1
  std::string healthPercent = "--";
  std::string cycleCountText;
  std::optional<std::string> temperatureText;
  std::optional<std::string> timeRemaining;
  std::optional<std::string> adapterInfo;
  std::string phaseLabel;
  PowerPhase phase = PowerPhase::noBattery;
  std::vector<double> sparklineData;  // smoothed battery watts
  std::vector<TimePoint> sparklineTimestamps;
  std::vector<double> systemPowerInData;
  std::vector<TimePoint> systemPowerInTimestamps;
  std::vector<double> systemLoadData;
  std::vector<TimePoint> systemLoadTimestamps;
  std::optional<std::string> calculatedTimeRemaining;
  std::optional<std::string> endTimeText;  // local "HH:MM"
  std::optional<std::string> connectionTypeText;
  std::optional<ConnectionType> connectionType;
  std::optional<ComponentPower> componentPower;
  std::optional<SystemPowerRails> systemPowerRails;
  std::optional<BatteryDiagnostics> diagnostics;
  std::string thermalStateText = "Unknown";
  NamedColor thermalStateColor = NamedColor::secondaryLabel;
  std::optional<double> cycleProgress;  // cycles over the design count
  std::optional<std::int64_t> designCycleCount;
  std::optional<std::string> wallPowerText;
  std::optional<std::string> adapterEfficiencyText;
  std::optional<std::string> dailySocRangeText;
  NamedColor dailySocRangeColor = NamedColor::secondaryLabel;
  std::vector<USBDevice> usbDevices;
  std::vector<WirelessDevice> wirelessDevices;
  std::vector<SessionRecord> sessions;
  std::optional<std::string> calendarPrediction;
  bool calendarWarning = false;
  std::optional<std::string> carbonFootprintText;
  std::optional<std::string> habitScore;  // the letter grade
  NamedColor habitScoreColor = NamedColor::secondaryLabel;
  std::map<std::string, std::string> habitScoreFactors;
  std::vector<HabitGradeSnapshot> habitScoreHistory;
  // Keys "ECPU", "PCPU", "GPU", "ANE", "DRAM", as the live histories hold them.
  std::map<std::string, std::vector<double>> componentPowerHistory;
  std::map<std::string, std::vector<TimePoint>> componentPowerTimestamps;
  std::optional<double> componentPowerAvg_W;
  std::optional<double> systemConsumption_W;
  double sessionEnergy_Wh = 0;
  std::optional<double> lifetimeEnergy_Wh;
  double smoothedWattage = 0;  // W, to two decimals
  double batteryPercentageRaw = 0;
  std::int64_t currentDisplayPercent = 0;
  double temperatureCelsius = 0;

  // What is shown before the first tick arrives.
  static DisplayState loading() { return {}; }

  bool operator==(const DisplayState&) const = default;
};

}  // namespace quorel
