#pragma once
// Straight-line forecasts over the battery's history: when health reaches a target, when the
// cycle count reaches the rated limit, when the charge reaches empty or full, and what a period's
// energy will come to. Every fit is ordinary least squares; thin data or a trend pointing the
// wrong way gets a refusal, never a guess.
//
// Pure functions over values: "now" is always a parameter, nothing is cached or logged, so any
// thread may call them and a caller may memoise on its inputs.
//
// Dates in readouts are local time: the month style reads "March 2031", the clock style "14:05"
// (24-hour).

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "core/clock.hpp"
#include "store/history_records.hpp"

namespace quorel {

struct ForecastPoint {
  TimePoint date;
  double value = 0;

  bool operator==(const ForecastPoint&) const = default;
};

// Points for a chart, its uncertainty band (both lists empty when none can be drawn) and the
// sentence for the reader.
struct ForecastSeries {
  std::vector<ForecastPoint> points;
  std::vector<ForecastPoint> bandUpper;
  std::vector<ForecastPoint> bandLower;
  std::string readout;

  bool operator==(const ForecastSeries&) const = default;
};

// A statement in place of a chart, when there is something to say but no date to draw.
struct ForecastReadout {
  std::string headline;
  std::optional<std::string> detail;
  std::optional<double> deltaPct;

  bool operator==(const ForecastReadout&) const = default;
};

// One side per time estimate: the agent's own and the operating system's.
struct BatteryLevelForecast {
  std::optional<ForecastSeries> quorel;
  std::optional<ForecastSeries> system;

  bool operator==(const BatteryLevelForecast&) const = default;
};

struct ForecastInsufficientData {
  bool operator==(const ForecastInsufficientData&) const = default;
};
struct ForecastNoTrend {
  bool operator==(const ForecastNoTrend&) const = default;
};

// In this order: a forecast, a readout, too little data, no usable trend.
using ForecastResult =
    std::variant<ForecastSeries, ForecastReadout, ForecastInsufficientData, ForecastNoTrend>;

enum class ForecastResultKind { forecast, readout, insufficientData, noTrend };

ForecastResultKind kindOf(const ForecastResult& result);
// "forecast", "readout", "insufficient_data", "no_trend".
std::string_view toString(ForecastResultKind kind);

// When a battery states no rated cycle limit (most Linux gauges), the cycle forecast answers
// with this headline instead of a date.
inline constexpr std::string_view kNoRatedCycleLimitHeadline =
    "This battery does not report a rated cycle limit, so no date can be forecast for it.";

struct DepletionEstimate {
  TimePoint date;
  double target = 0;   // 100 while charging, else 0
  double current = 0;  // the last charge level seen

  bool operator==(const DepletionEstimate&) const = default;
};

struct ForecastEngine {
  // Dates further than this from now (30 years of 365.25 days) are no forecast.
  static constexpr double kHorizonSeconds = 946728000.0;
  // Interval beyond which two power readings are a gap rather than a stretch to integrate.
  static constexpr double kEnergyMaximumInterval_s = 300.0;

  // When health reaches `targetHealthPct` (the view model asks for 80). Entries before
  // `epochStart` belong to an earlier battery and are left out.
  static ForecastResult degradationFit(std::vector<CapacityLogEntry> capacity,
                                       std::optional<TimePoint> epochStart, double targetHealthPct,
                                       TimePoint now);
  // When the cycle count reaches `ratedLimit`; a limit that is absent or not above 0 gives the
  // readout kNoRatedCycleLimitHeadline once the data shows a rising count.
  static ForecastResult cycleProjection(std::vector<CapacityLogEntry> capacity,
                                        std::optional<TimePoint> epochStart,
                                        std::optional<std::int64_t> ratedLimit, TimePoint now);
  static BatteryLevelForecast batteryLevelDual(const std::vector<ForecastPoint>& soc,
                                               bool isCharging,
                                               std::optional<std::int64_t> quorelTimeRemaining_min,
                                               std::optional<std::int64_t> systemTimeRemaining_min,
                                               TimePoint now);
  // When the charge reaches full (charging) or empty; a known remaining time of at least one
  // minute wins over the fit of `soc` (percent over time).
  static std::optional<DepletionEstimate> depletion(
      const std::vector<ForecastPoint>& soc, bool isCharging,
      std::optional<std::int64_t> knownTimeRemaining_min, TimePoint now);
  // Watt-hours of a series of watts, gaps over kEnergyMaximumInterval_s left out.
  static double energyWh(const std::vector<ForecastPoint>& points);
  // The whole period's energy (Wh) at the pace seen so far; absent until enough of the period
  // has been observed (1/48 of it, at least half an hour).
  static std::optional<double> projectedPeriodTotal(const std::vector<ForecastPoint>& samples,
                                                    TimePoint periodStart, TimePoint periodEnd,
                                                    std::optional<double> observedEnergyWh,
                                                    TimePoint now);
  // Rounded half away from zero; 0 when not finite.
  static std::int64_t badgeDeltaPct(double value);
  // "1.25 kWh" from 1000 Wh on, else "640 Wh".
  static std::string formatWh(double wh);
  // Whole minutes, truncated: "42m" below an hour, else "3h 7m".
  static std::string durationText(double seconds);
  static std::string monthYearText(TimePoint t);
  static std::string clockText(TimePoint t);
};

}  // namespace quorel
