#pragma once
// The powercap energy counters through the helper, for a kernel that keeps them from unprivileged
// users. Wraps the sampler's attribute reader: an energy_uj that the kernel refuses is answered
// from the helper's readEnergyCounters instead, one helper call serving every zone of a pass.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "core/clock.hpp"
#include "platform/linux/powercap_energy_counters.hpp"

namespace quorel {

// Counters by zone directory name ("intel-rapl:0"). On failure absent, with `error` EACCES when
// the helper cannot serve this user at all (not installed, not allowed: the sampler then says the
// counters are root's), EIO when it was there but did not answer.
using EnergyCounterFetch =
    std::function<std::optional<std::map<std::string, std::uint64_t>>(int* error)>;

AttributeReader withHelperEnergyCounters(AttributeReader direct, EnergyCounterFetch fetch);

// Asks the helper at `socketPath`, waiting at most `timeout` (the sampler runs on the poll queue).
EnergyCounterFetch helperEnergyCounterFetch(std::filesystem::path socketPath, Seconds timeout,
                                            const Clock& clock);

}  // namespace quorel
