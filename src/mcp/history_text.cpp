#include "mcp/history_text.hpp"

#include <cmath>

#include "core/component_power.hpp"
#include "mcp/sample_text_cache.hpp"
#include "mcp/snapshot_history.hpp"
#include "store/history_json.hpp"
#include "store/quorel_database.hpp"

namespace quorel::history_text {

namespace {

// A sample's members take about this many bytes (in the longer inString form); sizing the text
// for them spares the regrowth of a text of tens of kilobytes.
constexpr std::size_t kSampleBytes = 768;
constexpr std::size_t kDailyMetricBytes = 384;
constexpr std::size_t kSessionBytes = 576;
constexpr std::size_t kTrackedEnergyBytes = 320;

double count(std::size_t n) {
  return static_cast<double>(n);
}

}  // namespace

void coverage(JSONTextWriter& w, const HistoricalCoverageSummary& s) {
  w.beginObject();
  w.key("collected_s"_key).number(s.collectedSeconds);
  w.key("confidence"_key).number(history_json::coverageConfidence(s));
  w.key("estimated_values"_key).number(static_cast<double>(s.estimatedCount));
  w.key("missing_s"_key).number(s.missingSeconds);
  w.key("ratio"_key).number(s.coverageRatio());
  w.key("rejected_values"_key).number(static_cast<double>(s.rejectedCount));
  w.key("sleep_s"_key).number(s.sleepingSeconds);
  w.endObject();
}

void sample(JSONTextWriter& w, const PowerSample& s) {
  w.beginObject();
  w.key("ane_w"_key).number(s.aneW);
  w.key("apple_wall_energy_estimate_raw_w"_key).number(s.wallPowerW);
  w.key("battery_pct"_key).number(s.batteryPct);
  w.key("battery_rail_w"_key).number(s.batteryRailW);
  w.key("charging"_key).boolean(s.isCharging);
  w.key("component_quality"_key).string(toString(s.componentQuality));
  w.key("component_rejection_reason"_key).nullableString(s.componentRejectionReason);
  w.key("component_sum_w"_key).number(history_json::componentSum(s));
  w.key("dc_in_rail_w"_key).number(s.dcInW);
  w.key("dram_w"_key).number(s.dramW);
  w.key("ecpu_w"_key).number(s.ecpuW);
  w.key("external_connected"_key).boolean(s.externalConnected);
  w.key("gpu_w"_key).number(s.gpuW);
  w.key("observed_duration_s"_key).number(s.observedDurationS);
  w.key("pcpu_w"_key).number(s.pcpuW);
  w.key("pd_brightness_rail_w"_key).number(s.pdBrightnessW);
  w.key("power_in_w"_key).number(s.powerInW);
  w.key("system_power_quality"_key).string(toString(s.systemPowerQuality));
  w.key("system_total_rail_w"_key).number(s.systemTotalW);
  w.key("t"_key).time(s.timestamp);
  w.key("temperature_c"_key).number(s.temperatureC);
  w.key("thunderbolt_left_rail_w"_key).number(s.thunderboltLeftW);
  w.key("thunderbolt_right_rail_w"_key).number(s.thunderboltRightW);
  w.key("wall_estimate_quality"_key).string(toString(s.wallEstimateQuality));
  w.key("watts"_key).number(s.wattage);
  w.endObject();
}

void session(JSONTextWriter& w, const SessionRecord& s) {
  w.beginObject();
  w.key("avg_watts"_key).number(s.avgWattage);
  w.key("battery_energy_wh"_key).number(s.totalWh);
  w.key("charging"_key).boolean(s.isCharging);
  w.key("collected_duration_s"_key).number(s.collectedDuration_s);
  w.key("confidence"_key).number(s.confidence);
  w.key("coverage_ratio"_key).number(history_json::sessionCoverageRatio(s));
  w.key("duration_min"_key).number(std::round(secondsBetween(s.startTime, s.endTime) / 60.0));
  w.key("end"_key).time(s.endTime);
  w.key("end_pct"_key).number(s.endPct);
  w.key("energy_definition"_key).string("absolute battery-side energy over collected intervals");
  w.key("missing_duration_s"_key).number(s.missingDuration_s);
  w.key("mode"_key).string(toString(s.mode));
  w.key("quality"_key).string(toString(s.quality));
  w.key("start"_key).time(s.startTime);
  w.key("start_pct"_key).number(s.startPct);
  w.key("total_wh"_key).number(s.totalWh);
  w.endObject();
}

void dailyMetric(JSONTextWriter& w, const DailyBatteryMetric& m) {
  w.beginObject();
  w.key("average_temperature_c"_key).number(m.averageTemperature_C);
  w.key("capacity_sample_count"_key).number(m.capacitySampleCount);
  w.key("cycle_count"_key).number(m.cycleCount);
  w.key("design_mah"_key).number(m.designCapacity_mAh);
  w.key("health_pct"_key).number(m.healthPct);
  w.key("max_observed_temperature_c"_key).number(m.maxObservedTemperature_C);
  w.key("nominal_mah"_key).number(m.nominalCapacity_mAh);
  w.key("quality"_key).string(toString(m.quality));
  w.key("t"_key).time(m.dayStart);
  w.key("temperature_observed_s"_key).number(m.temperatureObservedDuration_s);
  w.key("temperature_sample_count"_key).number(m.temperatureSampleCount);
  w.endObject();
}

void trackedEnergy(JSONTextWriter& w, const TrackedEnergySummary& s, double currentWatts,
                   const JSONKey& identifierKey) {
  // Both identifier keys ("app", "agent") sort before every other key.
  w.beginObject();
  w.key(identifierKey).string(s.identifier);
  w.key("avg_w"_key).number(s.averageWatts);
  w.key("coverage_ratio"_key).number(s.coverageRatio);
  w.key("current_w"_key).number(currentWatts);
  w.key("missing_duration_s"_key).number(s.missingDuration_s);
  w.key("observed_duration_s"_key).number(s.observedDuration_s);
  w.key("peak_w"_key).number(s.peakWatts);
  w.key("quality"_key).string(toString(s.quality));
  w.key("source"_key).string("cpu_package_apportionment");
  w.key("wh"_key).number(s.energyWh);
  w.endObject();
}

void epoch(JSONTextWriter& w, const BatteryEpoch& e) {
  auto integer = [&](std::optional<std::int64_t> v) -> JSONTextWriter& {
    return v ? w.number(static_cast<double>(*v)) : w.null();
  };
  w.beginObject();
  w.key("baseline_cycle_count"_key);
  integer(e.baselineCycleCount);
  w.key("baseline_design_mah"_key);
  integer(e.baselineDesign_mAh);
  w.key("baseline_nominal_mah"_key);
  integer(e.baselineNominal_mAh);
  w.key("first_seen"_key).time(e.firstSeen);
  w.key("serial"_key).nullableString(e.serial);
  w.key("source"_key).string(toString(e.source));
  w.endObject();
}

Result<std::string> powerHistory(QuorelDatabase& db, TimePoint from, TimePoint to, int maxPoints,
                                 Form form, SampleTextCache* cache) {
  auto samples = db.queryPowerSamples(from, to, maxPoints);
  if (!samples) return samples.error();
  const auto covered = db.historicalCoverage(from, to);
  if (!covered) return covered.error();
  JSONTextWriter w(form, 512 + samples->size() * kSampleBytes);
  w.beginObject();
  w.key("available"_key).boolean(true);
  w.key("count"_key).number(count(samples->size()));
  w.key("coverage"_key);
  coverage(w, *covered);
  w.key("from"_key).time(from);
  w.key("samples"_key).beginArray();
  if (cache != nullptr) {
    cache->write(w, std::move(*samples));
  } else {
    for (const auto& s : *samples) sample(w, s);
  }
  w.endArray();
  w.key("to"_key).time(to);
  w.endObject();
  return std::move(w).take();
}

Result<std::string> energyRanking(QuorelDatabase& db, EnergyHistoryKind kind, TimePoint from,
                                  TimePoint to, std::int64_t limit, Form form) {
  const bool apps = kind == EnergyHistoryKind::processes;
  const auto reads = snapshot_history::readRanking(db, kind, from, to, limit);
  if (!reads) return reads.error();
  JSONTextWriter w(form, 512 + reads->summaries.size() * kTrackedEnergyBytes);
  // "agents" sorts before "available", "apps" after it.
  w.beginObject();
  if (!apps) w.key("agents"_key).beginArray();
  if (apps) w.key("apps"_key).beginArray();
  for (const auto& s : reads->summaries) {
    trackedEnergy(w, s, snapshot_history::currentWatts(reads->series, s.identifier, to),
                  apps ? "app"_key : "agent"_key);
  }
  w.endArray();
  w.key("available"_key).boolean(true);
  w.key("from"_key).time(from);
  w.key("to"_key).time(to);
  w.endObject();
  return std::move(w).take();
}

Result<std::string> recentSessions(QuorelDatabase& db, std::int64_t limit, Form form) {
  const auto sessions = db.queryRecentSessions(snapshot_history::clampedLimit(limit));
  if (!sessions) return sessions.error();
  JSONTextWriter w(form, 128 + sessions->size() * kSessionBytes);
  w.beginObject();
  w.key("available"_key).boolean(true);
  w.key("count"_key).number(count(sessions->size()));
  w.key("sessions"_key).beginArray();
  for (const auto& s : *sessions) session(w, s);
  w.endArray();
  w.endObject();
  return std::move(w).take();
}

Result<std::string> batteryHealthTrend(QuorelDatabase& db, Form form) {
  const auto days = db.queryDailyBatteryMetrics();
  if (!days) return days.error();
  const auto current = db.currentBatteryEpoch();
  JSONTextWriter w(form, 512 + days->size() * kDailyMetricBytes);
  w.beginObject();
  w.key("available"_key).boolean(true);
  w.key("count"_key).number(count(days->size()));
  w.key("epoch"_key);
  if (current) {
    epoch(w, *current);
  } else {
    w.null();
  }
  w.key("trend"_key).beginArray();
  for (const auto& d : *days) dailyMetric(w, d);
  w.endArray();
  w.endObject();
  return std::move(w).take();
}

}  // namespace quorel::history_text
