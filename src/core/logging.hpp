#pragma once
// One spdlog logger per category ("PowerMonitor", "db", "mcp", ...), all writing through the
// same sinks: standard error and, when configured, a rotating file. Messages are the system's
// own texts, word for word.

#include <spdlog/logger.h>
#include <spdlog/sinks/sink.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>

namespace quorel::logging {

struct Options {
  spdlog::level::level_enum level = spdlog::level::info;
  bool toStderr = true;
  // Rotating log file (5 files of 1 MiB); absent means no file.
  std::optional<std::filesystem::path> file;
};

// Replaces the sinks of every logger, existing and future. Safe to call more than once.
void configure(const Options& options);

// The logger of a category, created on first use. Thread-safe.
std::shared_ptr<spdlog::logger> get(std::string_view category);

// Adds a sink beside the configured ones, e.g. a test's capture; removeSink takes it away.
void addSink(std::shared_ptr<spdlog::sinks::sink> sink);
void removeSink(const std::shared_ptr<spdlog::sinks::sink>& sink);

}  // namespace quorel::logging
