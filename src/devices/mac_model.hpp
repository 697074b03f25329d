#pragma once
// The kinds of machine the program knows, with the per-model facts the display needs.
// Working out which one this is belongs to detection, not to this record.

#include <optional>
#include <string_view>

namespace quorel {

enum class MacModel {
  macBookPro,
  macBookAir,
  macBookNeo,
  macStudio,
  macPro,
  macMini,
  iMac,
  unknown,
};

// "MacBook Pro", "Mac mini", ...; "Mac" for unknown.
std::string_view displayName(MacModel model);
// The case name ("macBookPro", "iMac", ...).
std::string_view toString(MacModel model);
std::optional<MacModel> macModelFromString(std::string_view caseName);
// A rough peak of the machine's load in watts, to scale gauges; absent for unknown.
std::optional<double> maxLoadW(MacModel model);
// Desktops have no battery whatever a power-source list says.
bool isDesktop(MacModel model);

}  // namespace quorel
