#pragma once
// The history database: one SQLite file, reached through one object. This part opens the file,
// sets the connection up, creates the tables and carries an older file to the current schema.
// Writes and reads run on the object's serial queue "com.quorel.database".
//
// Threading: the constructor does its work on the calling thread, before anyone else can reach
// the object; afterwards the connection is touched only on queue(). Failures never throw: the
// store becomes unavailable, every later write does nothing and every later read reports why.

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "core/clock.hpp"
#include "core/result.hpp"
#include "core/serial_queue.hpp"
#include "store/battery_epoch.hpp"
#include "store/database_files.hpp"
#include "store/energy_rollup.hpp"
#include "store/history_export.hpp"
#include "store/history_read_records.hpp"
#include "store/history_records.hpp"
#include "store/sqlite_connection.hpp"

namespace spdlog {
class logger;
}

namespace quorel {

class JSONSink;

class QuorelDatabase {
 public:
  static constexpr int kSchemaVersion = 8;
  static constexpr const char* kFileName = kDatabaseFileName;

  struct Options {
    // The data directory ($XDG_DATA_HOME/quorel, or the --data-dir flag); the database is
    // "quorel.db" inside it. Absent when no data directory could be located: the store is then
    // unavailable and corruption is signalled, since the user has lost history either way.
    std::optional<std::filesystem::path> dataDirectory;
    // Replaces the whole path (tests). No directory is made for it, and the permissions are
    // still tightened on `dataDirectory`.
    std::optional<std::filesystem::path> databasePathOverride;
    // Called at most once per object when the file turns out unreadable or damaged; on the
    // constructor's thread during start-up, later on queue(). Decide there what the user sees
    // (the agent calls reportCorruptionHeadless); must not block.
    std::function<void()> onCorruption;
    // Starts the queue's thread once start-up is done. Tests leave it stopped and drive the
    // queue with runPending().
    bool startQueue = true;
    // Opens an existing file for reading only (the history command beside a running agent):
    // nothing is created, migrated, tightened or prepared for writing, a missing file leaves the
    // store unavailable, and no corruption is signalled for it.
    bool readOnly = false;
  };

  // `clock` gives the wall time behind retention horizons; it must outlive the object.
  QuorelDatabase(Options options, const Clock& clock);
  ~QuorelDatabase();
  QuorelDatabase(const QuorelDatabase&) = delete;
  QuorelDatabase& operator=(const QuorelDatabase&) = delete;

  // The queue all SQLite work runs on.
  SerialQueue& queue() { return queue_; }

  // False once the file could not be located or opened; it stays so until the next start.
  bool isAvailable() const { return !databaseUnavailable_; }
  // Why the store is unavailable, e.g. "cannot open /x/quorel.db: unable to open database file";
  // empty while it is available.
  const std::string& unavailableReason() const { return unavailableReason_; }
  // The file in use (the override, or "quorel.db" in the data directory); absent when no data
  // directory could be located.
  const std::optional<std::filesystem::path>& databasePath() const { return databasePath_; }
  // The folder to show someone who must remove a damaged file.
  std::optional<std::filesystem::path> databaseFolder() const;

  // The write path. Each call copies its record onto queue() and returns at once; writes run in
  // call order. A failed write is logged through the connection's classifier of SQLite failures
  // (SqliteConnection::logError) and dropped, never retried, and
  // an unavailable store (or a statement that could not be prepared) drops it silently.
  //
  // Stores the sample after qualityChecked, then folds its temperature into its local day.
  void insertPowerSample(const PowerSample& sample);
  // Stores the reading, then folds its capacities into its local day.
  void insertCapacityLog(const CapacityLogEntry& entry);
  void insertSession(const SessionRecord& record);
  void insertCollectionInterval(TimePoint from, TimePoint to, CollectionIntervalStatus status,
                                std::optional<std::string> reason);
  // One transaction per batch: all records land or none does. A committed batch, even an empty
  // one, raises energyRevision of its kind.
  void insertProcessEnergy(std::vector<TrackedEnergyRecord> records);
  void insertAIAgentEnergy(std::vector<TrackedEnergyRecord> records);
  // Deletes what is older than the horizons (days; 0 or less keeps everything but capacity
  // readings without a design capacity, which go after a day), then truncates the WAL.
  void pruneOldData(int retentionDays, int capacityRetentionDays);

