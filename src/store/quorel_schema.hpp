#pragma once
// The current shape of the history database, as the statements that make it. Older shapes live
// with the steps that upgrade them, in quorel_migrations.cpp.

#include <span>

namespace quorel::schema {

inline constexpr int kVersion = 8;

// Every table and index of the current shape, in the IF NOT EXISTS form, so that running them
// fills in whatever an older file lacks and leaves the rest to the migrations.
std::span<const char* const> createStatements();
// What version 5 introduced: battery_epoch and its index.
std::span<const char* const> batteryEpochStatements();
// What version 7 introduced: daily_battery_metrics, collection_intervals and their indexes.
std::span<const char* const> historicalQualityStatements();

}  // namespace quorel::schema
