#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quorel {

// A new random (version 4) identifier as upper-case UUID text, the form stored everywhere.
std::string makeUuid();

// The upper-case form of UUID text in either case (8-4-4-4-12 hexadecimal digits); absent for
// anything else.
std::optional<std::string> normalizeUuid(std::string_view text);

}  // namespace quorel
