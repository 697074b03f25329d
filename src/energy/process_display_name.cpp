#include "energy/process_display_name.hpp"

#include <array>
#include <utility>

namespace quorel {
namespace {

// Kernel names too terse to recognise, with what people call the program.
constexpr std::array<std::pair<std::string_view, std::string_view>, 1> kFriendlyNames{{
    {"Code", "Visual Studio Code"},
}};

std::optional<std::string_view> friendlyName(std::string_view name) {
  for (const auto& [raw, friendly] : kFriendlyNames) {
    if (raw == name) return friendly;
  }
  return std::nullopt;
}

}  // namespace

std::string processName(std::string_view kernelName, const std::vector<std::string>& arguments) {
  if (!arguments.empty()) {
    // Daemons that retitle themselves write "name: what it is doing" over their arguments; the
    // slash in "user@pts/0" is then no path separator.
    std::string_view program = arguments.front();
    program = program.substr(0, program.find(": "));
    std::string argvBase = lastPathComponent(program);
    if (!argvBase.empty() && !lowerASCII(kernelName).starts_with(lowerASCII(argvBase))) {
      return argvBase;
    }
  }
  return std::string(kernelName);
}

std::string ProcessDisplayName::label(std::string_view name) {
  if (const auto friendly = friendlyName(name)) return std::string(*friendly);
  if (auto helper = parseHelperForm(name)) return std::move(*helper);
  return std::string(name);
}

std::optional<std::string> ProcessDisplayName::parseHelperForm(std::string_view name) {
  constexpr std::string_view kMarker = " Helper";
  const auto marker = name.find(kMarker);
  if (marker == std::string_view::npos || marker == 0) return std::nullopt;
  const std::string_view rawBase = name.substr(0, marker);
  const std::string base(friendlyName(rawBase).value_or(rawBase));
  const std::string_view rest = name.substr(marker + kMarker.size());
  if (rest.empty()) return base;
  if (rest.starts_with(" (") && rest.ends_with(")")) {
    return base + " (" + std::string(rest.substr(2, rest.size() - 3)) + ")";
  }
  return std::nullopt;
}

}  // namespace quorel
