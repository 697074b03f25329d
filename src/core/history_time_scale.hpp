#pragma once

#include <optional>
#include <string_view>

#include "core/enum_text.hpp"

namespace quorel {

// The periods of the history views.
enum class HistoryTimeScale { tenMinutes, oneHour, twelveHours, today, sevenDays, thirtyDays };

// The raw texts, as the settings document stores them.
inline constexpr EnumTextTable<HistoryTimeScale, 6> kHistoryTimeScaleTexts{{{
    {HistoryTimeScale::tenMinutes, "10m"},
    {HistoryTimeScale::oneHour, "1h"},
    {HistoryTimeScale::twelveHours, "12h"},
    {HistoryTimeScale::today, "Today"},
    {HistoryTimeScale::sevenDays, "7d"},
    {HistoryTimeScale::thirtyDays, "30d"},
}}};

std::string_view toString(HistoryTimeScale scale);
std::optional<HistoryTimeScale> historyTimeScaleFromString(std::string_view text);

}  // namespace quorel
