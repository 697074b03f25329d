#include "mcp_cli.hpp"

#include <iostream>

#include "core/clock.hpp"
#include "core/file_preference_store.hpp"
#include "mcp/mcp_client_commands.hpp"
#include "mcp/mcp_commands.hpp"

namespace quorel {

namespace {

// The bridge is installed beside this program (and built beside it too).
std::optional<MCPClientConfigurator::Places> clientPlaces() {
  std::error_code ec;
  const auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
  auto places = MCPClientConfigurator::Places::fromEnvironment(
      ProcessEnvironment,
      ec ? std::filesystem::path("quorel-mcp") : self.parent_path() / "quorel-mcp");
  if (!places) {
    std::cerr << "quorel: HOME is not set to an absolute path, so the assistants' "
                 "configuration files cannot be found.\n";
  }
  return places;
}

int print(const MCPClientCommandOutcome& outcome) {
  std::cout << outcome.text << std::flush;
  std::cerr << outcome.errorText;
  return outcome.exitStatus;
}

}  // namespace

MCPCommandLine::MCPCommandLine(CLI::App& app) {
  mcp_ = app.add_subcommand(
      "mcp", "The assistants' server and the assistants that use it (e.g. mcp configure --all)");
  mcp_->require_subcommand(1);
  enable_ = mcp_->add_subcommand(
      "enable", "Turn the server on, and say which assistants are set up to use it");
  disable_ = mcp_->add_subcommand("disable", "Turn the server off");
  mcp_->add_subcommand("status", "The server's state, its endpoint and where the token file is");
  const std::string names = "claudeDesktop, claudeCode, codexCLI or cursor";
  configure_ = mcp_->add_subcommand(
      "configure",
      "Add Quorel's bridge to an assistant's configuration file, keeping everything else in it "
      "(e.g. mcp configure claudeCode, or mcp configure --all)");
  configure_->add_option("client", client_, "The assistant: " + names);
  configure_->add_flag("--all", all_,
                       "Every assistant; goes on past one that fails, then exits 1 if any did");
  unconfigure_ = mcp_->add_subcommand("unconfigure",
                                      "Take Quorel out of every assistant's configuration file");
  snippet_ = mcp_->add_subcommand(
      "snippet", "Print what to add by hand for one assistant (e.g. mcp snippet cursor)");
  snippet_->add_option("client", client_, "The assistant: " + names)->required();
}

int MCPCommandLine::run(const CommandContext& context) const {
  quietLogging();
  if (configure_->parsed() || unconfigure_->parsed() || snippet_->parsed()) {
    const auto places = clientPlaces();
    if (!places) return 1;
    if (snippet_->parsed()) return print(runMCPSnippetCommand(client_, *places));
    if (unconfigure_->parsed()) return print(runMCPUnconfigureCommand(*places));
    const auto client = configure_->count("client") > 0 ? std::optional(client_) : std::nullopt;
    return print(runMCPConfigureCommand(client, all_, *places));
  }

  const auto paths = resolvePaths(context);
  if (!paths) return 2;
  FilePreferenceStore preferences(paths->preferencesFile());
  MCPCommandOutcome outcome;
  if (disable_->parsed()) {
    outcome = runMCPDisableCommand(preferences, paths->dataDirectory);
    std::cout << outcome.text;
    return outcome.exitStatus;
  }
  if (enable_->parsed()) {
    outcome = runMCPEnableCommand(preferences, paths->dataDirectory);
  } else {
    SystemClock clock;
    outcome = runMCPStatusCommand(preferences, paths->dataDirectory, clock);
  }
  // Beside the HTTP endpoint, what an assistant that launches programs is given instead.
  if (const auto places = clientPlaces()) {
    outcome.text += "stdio: " + places->bridgePath.string() + "\n";
    if (enable_->parsed()) outcome.text += configuredClientsLine(*places);
  }
  std::cout << outcome.text;
  return outcome.exitStatus;
}

}  // namespace quorel