  // Battery epochs. Each blocks its caller on queue() (or runs inline when called there), so
  // the result is known at once. Epochs are never pruned.
  //
  // The latest epoch by first-seen time, then id.
  std::optional<BatteryEpoch> currentBatteryEpoch();
  // Opens an 'initial' epoch when there is none, an 'auto' one when the latest has a different
  // serial; returns an epoch only for the latter, since a first battery is no replacement.
  std::optional<BatteryEpoch> reconcileBatteryEpoch(const std::string& serial,
                                                    std::int64_t cycleCount,
                                                    std::int64_t designCapacity,
                                                    std::int64_t nominalCapacity, TimePoint at);
  // The user's statement that the battery is new: a 'manual' epoch, whatever came before.
  std::optional<BatteryEpoch> forceNewBatteryEpoch(std::optional<std::string> serial,
                                                   std::optional<std::int64_t> cycleCount,
                                                   std::optional<std::int64_t> designCapacity,
                                                   std::optional<std::int64_t> nominalCapacity,
                                                   TimePoint at);

  // The read path. Each read runs on queue(): from another thread it waits for the queue, from
  // work already on the queue (or while the queue has never been started) it runs in place.
  // The reads that answer people and tools give a Result: a failed read carries SQLite's words
  // (logged through the classifier as well), an unavailable store "the database is not
  // available: <why>", so that neither looks like a period without data.
  //
  // Samples of [from, to], time ascending, thinned to max(maxPoints, 2) with gaps marked.
  Result<std::vector<PowerSample>> queryPowerSamples(TimePoint from, TimePoint to, int maxPoints);
  // Every interval that touches [from, to], unclipped, by start time.
  Result<std::vector<CollectionIntervalRecord>> queryCollectionIntervals(TimePoint from,
                                                                         TimePoint to);
  // Collected, sleeping and missing seconds of the period (in either order), with counts of
  // rejected and estimated rows. A row speaks for at most 300 seconds.
  Result<HistoricalCoverageSummary> historicalCoverage(TimePoint from, TimePoint to);
  // Newest first.
  Result<std::vector<SessionRecord>> queryRecentSessions(int limit);
  // Days with a health reading and a design capacity, oldest first.
  Result<std::vector<DailyBatteryMetric>> queryDailyBatteryMetrics();
  // Derived from the daily metrics, one entry per day; the raw log is not read.
  Result<std::vector<CapacityLogEntry>> queryCapacityLog();
  // The topN identifiers by energy in [from, to], each with a series of at most about
  // maxPoints buckets: duration-weighted centre time and mean watts.
  Result<EnergySeries> queryProcessEnergy(TimePoint from, TimePoint to, int maxPoints, int topN);
  Result<EnergySeries> queryAIAgentEnergy(TimePoint from, TimePoint to, int maxPoints, int topN);
  // Ranked by energy. `table` and `identifierColumn` must be "process_energy" and
  // "process_name" or "ai_agent_energy" and "agent_id"; any other pair is refused as an error.
  Result<std::vector<TrackedEnergySummary>> queryTrackedEnergySummaries(
      std::string_view table, std::string_view identifierColumn, TimePoint from, TimePoint to,
      int limit);
  // The charts' view of process or agent energy, reused while neither this connection nor
  // another one changed the rows and the window still holds the same records. A store that
  // cannot answer gives the empty snapshot: a chart has no one to tell.
  EnergyHistorySnapshot cachedEnergyHistory(EnergyHistoryKind kind, EnergyHistoryWindow window,
                                            TimePoint from, TimePoint to);
  // Everything the machine drew, integrated incrementally: only rows after the stored
  // checkpoint are read. A read-only store computes the same sum without moving the checkpoint.
  Result<double> totalComponentEnergy_Wh();
  // Observed seconds of the samples in [from, to], per whole charge percent and whole degree
  // (floored); samples without an observed duration are left out.
  Result<std::vector<ResidencyObservation>> queryResidencyObservations(TimePoint from,
                                                                       TimePoint to);
  // The first and last sample times; absent while there is no sample.
  Result<std::optional<PowerSampleDateRange>> powerSampleDateRange();
  // How many samples [from, to] holds and the last one's time, read from the time index alone:
  // enough to tell whether the samples of a period changed, since they are only appended.
  Result<PowerSampleTally> powerSampleTally(TimePoint from, TimePoint to);
  // Absent when the store is unavailable, cannot be read, or holds no sample.
  std::optional<TimePoint> oldestPowerSampleDate();
  DatabaseInfo databaseInfo();
  // The file's user_version; absent when the store is unavailable or the file is not a database.
  std::optional<int> schemaVersion();
  // Diagnostics, read on queue(): thinned sample reads and energy history builds so far.
  std::uint64_t powerHistoryReads() const { return powerHistoryReads_; }
  std::uint64_t energyHistoryBuilds() const { return energyHistoryBuilds_; }

