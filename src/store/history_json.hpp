#pragma once
// The JSON shapes of history that the assistants' tools give and `quorel history --json` prints,
// built by these functions only, so that a script sees what an assistant sees. Absent or
// non-finite numbers are null; times are ISO-8601 in UTC.

#include <optional>

#include "core/json_value.hpp"
#include "store/battery_epoch.hpp"
#include "store/history_read_records.hpp"
#include "store/history_records.hpp"

namespace quorel::history_json {

JSONValue coverage(const HistoricalCoverageSummary& summary);
// The coverage's confidence: its ratio less penalties for rejected and estimated rows, 0...1.
double coverageConfidence(const HistoricalCoverageSummary& summary);
// The sum of the components a sample has; absent when it has none.
std::optional<double> componentSum(const PowerSample& sample);
// The share of a session's seen time that was collected; 0 when none was seen.
double sessionCoverageRatio(const SessionRecord& session);
JSONValue sample(const PowerSample& sample);
JSONValue session(const SessionRecord& session);
JSONValue dailyMetric(const DailyBatteryMetric& metric);
// One ranked process (key "app") or agent (key "agent").
JSONValue trackedEnergy(const TrackedEnergySummary& summary, double currentWatts,
                        const char* identifierKey);
// The battery's epoch: when it was first seen, how, and the figures it started from.
JSONValue epoch(const BatteryEpoch& epoch);

}  // namespace quorel::history_json
