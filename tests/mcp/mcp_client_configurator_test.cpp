// The client configurator against temporary home directories holding files of every shape,
// compared byte for byte.

#include "mcp/mcp_client_configurator.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <nlohmann/json.hpp>

#include "mcp/mcp_client_commands.hpp"
#include "mcp_test_support.hpp"

namespace quorel {
namespace {

using namespace MCPClientConfigurator;
namespace fs = std::filesystem;

std::optional<std::string> contents(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  if (!in) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void put(const fs::path& p, const std::string& text) {
  fs::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary | std::ios::trunc) << text;
}

class ConfiguratorTest : public ::testing::Test {
 protected:
  ConfiguratorTest() { withBridgeAt(home() / "opt" / "quorel" / "quorel-mcp"); }

  void withBridgeAt(const fs::path& bridge) {
    put(bridge, "#!/bin/sh\n");
    places_ = {home(), home() / "xdg-config", bridge};
  }
  fs::path home() const { return dir_.path() / "home"; }
  fs::path file(Client c) const { return configFileURL(c, places_); }
  std::string bridge() const { return places_.bridgePath.string(); }

  testing::ScratchDirectory dir_;
  Places places_;
};

ConfiguratorError parseFailed(const std::string& file) {
  return {ConfiguratorError::Case::parseFailed, file, {}};
}

TEST_F(ConfiguratorTest, JSONFilesOfEveryShapeGetTheEntrySortedWithAnythingElseKept) {
  struct Case {
    Client client;
    std::optional<std::string> before;  // absent: no file
    ConfigureResult expected;
    std::string after;  // with P for the bridge's path; the file as it was when refused
  };
  const Outcome updated{Outcome::Status::updated, ""};
  const std::vector<Case> cases = {
      {Client::cursor, std::nullopt, Outcome{Outcome::Status::created, "~/.cursor/mcp.json"},
       manualSnippet(Client::cursor, "P")},
      {Client::claudeDesktop, "", updated, manualSnippet(Client::claudeDesktop, "P")},
      // Other servers and unrelated keys stay; keys come back sorted, slashes and UTF-8 as
      // they are.
      {Client::claudeCode,
       R"({"zeta":1,"mcpServers":{"other":{"command":"/usr/bin/other","args":["-x"]}},)"
       R"("alpha":{"url":"https://h/p"},"name":"Zoë","n":[]})",
       Outcome{Outcome::Status::updated, "~/.claude.json"},
       "{\n  \"alpha\": {\n    \"url\": \"https://h/p\"\n  },\n  \"mcpServers\": {\n    "
       "\"other\": {\n      \"args\": [\n        \"-x\"\n      ],\n      \"command\": "
       "\"/usr/bin/other\"\n    },\n    \"quorel\": {\n      \"command\": \"P\",\n      "
       "\"type\": \"stdio\"\n    }\n  },\n  \"n\": [],\n  \"name\": \"Zoë\",\n  \"zeta\": 1\n}"},
      // An earlier entry is replaced whole; an "mcpServers" that is no object is started anew.
      {Client::cursor, R"({"mcpServers":{"quorel":{"command":"/old","args":["a"]}}})", updated,
       manualSnippet(Client::cursor, "P")},
      {Client::cursor, R"({"mcpServers":["x"],"k":true})", updated,
       "{\n  \"k\": true,\n  \"mcpServers\": {\n    \"quorel\": {\n      \"command\": \"P\"\n    "
       "}\n  }\n}"},
      {Client::cursor, R"({"mcpServers":)", parseFailed("mcp.json"), R"({"mcpServers":)"},
      {Client::claudeCode, "[]", parseFailed(".claude.json"), "[]"},
  };
  for (const auto& c : cases) {
    for (Client client : kAllClients) {
      fs::remove(file(client));
      fs::remove(backupPath(file(client)));
    }
    const fs::path path = file(c.client);
    if (c.before) put(path, *c.before);
    auto expected = c.expected;
    if (auto* outcome = std::get_if<Outcome>(&expected); outcome && outcome->displayPath.empty()) {
      outcome->displayPath = displayPath(path, home());
    }
    SCOPED_TRACE(c.before.value_or("(no file)"));
    EXPECT_EQ(configure(c.client, places_), expected);
    std::string after = c.after;
    if (std::holds_alternative<Outcome>(expected)) {
      after.replace(after.find("\"P\""), 3, "\"" + bridge() + "\"");
    }
    EXPECT_EQ(contents(path), after);
    // A backup of an existing file that was written over, and only then.
    const bool replaced = c.before && std::holds_alternative<Outcome>(expected);
    EXPECT_EQ(contents(backupPath(path)), replaced ? c.before : std::nullopt);
  }
}

TEST_F(ConfiguratorTest, TheCodexTableIsAppendedOnceByLines) {
  const fs::path toml = file(Client::codexCLI);
  const std::string table = "[mcp_servers.quorel]\ncommand = \"" + bridge() + "\"\n";
  const std::string display = "~/.codex/config.toml";
  struct Case {
    std::optional<std::string> before;
    Outcome::Status status;
    std::string after;
  };
  const std::string present = "model = \"o3\"\n  [mcp_servers.quorel] \t\r\ncommand = \"/x\"\r\n";
  for (const auto& c : std::vector<Case>{
           {std::nullopt, Outcome::Status::created, table},
           {"", Outcome::Status::updated, table},
           {"model = \"o3\"", Outcome::Status::updated, "model = \"o3\"\n\n" + table},
           {"[a]\nx = 1\n", Outcome::Status::updated, "[a]\nx = 1\n\n" + table},
           {"x = 1\n\n", Outcome::Status::updated, "x = 1\n\n\n" + table},
           {present, Outcome::Status::alreadyPresent, present},
       }) {
    SCOPED_TRACE(c.before.value_or("(no file)"));
    fs::remove_all(toml.parent_path());
    if (c.before) put(toml, *c.before);
    EXPECT_EQ(configure(Client::codexCLI, places_), ConfigureResult(Outcome{c.status, display}));
    EXPECT_EQ(contents(toml), c.after);
    const bool replaced = c.before && c.status != Outcome::Status::alreadyPresent;
    EXPECT_EQ(contents(backupPath(toml)), replaced ? c.before : std::nullopt);
  }
  // The second run finds the table it wrote.
  EXPECT_EQ(configure(Client::codexCLI, places_),
            ConfigureResult(Outcome{Outcome::Status::alreadyPresent, display}));
}

TEST_F(ConfiguratorTest, BridgePathsWithQuotesBackslashesAndLineFeeds) {
  withBridgeAt(home() / "my \"odd\" \\ place" / "quorel-mcp");
  EXPECT_EQ(manualSnippet(Client::codexCLI, places_.bridgePath),
            "[mcp_servers.quorel]\ncommand = \"" + home().string() +
                "/my \\\"odd\\\" \\\\ place/quorel-mcp\"");
  EXPECT_EQ(manualSnippet(Client::claudeCode, places_.bridgePath),
            "claude mcp add quorel -- " + bridge());
  ASSERT_TRUE(std::holds_alternative<Outcome>(configure(Client::codexCLI, places_)));
  EXPECT_EQ(contents(file(Client::codexCLI)),
            manualSnippet(Client::codexCLI, places_.bridgePath) + "\n");
  // JSON escapes for itself: the file reads back to the very path.
  ASSERT_TRUE(std::holds_alternative<Outcome>(configure(Client::cursor, places_)));
  const auto json = nlohmann::json::parse(*contents(file(Client::cursor)));
  EXPECT_EQ(json["mcpServers"]["quorel"]["command"], bridge());

  // A line feed cannot go into TOML's basic string; JSON takes it.
  fs::remove_all(home() / ".codex");
  withBridgeAt(home() / "line\nbreak" / "quorel-mcp");
  EXPECT_EQ(configure(Client::codexCLI, places_),
            ConfigureResult(ConfiguratorError{ConfiguratorError::Case::invalidBridgePath, {}, {}}));
  EXPECT_FALSE(fs::exists(home() / ".codex"));
  EXPECT_TRUE(std::holds_alternative<Outcome>(configure(Client::claudeCode, places_)));
}

TEST_F(ConfiguratorTest, NothingIsTouchedWithoutTheBridgeAndWriteFailuresAreWords) {
  places_.bridgePath = home() / "nowhere" / "quorel-mcp";
  for (Client client : kAllClients) {
    EXPECT_EQ(configure(client, places_),
              ConfigureResult(ConfiguratorError{ConfiguratorError::Case::bridgeMissing, {}, {}}));
  }
  EXPECT_FALSE(fs::exists(home() / ".claude.json"));
  EXPECT_FALSE(fs::exists(places_.configHome));

  withBridgeAt(places_.bridgePath);
  put(home() / ".cursor", "a file where the folder should be");
  const auto result = configure(Client::cursor, places_);
  ASSERT_TRUE(std::holds_alternative<ConfiguratorError>(result));
  EXPECT_EQ(
      std::get<ConfiguratorError>(result).description(),
      "Couldn't write mcp.json: " + std::make_error_code(std::errc::not_a_directory).message());
  EXPECT_EQ(
      parseFailed("mcp.json").description(),
      "Couldn't read mcp.json — it isn't valid. Configure it by hand using the snippet above.");
}

TEST_F(ConfiguratorTest, WritesKeepTheFileModeAndGoThroughSymbolicLinks) {
  // A dotfile kept elsewhere and linked in stays linked; its private mode stays private.
  const fs::path real = home() / "dotfiles" / "claude.json";
  put(real, R"({"secret":"k"})");
  ::chmod(real.c_str(), 0640);
  fs::create_symlink(real, file(Client::claudeCode));
  ASSERT_TRUE(std::holds_alternative<Outcome>(configure(Client::claudeCode, places_)));
  EXPECT_TRUE(fs::is_symlink(file(Client::claudeCode)));
  EXPECT_NE(contents(real)->find("\"secret\": \"k\""), std::string::npos);
  EXPECT_EQ(fs::status(real).permissions(), fs::perms(0640));
  EXPECT_EQ(contents(backupPath(file(Client::claudeCode))), R"({"secret":"k"})");
  // A new file is the user's alone; no temporary file is left beside it.
  configure(Client::cursor, places_);
  EXPECT_EQ(fs::status(file(Client::cursor)).permissions(), fs::perms(0600));
  EXPECT_EQ(std::distance(fs::directory_iterator(home() / ".cursor"), {}), 1);
}

TEST_F(ConfiguratorTest, RemovalTakesOutOnlyTheEntryAndLeavesWhatItCannotEdit) {
  const std::string codexBefore = "model = \"o3\"\n\n[profiles.fast]\nmodel = \"o4\"\n";
  put(file(Client::codexCLI), codexBefore);
  put(file(Client::claudeCode), R"({"projects":{"/p":{}}})");
  for (Client client : {Client::claudeDesktop, Client::claudeCode, Client::codexCLI}) {
    ASSERT_TRUE(std::holds_alternative<Outcome>(configure(client, places_)));
  }
  put(file(Client::cursor), "{not json");
  configure(Client::cursor, places_);  // refused, and so no backup
  put(backupPath(file(Client::cursor)), "an old backup");

  EXPECT_EQ(removeAllClientConfigs(places_),
            (std::vector{Client::claudeDesktop, Client::claudeCode, Client::codexCLI}));
  EXPECT_EQ(contents(file(Client::claudeDesktop)), "{\n  \"mcpServers\": {}\n}");
  EXPECT_EQ(contents(file(Client::claudeCode)),
            "{\n  \"mcpServers\": {},\n  \"projects\": {\n    \"/p\": {}\n  }\n}");
  EXPECT_EQ(contents(file(Client::codexCLI)), codexBefore);
  EXPECT_EQ(contents(file(Client::cursor)), "{not json");
  for (Client client : kAllClients) {
    EXPECT_FALSE(fs::exists(backupPath(file(client)))) << rawValue(client);
    EXPECT_FALSE(isConfigured(client, places_)) << rawValue(client);
  }
  EXPECT_EQ(removeAllClientConfigs(places_), std::vector<Client>{});
}

TEST_F(ConfiguratorTest, TheCommandsSayWhatHappenedAndExitByTheRules) {
  const std::string names = "claudeDesktop, claudeCode, codexCLI, cursor";
  for (const auto& [client, all] : std::vector<std::pair<std::optional<std::string>, bool>>{
           {"claude", false}, {std::nullopt, false}, {"cursor", true}}) {
    const auto refused = runMCPConfigureCommand(client, all, places_);
    EXPECT_EQ(refused.exitStatus, 2);
    EXPECT_NE(refused.errorText.find(names), std::string::npos) << refused.errorText;
  }
  EXPECT_EQ(
      runMCPSnippetCommand("claudeCode", places_),
      (MCPClientCommandOutcome{
          "Run this once in your terminal:\nclaude mcp add quorel -- " + bridge() + "\n", 0, {}}));
  EXPECT_EQ(configuredClientsLine(places_).rfind("No assistant is set up to use it yet", 0), 0u);

  // --all goes on past a client that fails, shows what to add there by hand, and exits 1.
  put(file(Client::codexCLI), "[mcp_servers.quorel]\ncommand = \"/elsewhere\"\n");
  put(file(Client::cursor), "{");
  const auto all = runMCPConfigureCommand(std::nullopt, true, places_);
  EXPECT_EQ(all.exitStatus, 1);
  EXPECT_EQ(all.text,
            "Claude Desktop: Added to ~/xdg-config/Claude/claude_desktop_config.json — restart "
            "Claude Desktop.\nClaude Code: Added to ~/.claude.json — restart Claude Code.\n"
            "OpenAI Codex CLI: Already configured in ~/.codex/config.toml.\n");
  EXPECT_EQ(all.errorText, std::string(handInstruction(Client::cursor)) + "\n" +
                               manualSnippet(Client::cursor, places_.bridgePath) +
                               "\n\nCursor: " + parseFailed("mcp.json").description() + "\n");
  EXPECT_EQ(configuredClientsLine(places_),
            "Assistants set up to use it: Claude Desktop, Claude Code, OpenAI Codex CLI.\n");

  EXPECT_EQ(runMCPUnconfigureCommand(places_).text,
            "Removed Quorel from Claude Desktop (~/xdg-config/Claude/claude_desktop_config.json)."
            "\nRemoved Quorel from Claude Code (~/.claude.json).\nRemoved Quorel from OpenAI "
            "Codex CLI (~/.codex/config.toml).\n");

  // Without the bridge nothing can be done for anyone: said once.
  places_.bridgePath = home() / "gone";
  const auto missing = runMCPConfigureCommand(std::nullopt, true, places_);
  EXPECT_EQ(missing.exitStatus, 1);
  const ConfiguratorError bridgeMissing{ConfiguratorError::Case::bridgeMissing, {}, {}};
  EXPECT_EQ(missing.errorText, bridgeMissing.description() + "\n");
}

TEST(CodexTableRemovalTest, StopsAtTheNextHeaderAndLeavesNoDoubledBlank) {
  testing::ScratchDirectory dir;
  const fs::path toml = dir.path() / "config.toml";
  const std::string ours = "[mcp_servers.quorel]\ncommand = \"/q\"\n";
  const std::vector<std::pair<std::string, std::optional<std::string>>> cases = {
      {"[a]\nx = 1\n\n" + ours + "\n[b]\ny = 2\n", "[a]\nx = 1\n\n[b]\ny = 2\n"},
      {"a = 1\n\n" + ours, "a = 1\n"},
      {ours, ""},
      // A sub-table of ours starts with a bracket: it ends the removal and stays.
      {ours + "[mcp_servers.quorel.env]\nK = \"v\"\n", "[mcp_servers.quorel.env]\nK = \"v\"\n"},
      {"x = 1\r\n  [mcp_servers.quorel]  \r\ncommand = 1\r\n[c]\r\n", "x = 1\r\n[c]\r\n"},
      {"[mcp_servers.quorel.env]\nK = 1\n", std::nullopt},
      {"# [mcp_servers.quorel]\n", std::nullopt},
  };
  for (const auto& [before, after] : cases) {
    put(toml, before);
    EXPECT_EQ(removeCodexTOMLTable(toml), after.has_value()) << before;
    EXPECT_EQ(contents(toml), after.value_or(before)) << before;
  }
  EXPECT_FALSE(removeCodexTOMLTable(dir.path() / "missing.toml"));
}

TEST(ConfiguratorPlacesTest, HomeAndConfigFolderComeFromTheEnvironment) {
  const auto placesWith = [](std::map<std::string, std::string> vars) {
    return Places::fromEnvironment(
        [&](const std::string& name) -> std::optional<std::string> {
          return vars.contains(name) ? std::optional(vars[name]) : std::nullopt;
        },
        {});
  };
  EXPECT_EQ(placesWith({{"HOME", "/h"}, {"XDG_CONFIG_HOME", "/c"}})->configHome, "/c");
  EXPECT_EQ(placesWith({{"HOME", "/h"}, {"XDG_CONFIG_HOME", "rel"}})->configHome, "/h/.config");
  EXPECT_FALSE(placesWith({{"HOME", "relative"}}));
  EXPECT_EQ(displayPath("/home/u/.codex/config.toml", "/home/u/"), "~/.codex/config.toml");
  EXPECT_EQ(displayPath("/home/u2/.claude.json", "/home/u"), "/home/u2/.claude.json");
}

}  // namespace
}  // namespace quorel
