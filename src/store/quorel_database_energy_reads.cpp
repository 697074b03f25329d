// The read path of the history store, tracked energy: processes and agents ranked by energy,
// their bucketed power series, and the charts' cache of both. Everything here runs on queue();
// the public calls wait for it.

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

#include "core/logging.hpp"
#include "store/quorel_database.hpp"
#include "store/sqlite_binder.hpp"

namespace quorel {

namespace {

struct EnergyTable {
  const char* table;
  const char* column;
  const char* name;  // the operation, for log contexts
};

EnergyTable energyTable(EnergyHistoryKind kind) {
  return kind == EnergyHistoryKind::processes
             ? EnergyTable{"process_energy", "process_name", "queryProcessEnergy"}
             : EnergyTable{"ai_agent_energy", "agent_id", "queryAIAgentEnergy"};
}

}  // namespace

Result<EnergySeries> QuorelDatabase::queryProcessEnergy(TimePoint from, TimePoint to, int maxPoints,
                                                        int topN) {
  return onQueue([&] {
    return energySeriesOnQueue(EnergyHistoryKind::processes, toUnixSeconds(from), toUnixSeconds(to),
                               maxPoints, topN);
  });
}

Result<EnergySeries> QuorelDatabase::queryAIAgentEnergy(TimePoint from, TimePoint to, int maxPoints,
                                                        int topN) {
  return onQueue([&] {
    return energySeriesOnQueue(EnergyHistoryKind::agents, toUnixSeconds(from), toUnixSeconds(to),
                               maxPoints, topN);
  });
}

Result<EnergySeries> QuorelDatabase::energySeriesOnQueue(EnergyHistoryKind kind, double from,
                                                         double to, int maxPoints, int topN) {
  if (!db_) return unavailableError();
  const EnergyTable t = energyTable(kind);
  // The same names the ranking puts first, from the rollup rather than a scan of the window.
  auto top = trackedEnergySummariesOnQueue(kind, from, to, topN);
  if (!top) return top.error();
  std::vector<std::string> names;
  for (auto& summary : *top) names.push_back(std::move(summary.identifier));
  if (names.empty()) return EnergySeries{};

  std::string marks;
  for (std::size_t i = 0; i < names.size(); ++i) marks += i == 0 ? "?" : ",?";
  const std::string seriesSql = fmt::format(
      "SELECT {0},\n"
      "       CASE WHEN SUM(observed_duration_s)>0\n"
      "         THEN SUM(timestamp*observed_duration_s)/SUM(observed_duration_s)\n"
      "         ELSE AVG(timestamp) END,\n"
      "       CASE WHEN SUM(observed_duration_s)>0\n"
      "         THEN SUM(avg_watts*observed_duration_s)/SUM(observed_duration_s)\n"
      "         ELSE AVG(avg_watts) END\n"
      "FROM {1}\n"
      "WHERE {0} IN ({2})\n"
      "  AND timestamp BETWEEN ? AND ?\n"
      "GROUP BY {0}, CAST((timestamp - ?) / ? AS INTEGER)\n"
      "ORDER BY {0}, AVG(timestamp)",
      t.column, t.table, marks);
  int rc = SQLITE_OK;
  auto series = prepareStatement(db_.get(), seriesSql.c_str(), rc);
  if (!series) return readFailure(rc, fmt::format("{} series prepare", t.name));
  Binder binder(series.get());
  for (const auto& name : names) binder.text(name);
  const double width =
      std::max(std::max(to - from, 1.0) / static_cast<double>(std::max(maxPoints, 1)), 1.0);
  binder.real(from).real(to).real(from).real(width);
  EnergySeries result;
  while ((rc = sqlite3_step(series.get())) == SQLITE_ROW) {
    ColumnReader c(series.get());
    std::string name = c.text();
    const double at = c.real();
    const double watts = c.real();
    result[std::move(name)].push_back({fromUnixSeconds(at), watts});
  }
  if (rc != SQLITE_DONE) return readFailure(rc, fmt::format("{} series step", t.name));
  return result;
}

Result<std::vector<TrackedEnergySummary>> QuorelDatabase::queryTrackedEnergySummaries(
    std::string_view table, std::string_view identifierColumn, TimePoint from, TimePoint to,
    int limit) {
  // The names are pasted into SQL, so only the two known tables are accepted.
  std::optional<EnergyHistoryKind> kind;
  for (const auto k : {EnergyHistoryKind::processes, EnergyHistoryKind::agents}) {
    if (table == energyTable(k).table && identifierColumn == energyTable(k).column) kind = k;
  }
  if (!kind) {
    log_->error("queryTrackedEnergySummaries refused table {}.{} — not an energy table", table,
                identifierColumn);
    return Error{fmt::format("{}.{} is not an energy table", table, identifierColumn)};
  }
  return onQueue([&] {
    return trackedEnergySummariesOnQueue(*kind, toUnixSeconds(from), toUnixSeconds(to), limit);
  });
}

Result<std::vector<TrackedEnergySummary>> QuorelDatabase::trackedEnergySummariesOnQueue(
    EnergyHistoryKind kind, double from, double to, int limit) {
  if (!db_) return unavailableError();
  // One read transaction (unless the caller holds one), so that the rows read for the ends of
  // the window and the check that the rollup still matches them see one state.
  const bool ownTransaction = sqlite3_get_autocommit(db_.get()) != 0 &&
                              transaction("BEGIN DEFERRED TRANSACTION") == SQLITE_OK;
  std::optional<Error> failure;
  std::optional<std::vector<TrackedEnergySummary>> ranked;
  if (auto rollup = energyRollupOnQueue(kind)) {
    ranked =
        (*rollup)->rank(from, to, limit, [&](double a, double b, bool includeB, const auto& visit) {
          failure = scanEnergyRows(kind, a, b, includeB, visit);
          return !failure;
        });
  } else {
    failure = rollup.error();
  }
  if (ownTransaction) transaction("COMMIT");
  if (!ranked) return failure.value_or(Error{"the energy rows could not be read"});
  return std::move(*ranked);
}

Result<EnergyRollup*> QuorelDatabase::energyRollupOnQueue(EnergyHistoryKind kind) {
  if (!db_) return unavailableError();
  auto versionRow = rowOnQueue("PRAGMA data_version", "queryTrackedEnergySummaries");
  if (!versionRow) return versionRow.error();
  const std::int64_t version = sqlite3_column_int64(versionRow->get(), 0);
  if (version != rollupDataVersion_) {
    // Another connection wrote: what it added or deleted is unknown, so both start afresh.
    for (const auto k : {EnergyHistoryKind::processes, EnergyHistoryKind::agents}) {
      const std::string latest = fmt::format("SELECT MAX(timestamp) FROM {}", energyTable(k).table);
      auto row = rowOnQueue(latest, "queryTrackedEnergySummaries");
      if (!row) return row.error();
      energyRollups_[static_cast<std::size_t>(k)].reset(ColumnReader(row->get()).optionalReal());
    }
    rollupDataVersion_ = version;
  }
  return &energyRollups_[static_cast<std::size_t>(kind)];
}

std::optional<Error> QuorelDatabase::scanEnergyRows(EnergyHistoryKind kind, double from, double to,
                                                    bool includeTo,
                                                    const EnergyRollup::RowVisitor& visit) {
  const EnergyTable t = energyTable(kind);
  const std::string sql = fmt::format(
      "SELECT timestamp, {}, energy_wh, observed_duration_s, missing_duration_s, peak_watts,"
      " coverage_ratio, quality FROM {} WHERE timestamp >= ? AND timestamp {} ?",
      t.column, t.table, includeTo ? "<=" : "<");
  int rc = SQLITE_OK;
  auto statement = prepareStatement(db_.get(), sql.c_str(), rc);
  if (!statement) return readFailure(rc, "queryTrackedEnergySummaries prepare");
  Binder(statement.get()).real(from).real(to);
  while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
    ColumnReader c(statement.get());
    EnergyRollup::Row row;
    row.timestamp = c.real();
    const auto* identifier = reinterpret_cast<const char*>(sqlite3_column_text(statement.get(), 1));
    if (identifier == nullptr) continue;  // a NULL identifier counts for no one
    row.identifier = {identifier,
                      static_cast<std::size_t>(sqlite3_column_bytes(statement.get(), 1))};
    c.skip();
    row.energyWh = c.real();
    row.observed_s = c.real();
    row.missing_s = c.real();
    row.peakWatts = c.optionalReal();
    row.coverage = c.optionalReal();
    const auto* quality = reinterpret_cast<const char*>(sqlite3_column_text(statement.get(), 7));
    if (quality != nullptr) {
      row.quality = {quality, static_cast<std::size_t>(sqlite3_column_bytes(statement.get(), 7))};
    }
    visit(row);
  }
  if (rc != SQLITE_DONE) return readFailure(rc, "queryTrackedEnergySummaries step");
  return std::nullopt;
}

