#pragma once
// A battery epoch: the span in which one physical battery served. Capacity and cycle trends are
// drawn inside the current epoch only, so a replacement never reads as a sudden rise of health.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/clock.hpp"

namespace quorel {

enum class BatteryEpochSource { initial, automatic, manual };

// "initial", "auto", "manual"; an unknown text reads back as initial.
std::string_view toString(BatteryEpochSource source);
BatteryEpochSource batteryEpochSourceFromString(std::string_view text);

struct BatteryEpoch {
  std::int64_t id = 0;
  TimePoint firstSeen;
  std::optional<std::string> serial;
  std::optional<std::int64_t> baselineCycleCount;
  std::optional<std::int64_t> baselineDesign_mAh;
  std::optional<std::int64_t> baselineNominal_mAh;
  BatteryEpochSource source = BatteryEpochSource::initial;
  bool operator==(const BatteryEpoch&) const = default;
};

// What a person is asked before declaring a new battery.
inline constexpr std::string_view kMarkNewBatteryTitle = "Mark a new battery?";
inline constexpr std::string_view kMarkNewBatteryMessage =
    "Health and cycle trends will re-baseline from today. Your existing history stays in the "
    "database.";
inline constexpr std::string_view kMarkNewBatteryConfirm = "Got new battery";
inline constexpr std::string_view kMarkNewBatteryCancel = "Cancel";

}  // namespace quorel
