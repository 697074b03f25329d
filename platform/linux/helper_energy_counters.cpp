#include "platform/linux/helper_energy_counters.hpp"

#include <cerrno>
#include <mutex>
#include <set>

#include "control/helper_client.hpp"

namespace quorel {

namespace {

struct Batch {
  std::mutex mutex;
  std::map<std::string, std::uint64_t> counters;
  // Zones already answered from this batch: asking for one again means a new pass has begun.
  std::set<std::string> served;
};

}  // namespace

AttributeReader withHelperEnergyCounters(AttributeReader direct, EnergyCounterFetch fetch) {
  auto batch = std::make_shared<Batch>();
  return [direct = std::move(direct), fetch = std::move(fetch), batch](
             const std::filesystem::path& file, int* error) -> std::optional<std::string> {
    int directError = 0;
    auto text = direct(file, &directError);
    if (text || file.filename() != "energy_uj" || (directError != EACCES && directError != EPERM)) {
      if (error) *error = directError;
      return text;
    }
    const std::string zone = file.parent_path().filename().string();
    std::lock_guard lock(batch->mutex);
    if (batch->counters.empty() || batch->served.contains(zone)) {
      int fetchError = 0;
      auto fetched = fetch(&fetchError);
      batch->served.clear();
      if (!fetched) {
        batch->counters.clear();
        if (error) *error = fetchError;
        return std::nullopt;
      }
      batch->counters = std::move(*fetched);
    }
    const auto found = batch->counters.find(zone);
    if (found == batch->counters.end()) {
      if (error) *error = ENOENT;
      return std::nullopt;
    }
    batch->served.insert(zone);
    return std::to_string(found->second);
  };
}

EnergyCounterFetch helperEnergyCounterFetch(std::filesystem::path socketPath, Seconds timeout,
                                            const Clock& clock) {
  return [socketPath = std::move(socketPath), timeout,
          &clock](int* error) -> std::optional<std::map<std::string, std::uint64_t>> {
    const auto outcome = callHelperOnce(socketPath, "readEnergyCounters", {}, timeout, clock);
    const auto fail = [error](int code) {
      if (error) *error = code;
      return std::nullopt;
    };
    if (outcome.error) {
      const bool unreachable = outcome.error->kind != HelperCallError::Kind::transport ||
                               outcome.error->code == ENOENT ||
                               outcome.error->code == ECONNREFUSED || outcome.error->code == EACCES;
      return fail(unreachable ? EACCES : EIO);
    }
    const auto* zones = outcome.result->arrayValue();
    if (zones == nullptr) return fail(EIO);
    std::map<std::string, std::uint64_t> counters;
    for (const JSONValue& entry : *zones) {
      const auto* zone = entry.find("zone");
      const auto energy =
          entry.find("energy_uj") ? entry.find("energy_uj")->numberValue() : std::nullopt;
      if (zone == nullptr || !zone->isString() || !energy || *energy < 0) continue;
      counters[*zone->stringValue()] = static_cast<std::uint64_t>(*energy);
    }
    return counters;
  };
}

}  // namespace quorel
