// Battery epochs: which physical battery a stretch of history belongs to.

#include <algorithm>

#include "store/quorel_database.hpp"

namespace quorel {

namespace {
constexpr const char* kLatestEpoch =
    "SELECT id, first_seen, serial, baseline_cycle_count, baseline_design_mah, "
    "baseline_nominal_mah, source FROM battery_epoch ORDER BY first_seen DESC, id DESC LIMIT 1";
constexpr const char* kInsertEpoch =
    "INSERT INTO battery_epoch (first_seen, serial, baseline_cycle_count, baseline_design_mah, "
    "baseline_nominal_mah, source) VALUES (?, ?, ?, ?, ?, ?)";

std::optional<std::int64_t> optionalInteger(sqlite3_stmt* statement, int column) {
  if (sqlite3_column_type(statement, column) == SQLITE_NULL) return std::nullopt;
  return sqlite3_column_int64(statement, column);
}

void bindOptional(sqlite3_stmt* statement, int index, const std::optional<std::int64_t>& v) {
  if (v) {
    sqlite3_bind_int64(statement, index, *v);
  } else {
    sqlite3_bind_null(statement, index);
  }
}

std::optional<std::string> nonEmpty(std::optional<std::string> serial) {
  if (serial && serial->empty()) return std::nullopt;
  return serial;
}
}  // namespace

std::string_view toString(BatteryEpochSource source) {
  switch (source) {
    case BatteryEpochSource::initial:
      return "initial";
    case BatteryEpochSource::automatic:
      return "auto";
    case BatteryEpochSource::manual:
      return "manual";
  }
  return "initial";
}

BatteryEpochSource batteryEpochSourceFromString(std::string_view text) {
  if (text == "auto") return BatteryEpochSource::automatic;
  if (text == "manual") return BatteryEpochSource::manual;
  return BatteryEpochSource::initial;
}

std::optional<BatteryEpoch> QuorelDatabase::latestBatteryEpochOnQueue() {
  if (!db_) return std::nullopt;
  int rc = SQLITE_OK;
  SqliteStatement statement = prepareStatement(db_.get(), kLatestEpoch, rc);
  if (!statement) {
    logSqliteError(rc, "latestBatteryEpoch prepare");
    return std::nullopt;
  }
  if (sqlite3_step(statement.get()) != SQLITE_ROW) return std::nullopt;
  sqlite3_stmt* s = statement.get();
  BatteryEpoch epoch;
  epoch.id = sqlite3_column_int64(s, 0);
  epoch.firstSeen = fromUnixSeconds(sqlite3_column_double(s, 1));
  if (sqlite3_column_type(s, 2) != SQLITE_NULL) {
    epoch.serial = reinterpret_cast<const char*>(sqlite3_column_text(s, 2));
  }
  epoch.baselineCycleCount = optionalInteger(s, 3);
  epoch.baselineDesign_mAh = optionalInteger(s, 4);
  epoch.baselineNominal_mAh = optionalInteger(s, 5);
  if (sqlite3_column_type(s, 6) != SQLITE_NULL) {
    epoch.source =
        batteryEpochSourceFromString(reinterpret_cast<const char*>(sqlite3_column_text(s, 6)));
  }
  return epoch;
}

std::optional<BatteryEpoch> QuorelDatabase::insertBatteryEpochOnQueue(const BatteryEpoch& epoch) {
  if (!db_) return std::nullopt;
  int rc = SQLITE_OK;
  // Rare enough that caching the statement would buy nothing.
  SqliteStatement statement = prepareStatement(db_.get(), kInsertEpoch, rc);
  if (!statement) {
    logSqliteError(rc, "insertBatteryEpoch prepare");
    return std::nullopt;
  }
  sqlite3_stmt* s = statement.get();
  sqlite3_bind_double(s, 1, toUnixSeconds(epoch.firstSeen));
  if (epoch.serial) {
    sqlite3_bind_text(s, 2, epoch.serial->c_str(), -1, SQLITE_TRANSIENT);
  } else {
    sqlite3_bind_null(s, 2);
  }
  bindOptional(s, 3, epoch.baselineCycleCount);
  bindOptional(s, 4, epoch.baselineDesign_mAh);
  bindOptional(s, 5, epoch.baselineNominal_mAh);
  const std::string source(toString(epoch.source));
  sqlite3_bind_text(s, 6, source.c_str(), -1, SQLITE_TRANSIENT);
  rc = sqlite3_step(s);
  if (rc != SQLITE_DONE) {
    logSqliteError(rc, "insertBatteryEpoch step");
    return std::nullopt;
  }
  BatteryEpoch stored = epoch;
  stored.id = sqlite3_last_insert_rowid(db_.get());
  return stored;
}

std::optional<BatteryEpoch> QuorelDatabase::currentBatteryEpoch() {
  return onQueue([this] { return latestBatteryEpochOnQueue(); });
}

std::optional<BatteryEpoch> QuorelDatabase::reconcileBatteryEpoch(const std::string& serial,
                                                                  std::int64_t cycleCount,
                                                                  std::int64_t designCapacity,
                                                                  std::int64_t nominalCapacity,
                                                                  TimePoint at) {
  return onQueue([&]() -> std::optional<BatteryEpoch> {
    const auto latest = latestBatteryEpochOnQueue();
    BatteryEpoch next;
    next.firstSeen = at;
    next.serial = nonEmpty(serial);
    // The table's checks would refuse these; a gauge's odd reading is clamped, not lost.
    next.baselineCycleCount = std::max<std::int64_t>(0, cycleCount);
    if (designCapacity >= 1) next.baselineDesign_mAh = designCapacity;
    next.baselineNominal_mAh = std::max<std::int64_t>(0, nominalCapacity);
    if (!latest) {
      next.source = BatteryEpochSource::initial;
      insertBatteryEpochOnQueue(next);
      return std::nullopt;
    }
    // An epoch opened without a serial is never superseded automatically.
    if (latest->serial && *latest->serial != serial) {
      next.source = BatteryEpochSource::automatic;
      return insertBatteryEpochOnQueue(next);
    }
    return std::nullopt;
  });
}

std::optional<BatteryEpoch> QuorelDatabase::forceNewBatteryEpoch(
    std::optional<std::string> serial, std::optional<std::int64_t> cycleCount,
    std::optional<std::int64_t> designCapacity, std::optional<std::int64_t> nominalCapacity,
    TimePoint at) {
  return onQueue([&]() -> std::optional<BatteryEpoch> {
    BatteryEpoch next;
    next.firstSeen = at;
    next.serial = nonEmpty(serial);
    if (cycleCount) next.baselineCycleCount = std::max<std::int64_t>(0, *cycleCount);
    if (designCapacity && *designCapacity >= 1) next.baselineDesign_mAh = designCapacity;
    if (nominalCapacity) next.baselineNominal_mAh = std::max<std::int64_t>(0, *nominalCapacity);
    next.source = BatteryEpochSource::manual;
    return insertBatteryEpochOnQueue(next);
  });
}

}  // namespace quorel
