#include "app/battery_command_socket.hpp"

#include <cmath>

#include "core/logging.hpp"
#include "mcp/json_rpc.hpp"

namespace quorel {
namespace {

std::string encode(const JSONRPCResponse& response) {
  return response.encode().value_or(
      R"({"error":{"code":-32603,"message":"encode failed"},"jsonrpc":"2.0"})");
}

std::string failure(const std::optional<JSONValue>& id, std::int64_t code, std::string message) {
  return encode(JSONRPCResponse::failure(id, {code, std::move(message), std::nullopt}));
}

std::string resultText(const std::optional<JSONValue>& id, const BatteryCommandResult& result) {
  if (const auto* error = std::get_if<MCPToolError>(&result)) {
    return failure(id, error->code, error->message);
  }
  return encode(JSONRPCResponse::success(id, std::get<JSONValue>(result)));
}

// A whole number given as a JSON number; a fraction is cut off, as the assistants' tools do.
std::optional<std::int64_t> integerParam(const JSONValue* params, std::string_view key) {
  const JSONValue* value = params ? params->find(key) : nullptr;
  const auto number = value ? value->numberValue() : std::nullopt;
  if (!number || !std::isfinite(*number) || std::fabs(*number) > 1e15) return std::nullopt;
  return static_cast<std::int64_t>(std::trunc(*number));
}

std::optional<bool> boolParam(const JSONValue* params, std::string_view key) {
  const JSONValue* value = params ? params->find(key) : nullptr;
  return value ? value->boolValue() : std::nullopt;
}

}  // namespace

std::filesystem::path batteryCommandSocketPath(const QuorelPaths& paths) {
  return paths.runtimeDirectory ? *paths.runtimeDirectory / "quorel" / "control.sock"
                                : paths.dataDirectory / "control.sock";
}

bool mayCommandAgent(uid_t peerUid, uid_t agentUid) {
  return peerUid == agentUid;
}

class BatteryCommandSocket::Session final : public LineSession {
 public:
  explicit Session(BatteryCommandSocket& owner) : owner_(owner) {}
  void handleLine(std::string_view line, LineReply reply) override {
    owner_.handleRequest(line, std::move(reply));
  }
  std::string lineTooLongAnswer() override {
    return failure(std::nullopt, kJSONRPCInvalidParams, "Request line too long.");
  }

 private:
  BatteryCommandSocket& owner_;
};

BatteryCommandSocket::BatteryCommandSocket(SerialQueue& mainQueue,
                                           BatteryControlCommandService& service, uid_t agentUid)
    : mainQueue_(mainQueue), service_(service), agentUid_(agentUid) {}

BatteryCommandSocket::~BatteryCommandSocket() {
  stop();
  *alive_ = false;
}

Result<bool> BatteryCommandSocket::listen(const std::filesystem::path& path) {
  stop();
  auto fd = listenOnUnixSocket(path, 0600);
  if (!fd) return fd.error();
  server_ = std::make_unique<LineSocketServer>(
      mainQueue_,
      [this](uid_t peer) -> std::unique_ptr<LineSession> {
        if (!mayCommandAgent(peer, agentUid_)) return nullptr;
        return std::make_unique<Session>(*this);
      },
      LineSocketServerOptions{.name = "BatteryCommandSocket",
                              .maxLineBytes = kMaxLineBytes,
                              .lineDeadline = kLineDeadline,
                              .idleDeadline = kIdleDeadline,
                              .maxConnections = 32});
  server_->start(*fd);
  path_ = path;
  return true;
}

void BatteryCommandSocket::stop() {
  if (server_) server_->stop();
  server_.reset();
  if (path_) {
    std::error_code ignored;
    std::filesystem::remove(*path_, ignored);
    path_.reset();
  }
}

void BatteryCommandSocket::handleRequest(std::string_view line, LineReply reply) {
  auto request = JSONRPCRequest::decode(line);
  if (!request) {
    reply({failure(std::nullopt, kJSONRPCParseError, "Parse error")});
    return;
  }
  const auto id = request->id;
  const JSONValue* params = request->params ? &*request->params : nullptr;
  auto answer = [reply](const std::optional<JSONValue>& to, const BatteryCommandResult& result) {
    reply({to ? std::optional(resultText(to, result)) : std::nullopt});
  };
  auto invalid = [&](std::string message) {
    answer(id, MCPToolError{kCommandRefused, "Invalid params: " + std::move(message)});
  };
  // A completion may come after the socket is gone (a helper reply during shutdown).
  std::weak_ptr<bool> alive = alive_;
  auto later = [answer, id, alive](BatteryCommandResult result) {
    if (!alive.expired()) answer(id, result);
  };
  const std::string& method = request->method;
  if (method == "state") return answer(id, service_.state());
  if (method == "automation") return answer(id, service_.automation());
  if (method == "clearChargeLimit") return service_.clearChargeLimit(later);
  if (method == "setChargeLimit") {
    const auto percent = integerParam(params, "percent");
    if (!percent) return invalid("`percent` (integer) is required.");
    return service_.setChargeLimit(*percent, later);
  }
  if (method == "setForceDischarge" || method == "setTopUp") {
    const auto enabled = boolParam(params, "enabled");
    if (!enabled) return invalid("`enabled` (boolean) is required.");
    if (method == "setTopUp") return service_.setTopUp(*enabled, later);
    return service_.setForceDischarge(*enabled, later);
  }
  if (method == "setHeatProtection") {
    const auto threshold = integerParam(params, "threshold_c");
    const auto hysteresis = integerParam(params, "hysteresis_c");
    if (!threshold || !hysteresis) {
      return invalid("`threshold_c` and `hysteresis_c` (integers) are required.");
    }
    return answer(id, service_.setHeatProtection(*threshold, *hysteresis));
  }
  if (method == "setSmartTopOffRules") {
    const JSONValue* rules = params ? params->find("rules") : nullptr;
    if (rules == nullptr || !rules->isArray()) return invalid("`rules` (array) is required.");
    auto decoded = decodeTopOffRules(*rules);
    if (!decoded) return invalid("Could not decode `rules`: " + decoded.error().message);
    return answer(id, service_.setSmartTopOffRules(std::move(decoded).value()));
  }
  answer(id, MCPToolError{kJSONRPCMethodNotFound, "Method not found: " + method});
}

}  // namespace quorel
