#include "mcp/mcp_client_commands.hpp"

#include <variant>

namespace quorel {

using namespace MCPClientConfigurator;

namespace {

std::string clientNames() {
  std::string names;
  for (Client client : kAllClients) {
    if (!names.empty()) names += ", ";
    names += rawValue(client);
  }
  return names;
}

MCPClientCommandOutcome unknownClient(const std::string& name) {
  return {{}, 2, "quorel: no client called '" + name + "' — use one of " + clientNames() + ".\n"};
}

// What a failure prints: where the user could not be helped automatically, the snippet to copy
// comes first, since the parse failure's words point to "the snippet above".
std::string failureText(Client client, const ConfiguratorError& error, const Places& places,
                        const std::string& prefix) {
  std::string text;
  if (error.kind == ConfiguratorError::Case::parseFailed ||
      error.kind == ConfiguratorError::Case::writeFailed) {
    text += std::string(handInstruction(client)) + "\n" + manualSnippet(client, places.bridgePath) +
            "\n\n";
  }
  return text + prefix + error.description() + "\n";
}

}  // namespace

MCPClientCommandOutcome runMCPConfigureCommand(const std::optional<std::string>& client, bool all,
                                               const Places& places) {
  if (client.has_value() == all) {
    return {{}, 2, "quorel: name one client (" + clientNames() + ") or give --all, not both.\n"};
  }
  if (!all) {
    const auto chosen = clientFromRawValue(*client);
    if (!chosen) return unknownClient(*client);
    const auto result = configure(*chosen, places);
    if (const auto* outcome = std::get_if<Outcome>(&result)) {
      return {outcomeSentence(*chosen, *outcome) + "\n", 0, {}};
    }
    return {{}, 1, failureText(*chosen, std::get<ConfiguratorError>(result), places, {})};
  }

  MCPClientCommandOutcome out;
  for (Client each : kAllClients) {
    const auto result = configure(each, places);
    const std::string name = std::string(displayName(each)) + ": ";
    if (const auto* outcome = std::get_if<Outcome>(&result)) {
      out.text += name + outcomeSentence(each, *outcome) + "\n";
      continue;
    }
    const auto& error = std::get<ConfiguratorError>(result);
    out.exitStatus = 1;
    // The same for every client: said once.
    if (error.kind == ConfiguratorError::Case::bridgeMissing) {
      out.errorText += error.description() + "\n";
      break;
    }
    out.errorText += (out.errorText.empty() ? "" : "\n") + failureText(each, error, places, name);
  }
  return out;
}

MCPClientCommandOutcome runMCPUnconfigureCommand(const Places& places) {
  const auto removed = removeAllClientConfigs(places);
  if (removed.empty())
    return {"Quorel was in no assistant's configuration; nothing to remove.\n", 0, {}};
  std::string text;
  for (Client client : removed) {
    text += "Removed Quorel from " + std::string(displayName(client)) + " (" +
            displayPath(configFileURL(client, places), places.home) + ").\n";
  }
  return {text, 0, {}};
}

MCPClientCommandOutcome runMCPSnippetCommand(const std::string& client, const Places& places) {
  const auto chosen = clientFromRawValue(client);
  if (!chosen) return unknownClient(client);
  return {std::string(handInstruction(*chosen)) + "\n" + manualSnippet(*chosen, places.bridgePath) +
              "\n",
          0,
          {}};
}

std::string configuredClientsLine(const Places& places) {
  std::string names;
  for (Client client : kAllClients) {
    if (!isConfigured(client, places)) continue;
    if (!names.empty()) names += ", ";
    names += displayName(client);
  }
  if (names.empty()) {
    return "No assistant is set up to use it yet — run `quorel mcp configure --all`, or `quorel "
           "mcp configure CLIENT` for one of " +
           clientNames() + ".\n";
  }
  return "Assistants set up to use it: " + names + ".\n";
}

}  // namespace quorel
