#include "store/quorel_database.hpp"
#include "telemetry/power_recorder.hpp"

namespace quorel {

void QuorelDatabaseRecordingStore::insertPowerSample(const PowerSample& sample) {
  database_.insertPowerSample(sample);
}

void QuorelDatabaseRecordingStore::insertSession(const SessionRecord& session) {
  database_.insertSession(session);
}

void QuorelDatabaseRecordingStore::insertCapacityLog(const CapacityLogEntry& entry) {
  database_.insertCapacityLog(entry);
}

std::optional<BatteryEpoch> QuorelDatabaseRecordingStore::reconcileBatteryEpoch(
    const std::string& serial, std::int64_t cycleCount, std::int64_t designCapacity,
    std::int64_t nominalCapacity, TimePoint at) {
  return database_.reconcileBatteryEpoch(serial, cycleCount, designCapacity, nominalCapacity, at);
}

std::vector<PowerSample> QuorelDatabaseRecordingStore::queryPowerSamples(TimePoint from,
                                                                         TimePoint to,
                                                                         int maxPoints) {
  return database_.queryPowerSamples(from, to, maxPoints).valueOr({});
}

}  // namespace quorel
