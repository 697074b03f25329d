#pragma once
// The history tools' answers written straight as JSON text: the same bytes as the objects of
// store/history_json.hpp and mcp/snapshot_history.hpp written by JSONValue, without building
// a tree of a few thousand members first. Members are given in bytewise key order, which is the
// order a written JSONValue object has.
//
// Threading: as mcp/snapshot_history.hpp; the record writers are pure.

#include <cstdint>
#include <string>

#include "core/clock.hpp"
#include "core/json_text_writer.hpp"
#include "core/result.hpp"
#include "store/battery_epoch.hpp"
#include "store/history_read_records.hpp"
#include "store/history_records.hpp"

namespace quorel {

class QuorelDatabase;

namespace history_text {

void coverage(JSONTextWriter& w, const HistoricalCoverageSummary& summary);
void sample(JSONTextWriter& w, const PowerSample& sample);
void session(JSONTextWriter& w, const SessionRecord& session);
void dailyMetric(JSONTextWriter& w, const DailyBatteryMetric& metric);
void trackedEnergy(JSONTextWriter& w, const TrackedEnergySummary& summary, double currentWatts,
                   const JSONKey& identifierKey);
void epoch(JSONTextWriter& w, const BatteryEpoch& epoch);

class SampleTextCache;

// The text of snapshot_history's answer of the same name, in the given form. With a cache, the
// samples it holds from the last answer are copied rather than written again.
using Form = JSONTextWriter::Form;
Result<std::string> powerHistory(QuorelDatabase& db, TimePoint from, TimePoint to, int maxPoints,
                                 Form form = Form::json, SampleTextCache* cache = nullptr);
Result<std::string> energyRanking(QuorelDatabase& db, EnergyHistoryKind kind, TimePoint from,
                                  TimePoint to, std::int64_t limit, Form form = Form::json);
Result<std::string> recentSessions(QuorelDatabase& db, std::int64_t limit, Form form = Form::json);
Result<std::string> batteryHealthTrend(QuorelDatabase& db, Form form = Form::json);

}  // namespace history_text
}  // namespace quorel
