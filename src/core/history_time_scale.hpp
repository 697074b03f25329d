#pragma once

#include <optional>
#include <string_view>

namespace quorel {

// The periods of the history views.
enum class HistoryTimeScale { tenMinutes, oneHour, twelveHours, today, sevenDays, thirtyDays };

std::string_view toString(HistoryTimeScale scale);  // "10m", "1h", "12h", "Today", "7d", "30d"
std::optional<HistoryTimeScale> historyTimeScaleFromString(std::string_view text);

}  // namespace quorel
