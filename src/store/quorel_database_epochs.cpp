// Battery epochs: which physical battery a stretch of history belongs to.

#include <algorithm>

#include "core/enum_text.hpp"
#include "store/quorel_database.hpp"
#include "store/sqlite_binder.hpp"

namespace quorel {

namespace {
constexpr const char* kLatestEpoch =
    "SELECT id, first_seen, serial, baseline_cycle_count, baseline_design_mah, "
    "baseline_nominal_mah, source FROM battery_epoch ORDER BY first_seen DESC, id DESC LIMIT 1";
constexpr const char* kInsertEpoch =
    "INSERT INTO battery_epoch (first_seen, serial, baseline_cycle_count, baseline_design_mah, "
    "baseline_nominal_mah, source) VALUES (?, ?, ?, ?, ?, ?)";

constexpr EnumTextTable<BatteryEpochSource, 3> kSources{{{
    {BatteryEpochSource::initial, "initial"},
    {BatteryEpochSource::automatic, "auto"},
    {BatteryEpochSource::manual, "manual"},
}}};

std::optional<std::string> nonEmpty(std::optional<std::string> serial) {
  if (serial && serial->empty()) return std::nullopt;
  return serial;
}
}  // namespace

std::string_view toString(BatteryEpochSource source) {
  return kSources.text(source, "initial");
}

BatteryEpochSource batteryEpochSourceFromString(std::string_view text) {
  return kSources.parse(text).value_or(BatteryEpochSource::initial);
}

std::optional<BatteryEpoch> QuorelDatabase::latestBatteryEpochOnQueue() {
  if (!db_) return std::nullopt;
  int rc = SQLITE_OK;
  SqliteStatement statement = prepareStatement(db_.get(), kLatestEpoch, rc);
  if (!statement) {
    db_.logError(rc, "latestBatteryEpoch prepare");
    return std::nullopt;
  }
  if (sqlite3_step(statement.get()) != SQLITE_ROW) return std::nullopt;
  ColumnReader c(statement.get());
  BatteryEpoch epoch;
  epoch.id = c.integer();
  epoch.firstSeen = c.time();
  epoch.serial = c.optionalText();
  epoch.baselineCycleCount = c.optionalInteger();
  epoch.baselineDesign_mAh = c.optionalInteger();
  epoch.baselineNominal_mAh = c.optionalInteger();
  if (auto source = c.optionalText()) epoch.source = batteryEpochSourceFromString(*source);
  return epoch;
}

std::optional<BatteryEpoch> QuorelDatabase::insertBatteryEpochOnQueue(const BatteryEpoch& epoch) {
  if (!db_) return std::nullopt;
  int rc = SQLITE_OK;
  // Rare enough that caching the statement would buy nothing.
  SqliteStatement statement = prepareStatement(db_.get(), kInsertEpoch, rc);
  if (!statement) {
    db_.logError(rc, "insertBatteryEpoch prepare");
    return std::nullopt;
  }
  sqlite3_stmt* s = statement.get();
  Binder(s)
      .time(epoch.firstSeen)
      .optionalText(epoch.serial)
      .integer(epoch.baselineCycleCount)
      .integer(epoch.baselineDesign_mAh)
      .integer(epoch.baselineNominal_mAh)
      .text(toString(epoch.source));
  rc = sqlite3_step(s);
  if (rc != SQLITE_DONE) {
    db_.logError(rc, "insertBatteryEpoch step");
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
