#pragma once
// The records that writers hand to the history store. Plain values: they are built on the poll
// queue or a tracker's queue and copied onto the store's queue.
//
// Durations are seconds and carry "_s" in their names; points in time are TimePoints and are
// stored as real seconds since 1970.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/clock.hpp"
#include "core/component_power.hpp"
#include "core/power_phase.hpp"

namespace quorel {

// One persisted telemetry sample; every field but `precededByGap` maps, in order, to a column of
// power_samples.
struct PowerSample {
  TimePoint timestamp;
  double wattage = 0;  // signed battery power; positive while charging
  double batteryPct = 0;
  std::optional<double> ecpuW;
  std::optional<double> pcpuW;
  std::optional<double> gpuW;
  std::optional<double> aneW;
  std::optional<double> dramW;
  std::optional<double> systemLoadW;
  std::optional<double> powerInW;
  std::optional<double> wallPowerW;
  std::int32_t thermalState = 0;
  bool isCharging = false;
  bool externalConnected = false;
  std::optional<double> temperatureC;
  std::optional<double> observedDurationS;
  HistoricalValueQuality componentQuality = HistoricalValueQuality::unavailable;
  HistoricalValueQuality systemPowerQuality = HistoricalValueQuality::unavailable;
  HistoricalValueQuality wallEstimateQuality = HistoricalValueQuality::unavailable;
  std::optional<std::string> componentRejectionReason;
  std::optional<double> systemTotalW;
  std::optional<double> batteryRailW;
  std::optional<double> dcInW;
  std::optional<double> thunderboltLeftW;
  std::optional<double> thunderboltRightW;
  std::optional<double> pdBrightnessW;
  // Never stored: a reader sets it when more than the gap limit separates this sample from the
  // one before it.
  bool precededByGap = false;

  bool operator==(const PowerSample&) const = default;
};

// One reading of the battery's capacities.
struct CapacityLogEntry {
  TimePoint timestamp;
  std::int32_t nominalCapacity_mAh = 0;
  std::int32_t designCapacity_mAh = 0;
  std::int32_t cycleCount = 0;
  double healthPct = 0;
  double maxTemperature_C = 0;

  bool operator==(const CapacityLogEntry&) const = default;
};

// One closed power session.
struct SessionRecord {
  std::string id;  // upper-case UUID text
  TimePoint startTime;
  TimePoint endTime;
  double startPct = 0;
  double endPct = 0;
  bool isCharging = false;
  double avgWattage = 0;  // W
  double totalWh = 0;
  PowerSessionMode mode = PowerSessionMode::legacy;
  double collectedDuration_s = 0;
  double missingDuration_s = 0;
  HistoricalValueQuality quality = HistoricalValueQuality::legacy;
  double confidence = 0;  // 0...1

  // Whole minutes from start to end, truncated: "42m" below an hour, else "3h 7m".
  std::string durationText() const;
  // Both ends as "<day> HH:MM" in local time, the day reading "Today" or "Yesterday" when the
  // local calendar at `now` calls it so and a short date ("Mar 4") otherwise.
  std::string timeRangeText(TimePoint now) const;

  bool operator==(const SessionRecord&) const = default;
};

// One flush bucket of one process name (process_energy) or agent identifier (ai_agent_energy).
struct TrackedEnergyRecord {
  TimePoint timestamp;
  std::string identifier;
  double averageCPU = 0;
  double averageWatts = 0;
  double peakWatts = 0;
  std::int32_t sampleCount = 0;
  double observedDuration_s = 0;
  double missingDuration_s = 0;
  double energyWh = 0;
  double coverageRatio = 0;  // 0...1; stored as NULL when not above 0
  HistoricalValueQuality quality = HistoricalValueQuality::legacy;
  std::string source;

  bool operator==(const TrackedEnergyRecord&) const = default;
};

// What the sampler was doing during a stretch of time.
enum class CollectionIntervalStatus { collected, sleep, missing, rejected };

std::string_view toString(CollectionIntervalStatus status);
std::optional<CollectionIntervalStatus> collectionIntervalStatusFromString(std::string_view s);

struct CollectionIntervalRecord {
  std::int64_t id = 0;
  TimePoint startTime;
  TimePoint endTime;
  CollectionIntervalStatus status = CollectionIntervalStatus::collected;
  std::optional<std::string> reason;

  bool operator==(const CollectionIntervalRecord&) const = default;
};

// The two families of tracked energy; each has its own revision, raised by every committed batch
// so that cached histories of that family know they are stale.
enum class EnergyHistoryKind { processes, agents };

}  // namespace quorel
