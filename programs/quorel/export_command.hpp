#pragma once
// `quorel export`: history out of the store as CSV or JSON, on a read-only connection, so it
// works with or without a running agent. CSV of one series goes to standard output unless a file
// is named; files appear whole or not at all.

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/clock.hpp"

namespace quorel {

struct ExportCommandArguments {
  // Raw series names ("power", "processEnergy", ...), as typed.
  std::vector<std::string> series;
  // As typed; parsed and checked by the command.
  std::string from;
  std::string to;
  std::string format = "csv";
  // A file, or a directory to hold files under their default names.
  std::optional<std::string> output = std::nullopt;
};

// Where the command writes.
struct ExportCommandStreams {
  // Standard output's descriptor: CSV and JSON without --output stream here.
  int output = 1;
  // Receives progress lines ("\r"-led, to be overwritten) for long exports; none when empty.
  std::function<void(std::string_view)> progress;
  // Where files go when several series are exported with no --output.
  std::filesystem::path workingDirectory = ".";
};

struct ExportCommandResult {
  // 0 done, 1 the history could not be read, 2 bad arguments or a target that cannot be written.
  int exitStatus = 0;
  std::string notice;  // for standard error: what was written, or a truncation
  std::string error;   // for standard error, a sentence
};

ExportCommandResult runExportCommand(const ExportCommandArguments& arguments,
                                     const std::filesystem::path& databasePath, const Clock& clock,
                                     const ExportCommandStreams& streams);

}  // namespace quorel
