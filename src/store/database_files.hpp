#pragma once
// The files that make up the history database on disk, and the command that removes them, for
// the texts that tell a person how to start afresh.

#include <array>
#include <filesystem>
#include <string>

namespace quorel {

// Inside the data directory ($XDG_DATA_HOME/quorel, ~/.local/share/quorel, or --data-dir).
inline constexpr const char* kDatabaseFileName = "quorel.db";

// The main file and its write-ahead log and shared-memory companions, in that order.
std::array<std::filesystem::path, 3> databaseFileSet(const std::filesystem::path& databaseFile);

// "rm -f -- '<file>' '<file>-wal' '<file>-shm'", each path quoted for a POSIX shell.
std::string databaseRemovalCommand(const std::filesystem::path& databaseFile);

}  // namespace quorel
