#include "store/sqlite_connection.hpp"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include "core/logging.hpp"
#include "store/database_files.hpp"

namespace quorel {

namespace {
// spdlog's names for the levels the history store speaks of: a transient failure is a warning, a
// damaged file is critical.
constexpr auto kTransientLevel = spdlog::level::warn;
constexpr auto kFaultLevel = spdlog::level::critical;
}  // namespace

void SqliteConnectionCloser::operator()(sqlite3* db) const {
  sqlite3_close_v2(db);
}

void SqliteStatementFinalizer::operator()(sqlite3_stmt* statement) const {
  sqlite3_finalize(statement);
}

SqliteStatement prepareStatement(sqlite3* db, const char* sql, int& rc) {
  sqlite3_stmt* raw = nullptr;
  rc = sqlite3_prepare_v2(db, sql, -1, &raw, nullptr);
  SqliteStatement statement(raw);
  if (rc != SQLITE_OK) statement.reset();
  return statement;
}

SqliteConnection::SqliteConnection(std::shared_ptr<spdlog::logger> log,
                                   std::function<void()> onCorruption)
    : log_(std::move(log)), onCorruption_(std::move(onCorruption)) {}

int SqliteConnection::openReadWrite(const std::filesystem::path& file, bool createPrivate) {
  file_ = file;
  if (createPrivate) {
    if (const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600); fd >= 0) {
      ::close(fd);
    }
  }
  return adopt(file, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
}

int SqliteConnection::openReadOnly(const std::filesystem::path& file) {
  file_ = file;
  return adopt(file, SQLITE_OPEN_READONLY);
}

int SqliteConnection::adopt(const std::filesystem::path& file, int flags) {
  sqlite3* raw = nullptr;
  const int rc = sqlite3_open_v2(file.c_str(), &raw, flags, nullptr);
  SqliteHandle handle(raw);
  if (rc != SQLITE_OK) {
    openFailure_ = handle ? sqlite3_errmsg(handle.get()) : sqlite3_errstr(rc);
    return rc;
  }
  handle_ = std::move(handle);
  return SQLITE_OK;
}

void SqliteConnection::close() {
  handle_.reset();
}

void SqliteConnection::execute(const char* sql) {
  if (!handle_) return;
  char* message = nullptr;
  if (sqlite3_exec(handle_.get(), sql, nullptr, nullptr, &message) != SQLITE_OK) {
    log_->error("SQL error: {}", message ? message : "unknown error");
  }
  sqlite3_free(message);
}

int SqliteConnection::exec(const char* sql) {
  return sqlite3_exec(handle_.get(), sql, nullptr, nullptr, nullptr);
}

std::string SqliteConnection::errorMessage() const {
  return handle_ ? sqlite3_errmsg(handle_.get()) : "<no handle>";
}

bool SqliteConnection::inTransaction() const {
  return handle_ && sqlite3_get_autocommit(handle_.get()) == 0;
}

bool SqliteConnection::columnExists(std::string_view table, std::string_view column) {
  int rc = SQLITE_OK;
  const std::string sql = "PRAGMA table_info(" + std::string(table) + ")";
  auto statement = prepareStatement(handle_.get(), sql.c_str(), rc);
  if (!statement) return false;
  while (sqlite3_step(statement.get()) == SQLITE_ROW) {
    const auto* name = sqlite3_column_text(statement.get(), 1);
    if (name && column == reinterpret_cast<const char*>(name)) return true;
  }
  return false;
}

std::optional<int> SqliteConnection::userVersion() {
  int rc = SQLITE_OK;
  auto statement = prepareStatement(handle_.get(), "PRAGMA user_version", rc);
  if (!statement || sqlite3_step(statement.get()) != SQLITE_ROW) return std::nullopt;
  return sqlite3_column_int(statement.get(), 0);
}

void SqliteConnection::logError(int rc, std::string_view context) {
  const std::string message = errorMessage();
  switch (rc & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      log_->log(kTransientLevel, "{} transient: rc={} msg={}", context, rc, message);
      return;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      log_->error("{} failed: rc={} msg={}", context, rc, message);
      signalCorruption();
      return;
    default:
      log_->error("{} failed: rc={} msg={}", context, rc, message);
      return;
  }
}

void SqliteConnection::signalCorruption() {
  if (corruptionSignaled_) return;
  corruptionSignaled_ = true;
  if (file_) {
    log_->log(kFaultLevel,
              "database corruption detected — to start a fresh history, stop quorel and run: {}",
              databaseRemovalCommand(*file_));
  } else {
    log_->log(kFaultLevel, "database corruption detected — no history database could be opened");
  }
  if (onCorruption_) onCorruption_();
}

}  // namespace quorel
