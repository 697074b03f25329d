#include "mcp/stdio_bridge.hpp"

#include <istream>
#include <ostream>
#include <utility>
#include <variant>

#include "core/json_value.hpp"
#include "core/logging.hpp"
#include "mcp/json_rpc.hpp"
#include "mcp/mcp_server.hpp"
#include "mcp/text_util.hpp"

namespace quorel {

namespace {

constexpr const char* kStartTheAgent =
    " — start the agent with `quorel`, and turn its server on with `quorel mcp enable`.";

const std::shared_ptr<spdlog::logger>& bridgeLog() {
  static const auto log = logging::get("mcp-bridge");
  return log;
}

// The server routes a request only when it passed every check, and then answers 200 or 202.
bool reachedTheServer(const MCPPostResult& result) {
  const auto* answer = std::get_if<MCPHTTPAnswer>(&result);
  return answer != nullptr && (answer->status == 200 || answer->status == 202);
}

// The request may have been acted on, so sending it again could do a tool's work twice.
bool mayHaveActed(const MCPPostResult& result) {
  const auto* failure = std::get_if<MCPPostFailure>(&result);
  return failure != nullptr && failure->delivered;
}

std::string where(const MCPEndpointAddress& endpoint) {
  return (endpoint.host == "::1" ? "[::1]" : endpoint.host) + ":" + std::to_string(endpoint.port);
}

std::string encodeOrFallback(const JSONRPCResponse& response) {
  if (auto text = response.encode()) return *text;
  return R"({"jsonrpc":"2.0","id":null,"error":{"code":-32603,"message":"encode failed"}})";
}

}  // namespace

MCPStdioBridge::MCPStdioBridge(MCPStdioBridgeOptions options, const Clock& clock)
    : options_(std::move(options)), clock_(clock) {}

MCPStdioBridge::Target MCPStdioBridge::readTarget() const {
  return {readMCPEndpointFile(mcpEndpointFile(options_.dataDirectory)),
          readMCPTokenFile(mcpTokenFile(options_.dataDirectory))};
}

MCPPostResult MCPStdioBridge::forward(std::string_view message) {
  const auto post = [&]() -> MCPPostResult {
    if (!target_->endpoint) return MCPPostFailure{false, "no endpoint file"};
    return postToMCPEndpoint(*target_->endpoint, message, target_->token, clock_,
                             options_.answerTimeout);
  };
  if (!target_) target_ = readTarget();
  MCPPostResult result = post();
  if (reachedTheServer(result)) return result;

  Target fresh = readTarget();
  const bool moved = fresh != *target_;
  target_ = std::move(fresh);
  if (moved && !mayHaveActed(result)) {
    bridgeLog()->info("the agent's endpoint or token changed; trying {}",
                      target_->endpoint ? where(*target_->endpoint) : "again");
    result = post();
  }
  return result;
}

std::string MCPStdioBridge::failureMessage(const MCPPostResult& result) const {
  if (!target_ || !target_->endpoint) {
    return "Quorel's agent has not published its endpoint in " +
           mcpEndpointFile(options_.dataDirectory).string() + kStartTheAgent;
  }
  const std::string at = where(*target_->endpoint);
  if (const auto* failure = std::get_if<MCPPostFailure>(&result)) {
    if (failure->delivered) {
      return "Quorel's agent on " + at + " took the request but gave no answer (" +
             failure->reason + ")" + kStartTheAgent;
    }
    return "Quorel's agent isn't answering on " + at + " (" + failure->reason + ")" +
           kStartTheAgent;
  }
  const auto& answer = std::get<MCPHTTPAnswer>(result);
  if (answer.status == 401) {
    return "Quorel's agent on " + at + " refuses the token in " +
           mcpTokenFile(options_.dataDirectory).string() +
           " — restart the agent (`quorel`) so that it reads the file again, and check that "
           "`quorel mcp enable` was run for the same data directory.";
  }
  // Our requests are well formed, so a 400 means what a 413 means: a declared length past the
  // server's limit.
  if (answer.status == 400 || answer.status == 413) {
    return "Quorel's agent on " + at + " refuses this message (HTTP " +
           std::to_string(answer.status) + "); it takes at most 1 MiB in one message.";
  }
  return "Something other than Quorel's agent answers on " + at + " (HTTP " +
         std::to_string(answer.status) + ")" + kStartTheAgent;
}

std::optional<std::string> MCPStdioBridge::handleLine(std::string_view line) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  if (trimWhitespace(line).empty()) return std::nullopt;

  const auto parsed = JSONValue::read(line);
  if (!parsed.value) {
    bridgeLog()->warn("a line that is not JSON ({}); answered -32700", parsed.error);
    return encodeOrFallback(
        JSONRPCResponse::failure(JSONValue(nullptr), JSONRPCErrorObject::parseError));
  }
  // Only a request (a method and a non-null id) is owed an answer; a notification and anything
  // else are forwarded, but nothing is made up for them when the agent cannot be reached.
  std::optional<JSONValue> id;
  if (const JSONValue* value = parsed.value->find("id");
      value != nullptr && !value->isNull() && parsed.value->find("method") != nullptr) {
    id = *value;
  }

  MCPPostResult result = forward(line);
  if (auto* answer = std::get_if<MCPHTTPAnswer>(&result); answer && answer->status == 200) {
    if (JSONValue::read(answer->body).value) {
      if (reportedUnavailable_) bridgeLog()->info("the agent answers again");
      reportedUnavailable_ = false;
      // Raw line ends can only be white space between tokens; one message must stay one line.
      std::erase_if(answer->body, [](char c) { return c == '\n' || c == '\r'; });
      return std::move(answer->body);
    }
  } else if (answer && answer->status == 202) {
    if (id) bridgeLog()->warn("a request with an id was accepted without an answer");
    return std::nullopt;
  }

  const std::string message = failureMessage(result);
  if (!reportedUnavailable_) bridgeLog()->warn("{}", message);
  reportedUnavailable_ = true;
  if (!id) return std::nullopt;
  return encodeOrFallback(
      JSONRPCResponse::failure(std::move(id), {kMCPBridgeAgentUnavailable, message, {}}));
}

int MCPStdioBridge::run(std::istream& in, std::ostream& out) {
  std::string line;
  while (std::getline(in, line)) {
    if (auto answer = handleLine(line)) {
      out << *answer << '\n';
      out.flush();
      if (!out) {
        bridgeLog()->info("standard output is closed; the assistant has gone");
        return 1;
      }
    }
  }
  return 0;
}

}  // namespace quorel
