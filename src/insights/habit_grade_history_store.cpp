#include "insights/habit_grade_history_store.hpp"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "core/local_time.hpp"
#include "core/logging.hpp"
#include "insights/local_days.hpp"

namespace quorel {

namespace {

// Dates in the preference domain count seconds from 2001-01-01 00:00:00 UTC, as the settings
// document's do.
constexpr double kReferenceDateUnixSeconds = 978307200.0;
constexpr double kPlausibleSeconds = 1e10;

nlohmann::json encode(const std::vector<HabitGradeSnapshot>& snapshots) {
  auto list = nlohmann::json::array();
  for (const auto& s : snapshots) {
    list.push_back({{"timestamp", toUnixSeconds(s.timestamp) - kReferenceDateUnixSeconds},
                    {"grade", s.grade},
                    {"factors", s.factors}});
  }
  return list;
}

// Throws nlohmann::json's exceptions on any value of the wrong shape.
std::vector<HabitGradeSnapshot> decode(const std::string& text) {
  const auto list = nlohmann::json::parse(text);
  if (!list.is_array()) throw std::invalid_argument("not a list of snapshots");
  std::vector<HabitGradeSnapshot> snapshots;
  for (const auto& item : list) {
    HabitGradeSnapshot s;
    const double seconds = item.at("timestamp").get<double>();
    // Far beyond any real date, the conversion to a time point would overflow.
    if (!(std::abs(seconds) < kPlausibleSeconds)) throw std::out_of_range("timestamp out of range");
    s.timestamp = fromUnixSeconds(seconds + kReferenceDateUnixSeconds);
    s.grade = item.at("grade").get<std::string>();
    s.factors = item.at("factors").get<HabitFactors>();
    snapshots.push_back(std::move(s));
  }
  return snapshots;
}

}  // namespace

int HabitGradeSnapshot::gradeIndex() const {
  return static_cast<int>(kHabitGradeTexts.parse(grade).value_or(HabitGrade::F));
}

HabitGradeHistoryStore::HabitGradeHistoryStore(PreferenceStore& userDefaults)
    : userDefaults_(userDefaults) {}

std::vector<HabitGradeSnapshot> HabitGradeHistoryStore::record(HabitGradeSnapshot snapshot) {
  std::lock_guard lock(recordMutex_);
  auto snapshots = loadAll();
  const std::string day = dayIdentity(snapshot.timestamp).key;
  std::erase_if(snapshots,
                [&](const HabitGradeSnapshot& s) { return dayIdentity(s.timestamp).key == day; });
  const TimePoint horizon = startOfLocalDayBefore(snapshot.timestamp, kRetentionDays);
  snapshots.push_back(std::move(snapshot));
  std::erase_if(snapshots, [&](const HabitGradeSnapshot& s) { return s.timestamp < horizon; });
  userDefaults_.setValue(kStorageKey, encode(snapshots).dump());
  return snapshots;
}

std::vector<HabitGradeSnapshot> HabitGradeHistoryStore::loadAll() const {
  const auto stored = userDefaults_.value(kStorageKey);
  if (!stored) return {};
  try {
    if (!stored->is_string()) throw std::invalid_argument("not JSON text");
    return decode(stored->get<std::string>());
  } catch (const std::exception& e) {
    logging::get("insights")->warn("habit grade history unreadable, starting afresh: {}", e.what());
    return {};
  }
}

}  // namespace quorel
