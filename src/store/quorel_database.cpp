// The history store's life: finding and opening its file, setting the connection up, making or
// upgrading the schema, and closing it on its own queue.

#include "store/quorel_database.hpp"

#include <sys/stat.h>

#include <cerrno>
#include <future>
#include <system_error>

#include "core/logging.hpp"
#include "store/quorel_migrations.hpp"
#include "store/quorel_schema.hpp"

namespace quorel {

namespace fs = std::filesystem;

static_assert(QuorelDatabase::kSchemaVersion == schema::kVersion);

QuorelDatabase::QuorelDatabase(Options options, const Clock& clock)
    : log_(logging::get("db")),
      clock_(clock),
      db_(log_, std::move(options.onCorruption)),
      queue_("com.quorel.database", clock),
      dataDirectory_(std::move(options.dataDirectory)),
      databasePathOverride_(std::move(options.databasePathOverride)),
      readOnly_(options.readOnly) {
  if (readOnly_) {
    openReadOnly();
  } else {
    openDatabase();
    if (db_) {
      db_.execute("PRAGMA journal_mode = WAL");
      db_.execute("PRAGMA busy_timeout = 3000");
      db_.execute("PRAGMA synchronous = NORMAL");
      db_.execute("PRAGMA wal_autocheckpoint = 1000");
      db_.execute("PRAGMA secure_delete = ON");
    }
    // After the WAL pragma, since only then do the companion files exist.
    tightenFilePermissions();
    if (db_) {
      for (const char* sql : schema::createStatements()) db_.execute(sql);
      migrateSchema(db_, *log_);
      prepareCachedStatements();
      // Vouched for from the start, so that every batch written from now on folds straight in.
      (void)energyRollupOnQueue(EnergyHistoryKind::processes);
    }
  }
  if (options.startQueue) {
    queue_.start();
    queueStarted_ = true;
  }
}

QuorelDatabase::~QuorelDatabase() {
  if (queueStarted_) {
    try {
      queue_.sync([this] { close(); });
    } catch (const std::future_error&) {
      close();  // the queue had stopped already; nothing else can be using the handle
    }
  } else {
    close();
  }
  queue_.shutdown();
}

void QuorelDatabase::close() {
  statements_ = {};
  db_.close();
}

std::optional<fs::path> QuorelDatabase::databaseFolder() const {
  if (databasePath_) return databasePath_->parent_path();
  return dataDirectory_;
}

void QuorelDatabase::markUnavailable(std::string reason) {
  databaseUnavailable_ = true;
  unavailableReason_ = std::move(reason);
}

void QuorelDatabase::openDatabase() {
  if (databasePathOverride_) {
    databasePath_ = *databasePathOverride_;
    if (db_.openReadWrite(*databasePathOverride_, /*createPrivate=*/false) != 0) {
      log_->error("failed to open explicit database path");
      markUnavailable("cannot open " + databasePath_->string() + ": " + db_.openFailure());
    }
    return;
  }
  if (!dataDirectory_) {
    log_->critical(
        "cannot locate the data directory ($XDG_DATA_HOME/quorel, else ~/.local/share/quorel) — "
        "set HOME or pass --data-dir DIR");
    markUnavailable("no data directory could be located");
    db_.signalCorruption();
    return;
  }
  std::error_code ec;
  if (!fs::exists(*dataDirectory_, ec)) {
    fs::create_directories(*dataDirectory_, ec);
    if (ec) {
      log_->critical("createDirectory failed at {} — {}", dataDirectory_->string(), ec.message());
    }
  }
  const fs::path file = *dataDirectory_ / kFileName;
  databasePath_ = file;
  if (const int rc = db_.openReadWrite(file, /*createPrivate=*/true); rc != 0) {
    log_->critical("failed to open database at {} rc={} msg={}", file.string(), rc,
                   db_.openFailure());
    markUnavailable("cannot open " + file.string() + ": " + db_.openFailure());
    db_.signalCorruption();
  }
}

void QuorelDatabase::openReadOnly() {
  databasePath_ = databasePathOverride_ ? databasePathOverride_
                  : dataDirectory_      ? std::optional(*dataDirectory_ / kFileName)
                                        : std::nullopt;
  if (!databasePath_) {
    markUnavailable("no data directory could be located");
    return;
  }
  if (const int rc = db_.openReadOnly(*databasePath_); rc != 0) {
    log_->error("failed to open database read-only at {} rc={} msg={}", databasePath_->string(), rc,
                db_.openFailure());
    markUnavailable("cannot open " + databasePath_->string() +
                    " for reading: " + db_.openFailure());
    return;
  }
  // The agent may be writing at the same moment; wait for it as a writer would.
  db_.execute("PRAGMA busy_timeout = 3000");
}

void QuorelDatabase::tightenFilePermissions() {
  // The default location is tightened even when an override is in force.
  if (!dataDirectory_) return;
  const fs::path& directory = *dataDirectory_;
  if (::chmod(directory.c_str(), 0700) != 0) {
    log_->error("tightenFilePermissions: dir chmod 0700 failed at {} — {}", directory.string(),
                std::system_category().message(errno));
  }
  for (const fs::path& file : databaseFileSet(directory / kFileName)) {
    std::error_code ec;
    if (!fs::exists(file, ec)) continue;
    if (::chmod(file.c_str(), 0600) != 0) {
      log_->error("tightenFilePermissions: file chmod 0600 failed at {} — {}", file.string(),
                  std::system_category().message(errno));
    }
  }
}

}  // namespace quorel
