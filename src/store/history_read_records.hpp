#pragma once
// The values that readers get back from the history store: coverage of a period, energy ranked
// by process or agent, daily battery metrics, and the cached energy history of the charts.

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/clock.hpp"
#include "core/component_power.hpp"
#include "core/history_time_scale.hpp"
#include "store/historical_energy_math.hpp"
#include "store/history_records.hpp"

namespace quorel {

// How much of a period was seen. Sleep counts neither for nor against coverage.
struct HistoricalCoverageSummary {
  double collectedSeconds = 0;
  double sleepingSeconds = 0;
  double missingSeconds = 0;
  std::int64_t rejectedCount = 0;
  std::int64_t estimatedCount = 0;

  // Collected over collected plus missing, in 0...1; 0 when nothing was expected.
  double coverageRatio() const;

  bool operator==(const HistoricalCoverageSummary&) const = default;
};

// One process's or agent's energy over a period.
struct TrackedEnergySummary {
  std::string identifier;
  double energyWh = 0;
  double observedDuration_s = 0;
  double missingDuration_s = 0;
  double averageWatts = 0;
  double peakWatts = 0;
  double coverageRatio = 0;  // 0...1
  HistoricalValueQuality quality = HistoricalValueQuality::unavailable;

  bool operator==(const TrackedEnergySummary&) const = default;
};

// One local day of battery capacity and temperature.
struct DailyBatteryMetric {
  TimePoint dayStart;
  std::int32_t nominalCapacity_mAh = 0;
  std::int32_t designCapacity_mAh = 0;
  std::int32_t cycleCount = 0;
  double healthPct = 0;
  std::optional<double> averageTemperature_C;
  std::optional<double> maxObservedTemperature_C;
  std::int32_t capacitySampleCount = 0;
  double temperatureObservedDuration_s = 0;
  std::int32_t temperatureSampleCount = 0;
  HistoricalValueQuality quality = HistoricalValueQuality::unavailable;

  bool operator==(const DailyBatteryMetric&) const = default;
};

// Identifier to its bucketed power series, time ascending.
using EnergySeries = std::map<std::string, std::vector<EnergyPoint>>;

// The period a chart shows: the last so many seconds, or one local day.
struct EnergyHistoryWindow {
  enum class Type { rolling, day };
  Type type = Type::rolling;
  double value = 0;  // seconds for rolling; the day's start, seconds since 1970, for day

  static EnergyHistoryWindow rolling(Seconds length) { return {Type::rolling, length.count()}; }
  static EnergyHistoryWindow day(TimePoint start) { return {Type::day, toUnixSeconds(start)}; }

  auto operator<=>(const EnergyHistoryWindow&) const = default;
};

struct EnergyHistorySnapshot {
  EnergySeries series;
  std::map<std::string, TrackedEnergySummary> summaries;

  bool operator==(const EnergyHistorySnapshot&) const = default;
};

struct EnergyHistoryKey {
  EnergyHistoryKind kind = EnergyHistoryKind::processes;
  EnergyHistoryWindow window;

  auto operator<=>(const EnergyHistoryKey&) const = default;
};

struct EnergyHistoryEntry {
  EnergyHistorySnapshot snapshot;
  TimePoint from;
  TimePoint to;
  std::optional<TimePoint> firstTimestamp;  // the earliest row inside [from, to]
  std::optional<TimePoint> nextTimestamp;   // the first row after `to`
  std::uint64_t revision = 0;
  std::int32_t dataVersion = -1;

  // True when [from, to] holds exactly the rows this entry was built from: the window may have
  // slid forward as long as it neither dropped its first row nor reached the next one (the
  // caller checks the latter).
  bool containsSameRecords(TimePoint newFrom, TimePoint newTo) const {
    if (newFrom < from || newTo < to || newFrom > newTo) return false;
    return !firstTimestamp || newFrom <= *firstTimestamp;
  }
};

struct PowerSampleTally {
  std::size_t count = 0;
  std::optional<TimePoint> last;

  bool operator==(const PowerSampleTally&) const = default;
};

struct PowerSampleDateRange {
  TimePoint first;
  TimePoint last;

  bool operator==(const PowerSampleDateRange&) const = default;
};

struct DatabaseInfo {
  std::uint64_t bytes = 0;
  std::int64_t sampleCount = 0;

  bool operator==(const DatabaseInfo&) const = default;
};

// Observed time at one whole charge percent and one whole degree (floored), for the residency
// of charge and temperature. Either reading may be missing from the samples behind it.
struct ResidencyObservation {
  std::optional<std::int64_t> chargePct;
  std::optional<std::int64_t> temperatureC;
  double observedSeconds = 0;

  bool operator==(const ResidencyObservation&) const = default;
};

}  // namespace quorel
