#pragma once

#include <string>

namespace quorel {

// A new random (version 4) identifier as upper-case UUID text, the form stored everywhere.
std::string makeUuid();

}  // namespace quorel
