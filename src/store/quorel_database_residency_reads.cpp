// The read behind the residency of charge and temperature: observed seconds per whole percent and
// whole degree, so that a year of samples reaches its reader as a few thousand totals.
//
// Past days do not change once they are over (only pruning removes their rows), so their totals
// are kept in two tables of their own, filled after each pruning; a read adds the kept days to a
// scan of whatever they do not cover: the edges of the period, today, and any day not kept yet.
// A database without the tables (made before them, or opened read-only before the agent ran)
// is read by the scan alone.

#include <cmath>
#include <cstdint>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "store/quorel_database.hpp"
#include "store/sqlite_binder.hpp"

namespace quorel {

namespace {

constexpr double kDaySeconds = 86400;
// A day is kept once it has been over this long, so that rows still on their way in count.
constexpr double kDaySettleSeconds = 3600;

// Grouped here rather than by SQLite: its GROUP BY sorts, and over a year of samples the sort
// costs five times the scan. The unary plus keeps SQLite off the time index, since a long period
// spans most of the table and a scan beats a lookup per row.
constexpr const char* kResidencyScan =
    "SELECT battery_pct, temperature_c, MIN(observed_duration_s, 300.0) FROM power_samples\n"
    "WHERE +timestamp >= ? AND timestamp <= ? AND observed_duration_s > 0";
// The same over the short stretches around kept days, through the time index: half open between
// them, inclusive at the end of the period.
constexpr const char* kResidencyStretch =
    "SELECT battery_pct, temperature_c, MIN(observed_duration_s, 300.0) FROM power_samples\n"
    "WHERE timestamp >= ? AND timestamp < ? AND observed_duration_s > 0";
constexpr const char* kResidencyTail =
    "SELECT battery_pct, temperature_c, MIN(observed_duration_s, 300.0) FROM power_samples\n"
    "WHERE timestamp >= ? AND timestamp <= ? AND observed_duration_s > 0";

constexpr const char* kCreateResidencyTables =
    "CREATE TABLE IF NOT EXISTS residency_days (day_start REAL PRIMARY KEY);\n"
    "CREATE TABLE IF NOT EXISTS residency_day_totals (day_start REAL NOT NULL, charge_pct "
    "INTEGER, temperature_c INTEGER, seconds REAL NOT NULL);\n"
    "CREATE INDEX IF NOT EXISTS residency_day_totals_day ON residency_day_totals(day_start);";

using ResidencyKey = std::pair<std::optional<std::int64_t>, std::optional<std::int64_t>>;
using ResidencyTotals = std::map<ResidencyKey, double>;

// The whole number at or below `value`; absent for a missing or unrepresentable reading.
std::optional<std::int64_t> floored(std::optional<double> value) {
  if (!value || !std::isfinite(*value) || std::abs(*value) > 1e15) return std::nullopt;
  return static_cast<std::int64_t>(std::floor(*value));
}

// Adds the rows of `sql` bound to [from, to] to `totals`; the step's result code.
int addScan(sqlite3* db, const char* sql, double from, double to, ResidencyTotals& totals) {
  int rc = SQLITE_OK;
  auto statement = prepareStatement(db, sql, rc);
  if (!statement) return rc;
  Binder(statement.get()).real(from).real(to);
  // Charge and temperature move slowly, so most rows land where the one before did.
  auto last = totals.end();
  while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
    ColumnReader c(statement.get());
    ResidencyKey key{floored(c.optionalReal()), floored(c.optionalReal())};
    if (last == totals.end() || last->first != key) {
      last = totals.try_emplace(std::move(key), 0.0).first;
    }
    last->second += c.real();
  }
  return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

bool hasResidencyTables(sqlite3* db) {
  int rc = SQLITE_OK;
  auto statement =
      prepareStatement(db,
                       "SELECT count(*) FROM sqlite_master WHERE name IN ('residency_days', "
                       "'residency_day_totals')",
                       rc);
  return statement && sqlite3_step(statement.get()) == SQLITE_ROW &&
         sqlite3_column_int(statement.get(), 0) == 2;
}

// The kept days wholly inside [from, to], in order.
std::vector<double> keptDays(sqlite3* db, double from, double to, int& rc) {
  std::vector<double> days;
  auto statement = prepareStatement(db,
                                    "SELECT day_start FROM residency_days WHERE day_start >= ? "
                                    "AND day_start + 86400 <= ? ORDER BY day_start",
                                    rc);
  if (!statement) return days;
  Binder(statement.get()).real(from).real(to);
  while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
    days.push_back(sqlite3_column_double(statement.get(), 0));
  }
  if (rc == SQLITE_DONE) rc = SQLITE_OK;
  return days;
}

int addKeptTotals(sqlite3* db, double from, double to, ResidencyTotals& totals) {
  int rc = SQLITE_OK;
  auto statement = prepareStatement(db,
                                    "SELECT charge_pct, temperature_c, seconds FROM "
                                    "residency_day_totals WHERE day_start IN (SELECT day_start "
                                    "FROM residency_days WHERE day_start >= ? AND "
                                    "day_start + 86400 <= ?)",
                                    rc);
  if (!statement) return rc;
  Binder(statement.get()).real(from).real(to);
  while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
    ColumnReader c(statement.get());
    auto chargePct = c.optionalInteger();
    auto temperatureC = c.optionalInteger();
    totals[{chargePct, temperatureC}] += c.real();
  }
  return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

}  // namespace

