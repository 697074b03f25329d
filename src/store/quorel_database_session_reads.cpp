// The read path of the history store, battery side: recent sessions, the daily battery metrics and
// the capacity log seen through them. Everything here runs on queue(); the public calls wait for
// it.

#include <cctype>
#include <cmath>
#include <string_view>

#include "store/quorel_database.hpp"
#include "store/sqlite_binder.hpp"

namespace quorel {

namespace {

constexpr const char* kSelectRecentSessions =
    "SELECT * FROM sessions ORDER BY start_time DESC LIMIT ?";

constexpr const char* kSelectDailyMetrics =
    "SELECT day_start, nominal_capacity_mah, design_capacity_mah,\n"
    "       cycle_count, health_pct, avg_temperature_c,\n"
    "       max_temperature_c, capacity_sample_count,\n"
    "       temperature_observed_s, temperature_sample_count, quality\n"
    "FROM daily_battery_metrics\n"
    "WHERE health_pct IS NOT NULL AND design_capacity_mah > 0\n"
    "ORDER BY day_start ASC";

bool isUUID(std::string_view text) {
  if (text.size() != 36) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? text[i] != '-' : !std::isxdigit(static_cast<unsigned char>(text[i]))) {
      return false;
    }
  }
  return true;
}

std::int32_t roundedInt(std::optional<double> value) {
  if (!value || !std::isfinite(*value)) return 0;
  return static_cast<std::int32_t>(std::llround(*value));
}

}  // namespace

Result<std::vector<SessionRecord>> QuorelDatabase::queryRecentSessions(int limit) {
  return onQueue([&]() -> Result<std::vector<SessionRecord>> {
    if (!db_) return unavailableError();
    int rc = SQLITE_OK;
    auto statement = prepareStatement(db_.get(), kSelectRecentSessions, rc);
    if (!statement) return readFailure(rc, "queryRecentSessions prepare");
    Binder(statement.get()).integer(limit);
    std::vector<SessionRecord> sessions;
    while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
      ColumnReader c(statement.get());
      SessionRecord record;
      record.id = c.text();
      if (!isUUID(record.id)) continue;
      record.startTime = c.time();
      record.endTime = c.time();
      record.startPct = c.real();
      record.endPct = c.real();
      record.isCharging = c.integer() != 0;
      record.avgWattage = c.real();
      record.totalWh = c.real();
      const auto mode = c.optionalText();
      record.mode = mode ? powerSessionModeFromString(*mode).value_or(PowerSessionMode::legacy)
                         : PowerSessionMode::legacy;
      record.collectedDuration_s = c.real();
      record.missingDuration_s = c.real();
      record.quality = c.quality();
      record.confidence = c.real();
      sessions.push_back(std::move(record));
    }
    if (rc != SQLITE_DONE) return readFailure(rc, "queryRecentSessions step");
    return sessions;
  });
}

Result<std::vector<DailyBatteryMetric>> QuorelDatabase::queryDailyBatteryMetrics() {
  return onQueue([&]() -> Result<std::vector<DailyBatteryMetric>> {
    if (!db_) return unavailableError();
    int rc = SQLITE_OK;
    auto statement = prepareStatement(db_.get(), kSelectDailyMetrics, rc);
    if (!statement) return readFailure(rc, "queryDailyBatteryMetrics prepare");
    std::vector<DailyBatteryMetric> metrics;
    while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
      ColumnReader c(statement.get());
      DailyBatteryMetric m;
      m.dayStart = c.time();
      m.nominalCapacity_mAh = roundedInt(c.optionalReal());
      m.designCapacity_mAh = roundedInt(c.optionalReal());
      m.cycleCount = static_cast<std::int32_t>(c.integer());
      m.healthPct = c.real();
      m.averageTemperature_C = c.optionalReal();
      m.maxObservedTemperature_C = c.optionalReal();
      m.capacitySampleCount = static_cast<std::int32_t>(c.integer());
      m.temperatureObservedDuration_s = c.real();
      m.temperatureSampleCount = static_cast<std::int32_t>(c.integer());
      m.quality = c.quality();
      metrics.push_back(m);
    }
    if (rc != SQLITE_DONE) return readFailure(rc, "queryDailyBatteryMetrics step");
    return metrics;
  });
}

Result<std::vector<CapacityLogEntry>> QuorelDatabase::queryCapacityLog() {
  auto days = queryDailyBatteryMetrics();
  if (!days) return days.error();
  std::vector<CapacityLogEntry> entries;
  for (const auto& day : *days) {
    entries.push_back({.timestamp = day.dayStart,
                       .nominalCapacity_mAh = day.nominalCapacity_mAh,
                       .designCapacity_mAh = day.designCapacity_mAh,
                       .cycleCount = day.cycleCount,
                       .healthPct = day.healthPct,
                       .maxTemperature_C = day.maxObservedTemperature_C.value_or(
                           day.averageTemperature_C.value_or(0))});
  }
  return entries;
}

}  // namespace quorel
