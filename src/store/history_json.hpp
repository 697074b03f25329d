#pragma once
// The JSON shapes of history that the assistants' tools give and `quorel history --json` prints,
// built by these functions only, so that a script sees what an assistant sees. Absent or
// non-finite numbers are null; times are ISO-8601 in UTC.

#include <optional>

#include "core/json_value.hpp"
#include "store/history_read_records.hpp"
#include "store/history_records.hpp"

namespace quorel::history_json {

JSONValue coverage(const HistoricalCoverageSummary& summary);
JSONValue sample(const PowerSample& sample);
JSONValue session(const SessionRecord& session);
JSONValue dailyMetric(const DailyBatteryMetric& metric);
// One ranked process (key "app") or agent (key "agent").
JSONValue trackedEnergy(const TrackedEnergySummary& summary, double currentWatts,
                        const char* identifierKey);
// The whole answer about lifetime energy: the total, how it is defined, and the span of samples
// behind it with that span's coverage. `range` is absent while there is no sample.
JSONValue lifetime(double total_Wh, const std::optional<PowerSampleDateRange>& range,
                   const HistoricalCoverageSummary& rangeCoverage);

}  // namespace quorel::history_json
