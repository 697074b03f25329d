// quorel-mcp: the stdio bridge that AI assistants launch. It speaks newline-delimited JSON-RPC
// on standard input and output and forwards each message to the running agent's loopback
// server, which it finds through the endpoint and token files in the agent's data directory.

#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>
#include <string>

#include "core/clock.hpp"
#include "core/logging.hpp"
#include "core/paths.hpp"
#include "core/version.hpp"
#include "mcp/stdio_bridge.hpp"

int main(int argc, char** argv) {
  CLI::App app{
      "quorel-mcp: lets an AI assistant reach Quorel. The assistant starts it and speaks MCP "
      "over its standard input and output; it forwards every message to the running agent."};
  app.set_version_flag("--version", "quorel-mcp " + std::string(quorel::kQuorelVersion));
  std::string dataDir;
  double timeoutSeconds = 300;
  bool verbose = false;
  app.add_option("--data-dir", dataDir,
                 "The agent's data directory, where it writes mcp-endpoint and mcp-token "
                 "(default $XDG_DATA_HOME/quorel, as the agent has it)");
  app.add_option("--timeout", timeoutSeconds,
                 "Seconds one message may wait for the agent's answer (default 300)")
      ->check(CLI::Range(1.0, 86400.0));
  app.add_flag("-v,--verbose", verbose, "Log debug detail to standard error");
  CLI11_PARSE(app, argc, argv);

  // Standard output is the protocol: logs go to standard error only, never to the agent's file.
  quorel::logging::Options logOptions;
  logOptions.level = verbose ? spdlog::level::debug : spdlog::level::info;
  quorel::logging::configure(logOptions);
  // A vanished assistant shows up as a failed write, not as a signal that kills us mid-answer.
  std::signal(SIGPIPE, SIG_IGN);

  std::optional<std::filesystem::path> dataOverride;
  if (!dataDir.empty()) dataOverride = dataDir;
  quorel::MCPStdioBridgeOptions options;
  try {
    options.dataDirectory =
        quorel::QuorelPaths::resolve(quorel::ProcessEnvironment, dataOverride).dataDirectory;
  } catch (const std::exception& e) {
    std::cerr << "quorel-mcp: " << e.what() << "\n";
    return 2;
  }
  options.answerTimeout = quorel::Seconds{timeoutSeconds};

  std::ios::sync_with_stdio(false);
  const quorel::SystemClock clock;
  quorel::MCPStdioBridge bridge(options, clock);
  return bridge.run(std::cin, std::cout);
}
