#include "mcp/mcp_client_configurator.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "core/enum_text.hpp"
#include "mcp/text_util.hpp"

namespace quorel::MCPClientConfigurator {

namespace fs = std::filesystem;

namespace {

const std::string kEntryName = "quorel";
const std::string kServersKey = "mcpServers";
constexpr std::string_view kCodexHeader = "[mcp_servers.quorel]";

constexpr EnumTextTable<Client, 4> kRawValues{{{
    {Client::claudeDesktop, "claudeDesktop"},
    {Client::claudeCode, "claudeCode"},
    {Client::codexCLI, "codexCLI"},
    {Client::cursor, "cursor"},
}}};

constexpr EnumTextTable<Client, 4> kDisplayNames{{{
    {Client::claudeDesktop, "Claude Desktop"},
    {Client::claudeCode, "Claude Code"},
    {Client::codexCLI, "OpenAI Codex CLI"},
    {Client::cursor, "Cursor"},
}}};

constexpr EnumTextTable<Client, 4> kHandInstructions{{{
    {Client::claudeDesktop,
     "Add to claude_desktop_config.json (Claude ▸ Settings ▸ Developer ▸ Edit Config):"},
    {Client::claudeCode, "Run this once in your terminal:"},
    {Client::codexCLI, "Add to ~/.codex/config.toml:"},
    {Client::cursor, "Add to ~/.cursor/mcp.json (Cursor ▸ Settings ▸ MCP):"},
}}};

// White space as a regular expression's \s has it, line ends included.
bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

std::string_view trimmed(std::string_view line) {
  while (!line.empty() && isSpace(line.front())) line.remove_prefix(1);
  while (!line.empty() && isSpace(line.back())) line.remove_suffix(1);
  return line;
}

std::string fileName(const fs::path& file) {
  return file.filename().string();
}

// The whole file, or absent when it is missing or cannot be read.
std::optional<std::string> readFile(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream contents;
  contents << in.rdbuf();
  if (in.bad()) return std::nullopt;
  return std::move(contents).str();
}

bool fileExists(const fs::path& file) {
  std::error_code ec;
  return fs::exists(file, ec);
}

// Basic strings of TOML: a backslash and a double quote are escaped, nothing else.
std::string tomlBasicString(std::string_view text) {
  std::string out;
  for (char c : text) {
    if (c == '\\' || c == '"') out += '\\';
    out += c;
  }
  return out;
}

std::string codexTable(const fs::path& bridgePath) {
  return std::string(kCodexHeader) + "\ncommand = \"" + tomlBasicString(bridgePath.string()) + "\"";
}

// Pretty-printed with two blanks, keys sorted (the object type keeps them so), slashes as they
// are. Absent when a string is not UTF-8, which JSON cannot carry.
std::optional<std::string> serialise(const nlohmann::json& root, std::string& why) {
  try {
    return root.dump(2, ' ', false, nlohmann::json::error_handler_t::strict);
  } catch (const nlohmann::json::exception& e) {
    why = e.what();
    return std::nullopt;
  }
}

// The file as a JSON object: absent when it is missing, unreadable or empty (`present` then
// tells which), or when it does not hold an object (`invalid` set).
std::optional<nlohmann::json> readJSONObject(const fs::path& file, bool& invalid) {
  invalid = false;
  const auto text = readFile(file);
  if (!text || text->empty()) return std::nullopt;
  auto root = nlohmann::json::parse(*text, nullptr, false);
  if (root.is_discarded() || !root.is_object()) {
    invalid = true;
    return std::nullopt;
  }
  return root;
}

std::vector<std::string> splitLines(std::string_view text) {
  std::vector<std::string> lines;
  std::size_t at = 0;
  for (;;) {
    const auto end = text.find('\n', at);
    lines.emplace_back(text.substr(at, end == std::string_view::npos ? end : end - at));
    if (end == std::string_view::npos) return lines;
    at = end + 1;
  }
}

// The header on a line of its own, blanks around it allowed. A lone carriage return ends a line
// here too, as it does for a multi-line regular expression.
bool hasCodexTable(std::string_view text) {
  std::size_t at = 0;
  while (at <= text.size()) {
    auto end = text.find_first_of("\r\n", at);
    if (end == std::string_view::npos) end = text.size();
    if (trimmed(text.substr(at, end - at)) == kCodexHeader) return true;
    at = end + 1;
  }
  return false;
}

ConfiguratorError writeError(const fs::path& file, std::string underlying) {
  return {ConfiguratorError::Case::writeFailed, fileName(file), std::move(underlying)};
}

// Writes `data` to a temporary file in `target`'s folder and renames it over `target`. The mode
// of the file it replaces is kept (some of these files hold keys); a new file is the user's
// alone.
std::optional<std::string> replaceFile(std::string_view data, const fs::path& target) {
  struct stat existing {};
  const bool replacing = ::stat(target.c_str(), &existing) == 0;
  std::string temporary =
      (target.parent_path() / ("." + target.filename().string() + ".quorel-XXXXXX")).string();
  const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
  if (fd < 0) return std::strerror(errno);
  const auto fail = [&](int error) -> std::optional<std::string> {
    ::close(fd);
    ::unlink(temporary.c_str());
    return std::strerror(error);
  };
  for (std::size_t written = 0; written < data.size();) {
    const ssize_t n = ::write(fd, data.data() + written, data.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return fail(errno);
    written += static_cast<std::size_t>(n);
  }
  if (::fchmod(fd, replacing ? existing.st_mode & 07777 : 0600) != 0) return fail(errno);
  if (::fsync(fd) != 0) return fail(errno);
  if (::close(fd) != 0) {
    ::unlink(temporary.c_str());
    return std::strerror(errno);
  }
  if (::rename(temporary.c_str(), target.c_str()) != 0) {
    const int error = errno;
    ::unlink(temporary.c_str());
    return std::strerror(error);
  }
  return std::nullopt;
}

}  // namespace

std::string_view rawValue(Client client) {
  return kRawValues.text(client);
}
std::optional<Client> clientFromRawValue(std::string_view text) {
  return kRawValues.parse(text);
}
std::string_view displayName(Client client) {
  return kDisplayNames.text(client);
}
std::string_view handInstruction(Client client) {
  return kHandInstructions.text(client);
}

std::string manualSnippet(Client client, const fs::path& bridgePath) {
  const std::string p = bridgePath.string();
  switch (client) {
    case Client::claudeDesktop:
    case Client::cursor:
      return "{\n  \"mcpServers\": {\n    \"quorel\": {\n      \"command\": \"" + p +
             "\"\n    }\n  }\n}";
    case Client::claudeCode:
      return "claude mcp add quorel -- " + p;
    case Client::codexCLI:
      return codexTable(bridgePath);
  }
  return {};
}

std::string ConfiguratorError::description() const {
  switch (kind) {
    case Case::parseFailed:
      return "Couldn't read " + file +
             " — it isn't valid. Configure it by hand using the snippet above.";
    case Case::writeFailed:
      return "Couldn't write " + file + ": " + underlying;
    case Case::bridgeMissing:
      return "Quorel's bridge tool is missing — reinstall Quorel so that quorel-mcp sits beside "
             "the quorel program, and try again.";
    case Case::invalidBridgePath:
      return "Quorel's location contains characters that can't be written to this config. "
             "Install Quorel in a folder whose path has no line breaks and try again.";
  }
  return {};
}

std::optional<Places> Places::fromEnvironment(const Environment& env, fs::path bridgePath) {
  const auto home = env("HOME");
  if (!home || home->empty() || !fs::path(*home).is_absolute()) return std::nullopt;
  Places places{*home, fs::path(*home) / ".config", std::move(bridgePath)};
  if (const auto config = env("XDG_CONFIG_HOME");
      config && !config->empty() && fs::path(*config).is_absolute()) {
    places.configHome = *config;
  }
  return places;
}

fs::path configFileURL(Client client, const Places& places) {
  switch (client) {
    case Client::claudeDesktop:
      return places.configHome / "Claude" / "claude_desktop_config.json";
    case Client::claudeCode:
      return places.home / ".claude.json";
    case Client::codexCLI:
      return places.home / ".codex" / "config.toml";
    case Client::cursor:
      return places.home / ".cursor" / "mcp.json";
  }
  return {};
}

fs::path backupPath(const fs::path& configFile) {
  return fs::path(configFile.string() + ".quorel-backup");
}

std::string displayPath(const fs::path& file, const fs::path& home) {
  std::string h = home.string();
  while (h.size() > 1 && h.back() == '/') h.pop_back();
  const std::string f = file.string();
  if (h.empty() || h == "/") return f;
  if (f == h) return "~";
  if (f.size() > h.size() && f.compare(0, h.size(), h) == 0 && f[h.size()] == '/') {
    return "~" + f.substr(h.size());
  }
  return f;
}

std::optional<ConfiguratorError> writeAtomically(std::string_view data, const fs::path& to,
                                                 bool backupExisting) {
  std::error_code ec;
  fs::create_directories(to.parent_path(), ec);
  if (ec) return writeError(to, ec.message());
  if (backupExisting && fileExists(to)) {
    const fs::path backup = backupPath(to);
    fs::remove(backup, ec);
    fs::copy_file(to, backup, ec);
  }
  fs::path target = to;
  if (fs::is_symlink(to, ec)) {
    const fs::path resolved = fs::weakly_canonical(to, ec);
    if (!ec) target = resolved;
  }
  if (auto failed = replaceFile(data, target)) return writeError(to, *failed);
  return std::nullopt;
}

ConfigureResult mergeJSON(const fs::path& into,
                          const std::vector<std::pair<std::string, std::string>>& entry,
                          const fs::path& home) {
  const bool existed = fileExists(into);
  bool invalid = false;
  nlohmann::json root = nlohmann::json::object();
  if (existed) {
    if (auto read = readJSONObject(into, invalid)) root = std::move(*read);
    if (invalid) return ConfiguratorError{ConfiguratorError::Case::parseFailed, fileName(into), {}};
  }
  nlohmann::json servers = nlohmann::json::object();
  if (auto found = root.find(kServersKey); found != root.end() && found->is_object()) {
    servers = std::move(*found);
  }
  nlohmann::json value = nlohmann::json::object();
  for (const auto& [key, text] : entry) value[key] = text;
  servers[kEntryName] = std::move(value);
  root[kServersKey] = std::move(servers);

  std::string why;
  const auto text = serialise(root, why);
  if (!text) return writeError(into, why);
  if (auto failed = writeAtomically(*text, into, existed)) return *failed;
  return Outcome{existed ? Outcome::Status::updated : Outcome::Status::created,
                 displayPath(into, home)};
}

ConfigureResult appendCodexTOML(const fs::path& into, const fs::path& bridgePath,
                                const fs::path& home) {
  const bool existed = fileExists(into);
  // Missing, unreadable and not UTF-8 all count as empty text; the backup keeps what was there.
  std::string text = existed ? readFile(into).value_or("") : "";
  if (!isValidUTF8(text)) text.clear();
  if (hasCodexTable(text)) return Outcome{Outcome::Status::alreadyPresent, displayPath(into, home)};
  if (bridgePath.string().find_first_of("\r\n") != std::string::npos) {
    return ConfiguratorError{ConfiguratorError::Case::invalidBridgePath, {}, {}};
  }
  if (!text.empty()) {
    if (text.back() != '\n') text += '\n';
    text += '\n';
  }
  text += codexTable(bridgePath) + "\n";
  if (auto failed = writeAtomically(text, into, existed)) return *failed;
  return Outcome{existed ? Outcome::Status::updated : Outcome::Status::created,
                 displayPath(into, home)};
}

ConfigureResult configure(Client client, const Places& places) {
  if (!fileExists(places.bridgePath)) {
    return ConfiguratorError{ConfiguratorError::Case::bridgeMissing, {}, {}};
  }
  const fs::path file = configFileURL(client, places);
  const std::string command = places.bridgePath.string();
  switch (client) {
    case Client::claudeDesktop:
    case Client::cursor:
      return mergeJSON(file, {{"command", command}}, places.home);
    case Client::claudeCode:
      return mergeJSON(file, {{"type", "stdio"}, {"command", command}}, places.home);
    case Client::codexCLI:
      return appendCodexTOML(file, places.bridgePath, places.home);
  }
  return ConfiguratorError{ConfiguratorError::Case::writeFailed, fileName(file), "unknown client"};
}

bool removeJSONEntry(const fs::path& at) {
  bool invalid = false;
  auto root = readJSONObject(at, invalid);
  if (!root) return false;
  const auto servers = root->find(kServersKey);
  if (servers == root->end() || !servers->is_object() || servers->erase(kEntryName) == 0) {
    return false;
  }
  std::string why;
  const auto text = serialise(*root, why);
  return text && !writeAtomically(*text, at, false);
}

bool removeCodexTOMLTable(const fs::path& at) {
  const auto text = readFile(at);
  if (!text) return false;
  auto lines = splitLines(*text);
  const auto isHeader = [](const std::string& line) { return trimmed(line) == kCodexHeader; };
  const auto start = std::find_if(lines.begin(), lines.end(), isHeader);
  if (start == lines.end()) return false;
  const auto end = std::find_if(start + 1, lines.end(), [](const std::string& line) {
    return trimmed(line).starts_with('[');
  });
  const auto gap = lines.erase(start, end);
  // No doubled blank line where the table was, unless the file began with it.
  if (gap != lines.begin() && gap != lines.end() && trimmed(*(gap - 1)).empty() &&
      trimmed(*gap).empty()) {
    lines.erase(gap);
  }
  std::string joined;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (i > 0) joined += '\n';
    joined += lines[i];
  }
  return !writeAtomically(joined, at, false);
}

std::vector<Client> removeAllClientConfigs(const Places& places) {
  std::vector<Client> removed;
  for (Client client : kAllClients) {
    const fs::path file = configFileURL(client, places);
    const bool took =
        client == Client::codexCLI ? removeCodexTOMLTable(file) : removeJSONEntry(file);
    if (took) removed.push_back(client);
    std::error_code ec;
    fs::remove(backupPath(file), ec);
  }
  return removed;
}

bool isConfigured(Client client, const Places& places) {
  const fs::path file = configFileURL(client, places);
  if (client == Client::codexCLI) return hasCodexTable(readFile(file).value_or(""));
  bool invalid = false;
  const auto root = readJSONObject(file, invalid);
  if (!root) return false;
  const auto servers = root->find(kServersKey);
  return servers != root->end() && servers->is_object() && servers->contains(kEntryName);
}

std::string outcomeSentence(Client client, const Outcome& outcome) {
  if (outcome.status == Outcome::Status::alreadyPresent) {
    return "Already configured in " + outcome.displayPath + ".";
  }
  return "Added to " + outcome.displayPath + " — restart " + std::string(displayName(client)) + ".";
}

}  // namespace quorel::MCPClientConfigurator
