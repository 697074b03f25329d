#pragma once
// What a person is told when the history database is unreadable. The headless agent logs it and
// prints it, with the folder that holds the files and the command that removes them, since the
// fix is theirs to make: remove the damaged files and start quorel again. Nothing here deletes or
// repairs anything.

#include <filesystem>
#include <optional>
#include <ostream>
#include <string_view>

namespace quorel {

inline constexpr std::string_view kDatabaseCorruptionTitle =
    "Quorel's history database is unreadable";
inline constexpr std::string_view kDatabaseCorruptionText =
    "Quorel can keep running, but new samples and history won't be saved. To start fresh, stop "
    "quorel, remove the damaged files with the command below and start quorel again.";

// Logs the title and text at error level (category "AppDelegate") and writes them to `err`,
// followed by the database folder's path and the removal command for the quorel.db in it. The
// store signals corruption once per process, so calling this from that signal says it once.
void reportCorruptionHeadless(const std::optional<std::filesystem::path>& databaseFolder,
                              std::ostream& err);

}  // namespace quorel
