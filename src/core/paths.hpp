#pragma once
// Where Quorel keeps its files on this platform (the XDG base directories). Every function
// takes the environment as a parameter so tests never depend on the caller's home.

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace quorel {

// Looks a variable up; absent when unset. Production passes ProcessEnvironment.
using Environment = std::function<std::optional<std::string>(const std::string&)>;
std::optional<std::string> ProcessEnvironment(const std::string& name);

struct QuorelPaths {
  // $XDG_DATA_HOME/quorel (default ~/.local/share/quorel): database, mcp-token, mcp-endpoint.
  std::filesystem::path dataDirectory;
  // $XDG_CONFIG_HOME/quorel (default ~/.config/quorel): defaults.json, the preference domain.
  std::filesystem::path configDirectory;
  // $XDG_STATE_HOME/quorel (default ~/.local/state/quorel): log files.
  std::filesystem::path stateDirectory;
  // $XDG_RUNTIME_DIR (absent when unset): the single-instance lock.
  std::optional<std::filesystem::path> runtimeDirectory;

  std::filesystem::path databaseFile() const { return dataDirectory / "quorel.db"; }
  std::filesystem::path preferencesFile() const { return configDirectory / "defaults.json"; }
  std::filesystem::path logFile() const { return stateDirectory / "quorel.log"; }

  // Resolves the XDG variables; `dataDirectoryOverride` (the --data-dir flag) replaces the data
  // directory. Fails with a sentence when neither the XDG variable nor HOME is set.
  static QuorelPaths resolve(const Environment& env,
                             std::optional<std::filesystem::path> dataDirectoryOverride = {});
};

}  // namespace quorel