Result<std::vector<ResidencyObservation>> QuorelDatabase::queryResidencyObservations(TimePoint from,
                                                                                     TimePoint to) {
  return onQueue([&]() -> Result<std::vector<ResidencyObservation>> {
    if (!db_) return unavailableError();
    const double start = toUnixSeconds(from);
    const double end = toUnixSeconds(to);
    ResidencyTotals totals;
    int rc = SQLITE_OK;
    std::vector<double> days;
    if (hasResidencyTables(db_.get())) {
      days = keptDays(db_.get(), start, end, rc);
      if (rc == SQLITE_OK) rc = addKeptTotals(db_.get(), start, end, totals);
      if (rc != SQLITE_OK) return readFailure(rc, "queryResidencyObservations kept days");
    }
    if (days.empty()) {
      rc = addScan(db_.get(), kResidencyScan, start, end, totals);
    } else {
      // The stretches between kept days, then the tail through the inclusive end.
      double cursor = start;
      for (const double day : days) {
        if (day > cursor) rc = addScan(db_.get(), kResidencyStretch, cursor, day, totals);
        if (rc != SQLITE_OK) break;
        cursor = day + kDaySeconds;
      }
      if (rc == SQLITE_OK) rc = addScan(db_.get(), kResidencyTail, cursor, end, totals);
    }
    if (rc != SQLITE_OK) return readFailure(rc, "queryResidencyObservations step");
    std::vector<ResidencyObservation> rows;
    rows.reserve(totals.size());
    for (const auto& [key, total] : totals) rows.push_back({key.first, key.second, total});
    return rows;
  });
}

void QuorelDatabase::keepResidencyDays() {
  if (!db_ || readOnly_ || !createResidencyTables()) return;
  int rc = SQLITE_OK;
  auto oldest = prepareStatement(db_.get(), "SELECT min(timestamp) FROM power_samples", rc);
  if (!oldest || sqlite3_step(oldest.get()) != SQLITE_ROW ||
      sqlite3_column_type(oldest.get(), 0) == SQLITE_NULL) {
    return;
  }
  const double first = std::floor(sqlite3_column_double(oldest.get(), 0) / kDaySeconds);
  const double lastOver =
      std::floor((toUnixSeconds(clock_.now()) - kDaySettleSeconds) / kDaySeconds) - 1;
  std::vector<double> missing;
  {
    auto kept = prepareStatement(db_.get(), "SELECT 1 FROM residency_days WHERE day_start = ?", rc);
    if (!kept) return;
    for (double day = first; day <= lastOver; ++day) {
      sqlite3_reset(kept.get());
      sqlite3_bind_double(kept.get(), 1, day * kDaySeconds);
      if (sqlite3_step(kept.get()) != SQLITE_ROW) missing.push_back(day * kDaySeconds);
    }
  }
  // One day per turn of the queue, so that sampling writes go on while a year is first kept.
  for (const double day : missing) queue_.async([this, day] { keepResidencyDay(day); });
}

bool QuorelDatabase::createResidencyTables() {
  if (const int rc = db_.exec(kCreateResidencyTables); rc != SQLITE_OK) {
    db_.logError(rc, "residency tables");
    return false;
  }
  return true;
}

void QuorelDatabase::keepResidencyDay(double dayStart) {
  if (!db_) return;
  ResidencyTotals totals;
  if (addScan(db_.get(), kResidencyStretch, dayStart, dayStart + kDaySeconds, totals) !=
      SQLITE_OK) {
    db_.logError(SQLITE_ERROR, "keepResidencyDay scan");
    return;
  }
  if (transaction("BEGIN TRANSACTION") != SQLITE_OK) return;
  int rc = SQLITE_OK;
  auto day = prepareStatement(db_.get(), "INSERT OR IGNORE INTO residency_days VALUES (?)", rc);
  auto total = prepareStatement(db_.get(),
                                "INSERT INTO residency_day_totals (day_start, charge_pct, "
                                "temperature_c, seconds) VALUES (?, ?, ?, ?)",
                                rc);
  // Totals left from a day that lost its mark must not count twice.
  auto stale =
      prepareStatement(db_.get(), "DELETE FROM residency_day_totals WHERE day_start = ?", rc);
  bool ok = day && total && stale;
  if (ok) {
    sqlite3_bind_double(stale.get(), 1, dayStart);
    ok = sqlite3_step(stale.get()) == SQLITE_DONE;
  }
  if (ok) {
    sqlite3_bind_double(day.get(), 1, dayStart);
    ok = sqlite3_step(day.get()) == SQLITE_DONE && sqlite3_changes(db_.get()) == 1;
  }
  for (auto it = totals.begin(); ok && it != totals.end(); ++it) {
    sqlite3_reset(total.get());
    Binder(total.get())
        .real(dayStart)
        .integer(it->first.first)
        .integer(it->first.second)
        .real(it->second);
    ok = sqlite3_step(total.get()) == SQLITE_DONE;
  }
  if (!ok || transaction("COMMIT") != SQLITE_OK) transaction("ROLLBACK");
}

}  // namespace quorel