EnergyHistoryEntry QuorelDatabase::buildEnergyHistory(EnergyHistoryKind kind, TimePoint from,
                                                      TimePoint to) {
  const double f = toUnixSeconds(from);
  const double t = toUnixSeconds(to);
  const EnergyTable table = energyTable(kind);
  EnergyHistoryEntry entry;
  entry.from = from;
  entry.to = to;
  // One read transaction, so that the series, the ranking and the bounds see one state.
  const bool inTransaction = transaction("BEGIN DEFERRED TRANSACTION") == SQLITE_OK;
  entry.snapshot.series = energySeriesOnQueue(kind, f, t, 200, 6).valueOr({});
  for (auto& summary : trackedEnergySummariesOnQueue(kind, f, t, 500).valueOr({})) {
    std::string identifier = summary.identifier;
    entry.snapshot.summaries.emplace(std::move(identifier), std::move(summary));
  }
  const std::string first =
      fmt::format("SELECT MIN(timestamp) FROM {} WHERE timestamp BETWEEN ? AND ?", table.table);
  const std::string next =
      fmt::format("SELECT MIN(timestamp) FROM {} WHERE timestamp > ?", table.table);
  if (auto row = rowOnQueue(first, "cachedEnergyHistory", {f, t})) {
    entry.firstTimestamp = ColumnReader(row->get()).optionalTime();
  }
  if (auto row = rowOnQueue(next, "cachedEnergyHistory", {t})) {
    entry.nextTimestamp = ColumnReader(row->get()).optionalTime();
  }
  if (inTransaction) transaction("COMMIT");
  ++energyHistoryBuilds_;
  return entry;
}

