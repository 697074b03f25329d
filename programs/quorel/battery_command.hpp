#pragma once
// `quorel battery status | limit | discharge | top-up | heat-protection | automation | rules`:
// one request to the running agent's command socket, and its answer for a person or a script.
// The agent applies the guards; this side only words the outcome and picks the exit status.

#include <filesystem>
#include <optional>
#include <ostream>
#include <string>

#include "core/clock.hpp"
#include "core/json_value.hpp"
#include "core/result.hpp"
#include "mcp/json_rpc.hpp"

namespace quorel {

inline constexpr int kExitCommandFailed = 1;
inline constexpr int kExitCommandRefused = 2;

struct BatteryCommandLine {
  std::string method;               // the socket's method, e.g. "setChargeLimit"
  std::optional<JSONValue> params;  // an object, when the method takes any
  enum class Shows { state, automation } shows = Shows::state;
  bool json = false;         // print the answer's JSON instead of sentences
  std::string confirmation;  // said on success unless `json`; empty prints the answer
};

// `rules set FILE`: the file holds a JSON list of rules, as the assistants' tool takes them.
Result<BatteryCommandLine> rulesFromFile(const std::filesystem::path& file);

// What came back from the agent.
struct AgentAnswer {
  enum class Kind { answered, noAgent, failed } kind = Kind::failed;
  std::optional<JSONRPCResponse> response;
  std::string problem;  // for `failed`
};

// Sends one request line and waits at most `timeout` for its answer line.
AgentAnswer callAgent(const std::filesystem::path& socket, const std::string& requestLine,
                      Seconds timeout);

// The control state and the automation settings in sentences, each line ending in a newline.
std::string describeBatteryState(const JSONValue& state);
std::string describeAutomation(const JSONValue& automation);

// Long enough for a command that needs two helper writes, each with its own deadline.
inline constexpr Seconds kAgentAnswerTimeout{20};

// Runs the command against the agent at `socket`; returns the exit status.
int runBatteryCommandLine(const BatteryCommandLine& command, const std::filesystem::path& socket,
                          std::ostream& out, std::ostream& err,
                          Seconds timeout = kAgentAnswerTimeout);

}  // namespace quorel
