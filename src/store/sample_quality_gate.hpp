#pragma once
// The last plausibility gate a power sample passes before it is stored, so that no reader ever
// sees physically impossible component power. Pure; runs on the store's queue.

#include "store/history_records.hpp"

namespace quorel {

inline constexpr const char* kComponentStorageRejection =
    "component aggregate failed storage validation";

// Returns `sample` with its five component figures removed and labelled rejected when they are
// out of any rail's bounds or contradict the system total, and with its wall estimate labelled
// rejected (value kept) when it is not finite or below what the machine demonstrably took in.
PowerSample qualityChecked(PowerSample sample);

}  // namespace quorel
