// The read behind the residency of charge and temperature: observed seconds per whole percent and
// whole degree. Grouped in SQLite, so a year of samples crosses into C++ as a few thousand rows.

#include "store/quorel_database.hpp"
#include "store/sqlite_binder.hpp"

namespace quorel {

namespace {

// CAST truncates toward zero; below zero that is one degree too warm for a fraction, hence the
// correction. A row speaks for at most 300 seconds, as in the coverage read.
constexpr const char* kResidencyRows =
    "SELECT CAST(battery_pct AS INTEGER) AS pct,\n"
    "       CASE WHEN temperature_c IS NULL THEN NULL\n"
    "            WHEN temperature_c < CAST(temperature_c AS INTEGER)\n"
    "              THEN CAST(temperature_c AS INTEGER) - 1\n"
    "            ELSE CAST(temperature_c AS INTEGER) END AS deg,\n"
    "       SUM(MIN(observed_duration_s, 300.0))\n"
    "FROM power_samples\n"
    "WHERE timestamp BETWEEN ? AND ? AND observed_duration_s > 0\n"
    "GROUP BY pct, deg ORDER BY pct, deg";

}  // namespace

Result<std::vector<ResidencyObservation>> QuorelDatabase::queryResidencyObservations(TimePoint from,
                                                                                     TimePoint to) {
  return onQueue([&]() -> Result<std::vector<ResidencyObservation>> {
    if (!db_) return unavailableError();
    int rc = SQLITE_OK;
    auto statement = prepareStatement(db_.get(), kResidencyRows, rc);
    if (!statement) return readFailure(rc, "queryResidencyObservations prepare");
    Binder(statement.get()).time(from).time(to);
    std::vector<ResidencyObservation> rows;
    while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
      ColumnReader c(statement.get());
      ResidencyObservation row;
      row.chargePct = c.optionalInteger();
      row.temperatureC = c.optionalInteger();
      row.observedSeconds = c.real();
      rows.push_back(row);
    }
    if (rc != SQLITE_DONE) return readFailure(rc, "queryResidencyObservations step");
    return rows;
  });
}

}  // namespace quorel