  // Exports (store/history_export.hpp): the rows of [from, to] by time, read a day at a time,
  // each day in one turn on queue() so that writes go on between days. Call them from a thread
  // other than the queue's.
  //
  // CSV of one series into `target` through an ExportFile: a failure leaves the target as it was
  // and nothing beside it. `progress` is called after each day.
  ExportResult exportCSV(ExportSeries series, TimePoint from, TimePoint to,
                         const std::filesystem::path& target,
                         const ExportProgressHandler& progress = {});
  // The same text, streamed day by day to an open descriptor (standard output).
  ExportResult writeCSV(ExportSeries series, TimePoint from, TimePoint to, int fd,
                        const ExportProgressHandler& progress = {});
  // One document with each series once, in the order given; "{}" when it cannot be written.
  std::string exportJSON(const std::vector<ExportSeries>& series, TimePoint from, TimePoint to);
  // The same with what became of it; each series stops at `rowCap` rows.
  JSONExport exportJSONDocument(const std::vector<ExportSeries>& series, TimePoint from,
                                TimePoint to, std::int64_t rowCap = kExportJSONRowCap);
  // The same document streamed day by day to `fd`, which must be a seekable file opened for
  // writing at its start (an ExportFile's): a series that fails and a value JSON cannot hold take
  // back what was written. The result's `document` stays empty.
  JSONExport writeJSON(const std::vector<ExportSeries>& series, TimePoint from, TimePoint to,
                       int fd, std::int64_t rowCap = kExportJSONRowCap);

  // Raised after every committed energy batch of that kind. Read on queue().
  std::uint64_t energyRevision(EnergyHistoryKind kind) const {
    return energyRevision_[static_cast<std::size_t>(kind)];
  }

