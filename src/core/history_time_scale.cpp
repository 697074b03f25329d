#include "core/history_time_scale.hpp"

#include <array>
#include <utility>

namespace quorel {

namespace {
constexpr std::array<std::pair<HistoryTimeScale, std::string_view>, 6> kScales{{
    {HistoryTimeScale::tenMinutes, "10m"},
    {HistoryTimeScale::oneHour, "1h"},
    {HistoryTimeScale::twelveHours, "12h"},
    {HistoryTimeScale::today, "Today"},
    {HistoryTimeScale::sevenDays, "7d"},
    {HistoryTimeScale::thirtyDays, "30d"},
}};
}  // namespace

std::string_view toString(HistoryTimeScale scale) {
  for (const auto& [s, text] : kScales) {
    if (s == scale) return text;
  }
  return "1h";
}

std::optional<HistoryTimeScale> historyTimeScaleFromString(std::string_view text) {
  for (const auto& [scale, name] : kScales) {
    if (name == text) return scale;
  }
  return std::nullopt;
}

}  // namespace quorel
