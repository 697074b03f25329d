#pragma once
// One SQLite connection of the history store: opening it (private from the first byte, or read
// only), running statements, and the one classifier of its failures, which also raises the
// corruption signal, once per connection object.
//
// Not thread-safe: the owner touches it from one thread at a time (the store's queue).

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "store/sqlite_handle.hpp"

namespace spdlog {
class logger;
}

namespace quorel {

class SqliteConnection {
 public:
  // `onCorruption` is called at most once, from signalCorruption(); must not block.
  SqliteConnection(std::shared_ptr<spdlog::logger> log, std::function<void()> onCorruption);

  // Opens `file` for reading and writing. With `createPrivate` a missing file is first created
  // with mode 0600: SQLite gives its -wal and -shm companions the mode of the main file, so the
  // whole set stays private. SQLITE_OK, or the result code with SQLite's words in openFailure().
  int openReadWrite(const std::filesystem::path& file, bool createPrivate);
  // Opens an existing file for reading only; nothing is created.
  int openReadOnly(const std::filesystem::path& file);
  void close();

  sqlite3* get() const { return handle_.get(); }
  explicit operator bool() const { return handle_ != nullptr; }
  // The file last opened (or tried).
  const std::optional<std::filesystem::path>& file() const { return file_; }
  // SQLite's words for the last failed open.
  const std::string& openFailure() const { return openFailure_; }

  // Runs `sql`, logging "SQL error: ..." on failure without classifying it.
  void execute(const char* sql);
  // sqlite3_exec; the result code, the message left for errorMessage().
  int exec(const char* sql);
  int exec(const std::string& sql) { return exec(sql.c_str()); }
  // SQLite's words for the last failure on this connection.
  std::string errorMessage() const;
  bool inTransaction() const;
  bool columnExists(std::string_view table, std::string_view column);
  // PRAGMA user_version; absent when it cannot be read.
  std::optional<int> userVersion();

  // Busy and locked are transient (logged at warning level), corrupt and not-a-database signal
  // corruption, everything else is logged as an error.
  void logError(int rc, std::string_view context);
  // Logs what a person must do to start afresh (at critical level) and calls onCorruption, the
  // first time only.
  void signalCorruption();

 private:
  int adopt(const std::filesystem::path& file, int flags);

  SqliteHandle handle_;
  std::shared_ptr<spdlog::logger> log_;
  std::function<void()> onCorruption_;
  bool corruptionSignaled_ = false;
  std::optional<std::filesystem::path> file_;
  std::string openFailure_;
};

}  // namespace quorel
