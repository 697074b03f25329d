#include "mcp/mcp_commands.hpp"

#include <optional>
#include <variant>

#include "mcp/json_rpc.hpp"
#include "mcp/mcp_http_client.hpp"
#include "mcp/mcp_server.hpp"

namespace quorel {

namespace fs = std::filesystem;

namespace {

std::string connectionLines(std::uint16_t port, const fs::path& dataDirectory) {
  const fs::path tokenFile = mcpTokenFile(dataDirectory);
  std::error_code ec;
  std::string out = "HTTP: " + mcpEndpointURL(port) + "\n";
  out += "Token file: " + tokenFile.string();
  if (!fs::exists(tokenFile, ec))
    out += " (not created yet — the agent writes it when the server starts)";
  out += "\n";
  return out;
}

}  // namespace

MCPCommandOutcome runMCPEnableCommand(PreferenceStore& preferences,
                                      const std::filesystem::path& dataDirectory) {
  preferences.setValue(kMCPServerEnabledKey, true);
  return {"MCP server enabled — a running agent starts it within moments.\n" +
              connectionLines(mcpConfiguredPort(preferences), dataDirectory),
          0};
}

MCPCommandOutcome runMCPDisableCommand(PreferenceStore& preferences,
                                       const std::filesystem::path& /*dataDirectory*/) {
  preferences.setValue(kMCPServerEnabledKey, false);
  return {"MCP server disabled — a running agent stops it within moments.\n", 0};
}

MCPCommandOutcome runMCPStatusCommand(const PreferenceStore& preferences,
                                      const std::filesystem::path& dataDirectory,
                                      const Clock& clock, Seconds probeTimeout) {
  const std::uint16_t port = mcpConfiguredPort(preferences);
  const std::string details = connectionLines(port, dataDirectory);
  const std::string where = "127.0.0.1:" + std::to_string(port);
  if (!preferences.boolValue(kMCPServerEnabledKey)) {
    return {mcpStatusText(false, false, std::nullopt, port) + "\n" + details, 0};
  }
  const auto result =
      postToMCPEndpoint({"127.0.0.1", port, "/mcp"}, R"({"jsonrpc":"2.0","id":1,"method":"ping"})",
                        readMCPTokenFile(mcpTokenFile(dataDirectory)), clock, probeTimeout);
  const auto* answer = std::get_if<MCPHTTPAnswer>(&result);
  if (!answer) {
    return {"Not running — nothing answers on " + where +
                "; start the agent with `quorel`, which then starts the server.\n" + details,
            1};
  }
  if (answer->status == 401) {
    return {"Running on " + where + ", but it refuses the token in the token file — restart " +
                "the agent so that it reads the file again.\n" + details,
            1};
  }
  const auto response = JSONRPCResponse::decode(answer->body);
  if (answer->status != 200 || !response || !response->result) {
    return {"Something other than the agent answers on " + where + " (HTTP " +
                std::to_string(answer->status) +
                ") — stop the program that holds this port, then restart the agent.\n" + details,
            1};
  }
  return {mcpStatusText(true, true, std::nullopt, port) + "\n" + details, 0};
}

}  // namespace quorel