 private:
  void openDatabase();
  void openReadOnly();
  void markUnavailable(std::string reason);
  void tightenFilePermissions();
  void close();
  void prepareCachedStatements();
  void upsertDailyTemperature(const PowerSample& sample);
  void upsertDailyCapacity(const CapacityLogEntry& entry);
  void insertEnergyBatch(EnergyHistoryKind kind, const std::vector<TrackedEnergyRecord>& records);
  std::optional<BatteryEpoch> latestBatteryEpochOnQueue();
  std::optional<BatteryEpoch> insertBatteryEpochOnQueue(const BatteryEpoch& epoch);
  // Runs `work` on queue() and waits for it. From work already on the queue it runs in place,
  // and so it does while the queue has never been started (tests drive it by hand), since a
  // sync onto a queue nobody runs would never return.
  template <class F>
  auto onQueue(F&& work) -> decltype(work()) {
    if (!queueStarted_ || queue_.isCurrent()) return work();
    return queue_.sync(std::forward<F>(work));
  }
  // "the database is not available: <why>".
  Error unavailableError() const;
  // Logs a failed read through the classifier and returns SQLite's words for it.
  Error readFailure(int rc, std::string_view context);
  // Prepares `sql`, binds `bounds` in order and steps to its one row; the statement positioned on
  // it, or an error (logged as "<context> prepare" or "<context> step") when there is none.
  Result<SqliteStatement> rowOnQueue(const std::string& sql, std::string_view context,
                                     std::initializer_list<std::optional<double>> bounds = {});
  Result<std::vector<CollectionIntervalRecord>> collectionIntervalsOnQueue(double from, double to);
  Result<EnergySeries> energySeriesOnQueue(EnergyHistoryKind kind, double from, double to,
                                           int maxPoints, int topN);
  Result<std::vector<TrackedEnergySummary>> trackedEnergySummariesOnQueue(EnergyHistoryKind kind,
                                                                          double from, double to,
                                                                          int limit);
  // The rollup of `kind`, rebuilt from scratch when another connection changed the file since
  // it was last vouched for; an error when that cannot be told.
  Result<EnergyRollup*> energyRollupOnQueue(EnergyHistoryKind kind);
  // Visits the rows of `kind` with from <= timestamp < to (<= to when `includeTo`) for the
  // rollup; the failure, logged, when they could not all be read.
  std::optional<Error> scanEnergyRows(EnergyHistoryKind kind, double from, double to,
                                      bool includeTo, const EnergyRollup::RowVisitor& visit);
  EnergyHistoryEntry buildEnergyHistory(EnergyHistoryKind kind, TimePoint from, TimePoint to);
  // Reads one export window of `sql` on queue(), handing each row to `row`; a false answer
  // stops the read. `context` names the read in failures ("exportCSV power_samples").
  std::optional<ExportFailure> readExportWindow(const std::string& sql, const ExportWindow& window,
                                                const std::string& context,
                                                const std::function<bool(sqlite3_stmt*)>& row);
  enum class JSONSeriesOutcome { written, unwritable };
  // Appends one series' rows to a JSON document; `unwritable` when a value has no JSON form, a
  // failure when the sink could not take the text.
  std::variant<JSONSeriesOutcome, ExportFailure> appendJSONSeries(JSONExport& out, JSONSink& sink,
                                                                  ExportSeries series, double from,
                                                                  double to, std::int64_t rowCap);
  JSONExport writeJSONTo(JSONSink& sink, const std::vector<ExportSeries>& series, TimePoint from,
                         TimePoint to, std::int64_t rowCap);
  // The residency totals of whole past days (quorel_database_residency_reads.cpp): the two
  // tables made when missing (false when they cannot be), the days not kept yet queued one per
  // turn, and one day scanned and kept. On the queue, writable connections only.
  bool createResidencyTables();
  void keepResidencyDays();
  void keepResidencyDay(double dayStart);
  // Runs BEGIN, COMMIT or ROLLBACK; the result code of sqlite3_exec.
  int transaction(const char* sql);

  std::shared_ptr<spdlog::logger> log_;
  const Clock& clock_;
  SqliteConnection db_;
  SerialQueue queue_;
  bool databaseUnavailable_ = false;
  std::string unavailableReason_;
  std::optional<std::filesystem::path> dataDirectory_;
  std::optional<std::filesystem::path> databasePathOverride_;
  std::optional<std::filesystem::path> databasePath_;
  bool queueStarted_ = false;
  std::array<std::uint64_t, 2> energyRevision_{};
  bool readOnly_ = false;
  std::map<EnergyHistoryKey, EnergyHistoryEntry> energyHistoryCache_;
  // What historicalCoverage counted of the settled rows of a period, by the period's start.
  struct CoverageCheckpoint {
    double start = 0;
    double through = 0;  // the last settled row counted
    double raw = 0;
    std::optional<double> previous;
    std::int64_t rejected = 0;
    std::int64_t estimated = 0;
  };
  std::map<double, CoverageCheckpoint> coverageCheckpoints_;
  // PRAGMA data_version when the checkpoints were last known good; absent when unreadable,
  // which keeps none.
  std::optional<std::int64_t> coverageDataVersion_;
  std::optional<std::int64_t> dataVersion();
  std::uint64_t energyHistoryBuilds_ = 0;
  std::uint64_t powerHistoryReads_ = 0;
  // Per kind; vouched for at rollupDataVersion_, and kept current with this connection's writes.
  std::array<EnergyRollup, 2> energyRollups_;
  std::int64_t rollupDataVersion_ = -1;

  // Compiled once at start-up and reused on queue() for the life of the connection; null when
  // preparing failed, and then the write that needs it is skipped.
  struct CachedStatements {
    SqliteStatement insertPowerSample;
    SqliteStatement insertCapacityLog;
    SqliteStatement insertSession;
    SqliteStatement insertProcessEnergy;
    SqliteStatement insertAIAgentEnergy;
    SqliteStatement upsertDailyCapacity;
    SqliteStatement upsertDailyTemperature;
  };
  CachedStatements statements_;
};

}  // namespace quorel
