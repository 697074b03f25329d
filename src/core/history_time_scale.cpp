#include "core/history_time_scale.hpp"

namespace quorel {

std::string_view toString(HistoryTimeScale scale) {
  return kHistoryTimeScaleTexts.text(scale, "1h");
}

std::optional<HistoryTimeScale> historyTimeScaleFromString(std::string_view text) {
  return kHistoryTimeScaleTexts.parse(text);
}

}  // namespace quorel