EnergyHistorySnapshot QuorelDatabase::cachedEnergyHistory(EnergyHistoryKind kind,
                                                          EnergyHistoryWindow window,
                                                          TimePoint from, TimePoint to) {
  return onQueue([&]() -> EnergyHistorySnapshot {
    if (!db_) return {};
    const std::uint64_t revision = energyRevision_[static_cast<std::size_t>(kind)];
    std::int32_t dataVersion = -1;
    {
      int rc = SQLITE_OK;
      auto statement = prepareStatement(db_.get(), "PRAGMA data_version", rc);
      if (statement && sqlite3_step(statement.get()) == SQLITE_ROW) {
        dataVersion = static_cast<std::int32_t>(sqlite3_column_int(statement.get(), 0));
      }
    }
    const EnergyHistoryKey key{kind, window};
    if (auto found = energyHistoryCache_.find(key); found != energyHistoryCache_.end()) {
      const EnergyHistoryEntry& entry = found->second;
      if (entry.revision == revision && dataVersion >= 0 && entry.dataVersion == dataVersion &&
          entry.containsSameRecords(from, to) &&
          (!entry.nextTimestamp || to < *entry.nextTimestamp)) {
        return entry.snapshot;
      }
    }
    EnergyHistoryEntry entry = buildEnergyHistory(kind, from, to);
    entry.revision = revision;
    entry.dataVersion = dataVersion;
    if (energyHistoryCache_.size() >= 16 && !energyHistoryCache_.contains(key)) {
      const auto oldest =
          std::min_element(energyHistoryCache_.begin(), energyHistoryCache_.end(),
                           [](const auto& a, const auto& b) { return a.second.to < b.second.to; });
      energyHistoryCache_.erase(oldest);
    }
    EnergyHistorySnapshot snapshot = entry.snapshot;
    energyHistoryCache_.insert_or_assign(key, std::move(entry));
    return snapshot;
  });
}

}  // namespace quorel
