#pragma once
// `quorel mcp ...`: the assistants' server (enable, disable, status) and the assistants'
// configuration files (configure, unconfigure, snippet).

#include <CLI/CLI.hpp>
#include <string>

#include "commands.hpp"

namespace quorel {

// Registers "mcp" and its subcommands on `app`; after parsing, run() when chosen(). CLI11 keeps
// pointers to the fields, so this stays where it was made.
class MCPCommandLine {
 public:
  explicit MCPCommandLine(CLI::App& app);
  MCPCommandLine(const MCPCommandLine&) = delete;
  MCPCommandLine& operator=(const MCPCommandLine&) = delete;

  bool chosen() const { return mcp_->parsed(); }
  int run(const CommandContext& context) const;

 private:
  CLI::App* mcp_;
  CLI::App* enable_;
  CLI::App* disable_;
  CLI::App* configure_;
  CLI::App* unconfigure_;
  CLI::App* snippet_;
  std::string client_;
  bool all_ = false;
};

}  // namespace quorel
