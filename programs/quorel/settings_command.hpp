#pragma once
// `quorel settings`: reading and changing the settings document from a shell. It works on the
// preference file directly, so it needs no agent; a running agent watches that file and adopts
// a change as soon as it lands. A change is written only when the whole document still decodes,
// so the command can never leave the agent a document it would throw away for the defaults.

#include <filesystem>
#include <optional>
#include <string>

#include "core/clock.hpp"

namespace quorel {

struct SettingsCommandArguments {
  std::string action = "list";  // "list", "get", "set" or "reset"
  std::optional<std::string> key = std::nullopt;
  // For "set": a JSON value, or for a setting that holds text (an enumeration, say) the text
  // itself without JSON quotes.
  std::optional<std::string> value = std::nullopt;
  bool json = false;
};

struct SettingsCommandResult {
  // 0 done, 1 the preference file could not be written, 2 refused (nothing was written).
  int exitStatus = 0;
  std::string output;  // for standard output
  std::string error;   // for standard error: why it was refused or failed, or a warning
};

// Runs one settings action against the preference file at `preferencesFile`.
SettingsCommandResult runSettingsCommand(const SettingsCommandArguments& arguments,
                                         const std::filesystem::path& preferencesFile,
                                         const Clock& clock);

}  // namespace quorel
