#pragma once
// Wires the stdio bridge into the configuration files of four AI assistants, in place and
// without disturbing anything else in those files, and takes the wiring out again. Works on the
// user's own files; no state of its own. Blocking file work: call it from one thread at a time
// (nothing guards against another program editing the same file at that moment).
//
// JSON files are rewritten whole, pretty-printed with two-blank indentation, sorted keys and
// unescaped slashes; a file that does not parse is never overwritten. The TOML file is edited by
// lines, so everything else in it stays byte for byte. A backup of the file as it was,
// "<file>.quorel-backup", sits beside each file that a write replaced.

#include <array>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "core/paths.hpp"

namespace quorel::MCPClientConfigurator {

// Raw values equal the case names, which is also how the command line names them.
enum class Client { claudeDesktop, claudeCode, codexCLI, cursor };
inline constexpr std::array<Client, 4> kAllClients = {Client::claudeDesktop, Client::claudeCode,
                                                      Client::codexCLI, Client::cursor};

std::string_view rawValue(Client client);
std::optional<Client> clientFromRawValue(std::string_view text);
std::string_view displayName(Client client);
// The line shown above the manual snippet, saying where it goes.
std::string_view handInstruction(Client client);
// The text to copy by hand, with the bridge's path in it.
std::string manualSnippet(Client client, const std::filesystem::path& bridgePath);

struct Outcome {
  enum class Status { created, updated, alreadyPresent };
  Status status = Status::created;
  // The file's path, with the home directory shortened to "~".
  std::string displayPath;
  bool operator==(const Outcome&) const = default;
};

struct ConfiguratorError {
  enum class Case { parseFailed, writeFailed, bridgeMissing, invalidBridgePath };
  Case kind = Case::writeFailed;
  std::string file;        // the file's name, for parseFailed and writeFailed
  std::string underlying;  // what the system said, for writeFailed
  // The sentence a person is shown.
  std::string description() const;
  bool operator==(const ConfiguratorError&) const = default;
};

using ConfigureResult = std::variant<Outcome, ConfiguratorError>;

// Where the assistants keep their files on this machine, and where the bridge is.
struct Places {
  std::filesystem::path home;
  // $XDG_CONFIG_HOME, or ~/.config: Claude Desktop's folder is under it.
  std::filesystem::path configHome;
  // The installed quorel-mcp, beside the running quorel.
  std::filesystem::path bridgePath;

  // From HOME and XDG_CONFIG_HOME (ignored when empty or relative, as the XDG rules say).
  // Absent when HOME is unset or not an absolute path.
  static std::optional<Places> fromEnvironment(const Environment& env,
                                               std::filesystem::path bridgePath);
};

std::filesystem::path configFileURL(Client client, const Places& places);
std::filesystem::path backupPath(const std::filesystem::path& configFile);
std::string displayPath(const std::filesystem::path& file, const std::filesystem::path& home);

// Writes the entry "quorel". JSON clients always give `updated` or `created` (the entry is
// replaced, never compared); the TOML client gives `alreadyPresent` once its table is there.
ConfigureResult configure(Client client, const Places& places);
// Takes the entry out of every client's file and deletes the backups; never fails. Gives the
// clients whose entry was actually taken out, in order.
std::vector<Client> removeAllClientConfigs(const Places& places);
// Whether the client's file holds the entry now.
bool isConfigured(Client client, const Places& places);

// What a person reads after configure: "Added to ~/.claude.json — restart Claude Code." or
// "Already configured in ~/.codex/config.toml."
std::string outcomeSentence(Client client, const Outcome& outcome);

// The steps, apart so that each can be exercised on its own file.
// The entry's members are all strings: {"command": P}, with "type" for Claude Code.
ConfigureResult mergeJSON(const std::filesystem::path& into,
                          const std::vector<std::pair<std::string, std::string>>& entry,
                          const std::filesystem::path& home);
ConfigureResult appendCodexTOML(const std::filesystem::path& into,
                                const std::filesystem::path& bridgePath,
                                const std::filesystem::path& home);
// Creates the parent folders, saves a backup of an existing file when asked (a failed backup
// does not stop the write), and replaces the file in one step. A symbolic link is written
// through, so a linked dotfile stays linked.
std::optional<ConfiguratorError> writeAtomically(std::string_view data,
                                                 const std::filesystem::path& to,
                                                 bool backupExisting);
bool removeJSONEntry(const std::filesystem::path& at);
bool removeCodexTOMLTable(const std::filesystem::path& at);

}  // namespace quorel::MCPClientConfigurator
