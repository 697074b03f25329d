#pragma once
// Scenario files for the simulated machine: one JSON object of settings by their names, e.g.
//   {"powerSource": "AC (Supplementing)", "adapterWatts": 30, "systemLoad": "Heavy"}
// Choices are accepted as their texts ("Heavy") or their case names ("heavy"). Nothing is
// applied unless the whole file is valid.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "platform/sandbox/sandbox_config.hpp"

namespace quorel {

struct SandboxConfigFileResult {
  std::optional<SandboxSettings> settings;  // on success: `base` with the file's settings applied
  std::string error;                        // on failure: one sentence for a person

  bool ok() const { return settings.has_value(); }
};

SandboxConfigFileResult readSandboxConfigFile(const std::filesystem::path& file,
                                              const SandboxSettings& base = {});

// `source` names the text in messages, e.g. `Sandbox config file "x.json"`.
SandboxConfigFileResult parseSandboxConfig(std::string_view json, const SandboxSettings& base = {},
                                           std::string_view source = "Sandbox config");

}  // namespace quorel
