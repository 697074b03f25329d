#pragma once
// Who made a charger, from the USB vendor id its power delivery reports, for the adapter's
// readout.

#include <cstdint>
#include <optional>
#include <string_view>

#include "core/battery_diagnostics.hpp"

namespace quorel {

struct USBPDVendorLookup {
  // The maker's name, or nothing for a vendor id we do not know.
  static std::optional<std::string_view> vendorName(std::int64_t vendorID);
};

// "Apple" for an Apple source, the maker of any other charger whose vendor id is known, and
// "Third-Party" when the id is missing, zero or unknown.
std::string_view sourceLabel(const AdapterInfo& adapter);

}  // namespace quorel
