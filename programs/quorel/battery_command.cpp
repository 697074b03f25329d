#include "battery_command.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <sstream>

#include "core/file_descriptor.hpp"
#include "status_command.hpp"

namespace quorel {
namespace {

constexpr std::size_t kMaxAnswerBytes = 4 * 1024 * 1024;

std::string text(const JSONValue* value) {
  if (value == nullptr || value->isNull()) return "unknown";
  if (const auto* s = value->stringValue()) return *s;
  if (const auto b = value->boolValue()) return *b ? "on" : "off";
  if (const auto n = value->numberValue()) {
    return *n == std::trunc(*n) ? std::to_string(static_cast<long long>(*n))
                                : value->write().value_or("");
  }
  return value->write().value_or("");
}

std::string onOff(const JSONValue* value) {
  return value && value->boolValue() ? (*value->boolValue() ? "on" : "off") : "unknown";
}

std::string ruleLine(const JSONValue& rule) {
  if (text(rule.find("type")) == "calendar") {
    return "Calendar: \"" + text(rule.find("event_title_substring")) + "\" \u2014 " +
           text(rule.find("lead_minutes")) + " min before";
  }
  return "Geofence: " + text(rule.find("label")) + " (" + text(rule.find("latitude")) + ", " +
         text(rule.find("longitude")) + ", " + text(rule.find("radius_meters")) + " m)";
}

}  // namespace

Result<BatteryCommandLine> rulesFromFile(const std::filesystem::path& file) {
  std::ifstream in(file);
  if (!in) return Error{"cannot read " + file.string()};
  std::stringstream content;
  content << in.rdbuf();
  auto read = JSONValue::read(content.str());
  if (!read.value) return Error{file.string() + " is not JSON: " + read.error};
  if (!read.value->isArray()) {
    return Error{file.string() +
                 " must hold a JSON list of rules, e.g. [{\"type\": \"calendar\", "
                 "\"id\": \"<UUID>\", \"eventTitleSubstring\": \"Flight\", \"leadMinutes\": 60}]"};
  }
  BatteryCommandLine line;
  line.method = "setSmartTopOffRules";
  line.params = JSONValue::object({{"rules", *read.value}});
  line.shows = BatteryCommandLine::Shows::automation;
  return line;
}

AgentAnswer callAgent(const std::filesystem::path& socket, const std::string& requestLine,
                      Seconds timeout) {
  const SystemClock clock;
  const MonotonicTime deadline =
      clock.monotonicNow() + std::chrono::duration_cast<std::chrono::nanoseconds>(timeout);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = socket.string();
  if (path.size() >= sizeof address.sun_path)
    return {AgentAnswer::Kind::failed, {}, "socket path too long"};
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  FileDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) return {AgentAnswer::Kind::failed, {}, std::strerror(errno)};
  if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    // No socket, or one left by an agent that is gone.
    if (errno == ENOENT || errno == ECONNREFUSED) return {AgentAnswer::Kind::noAgent, {}, {}};
    return {AgentAnswer::Kind::failed, {}, path + ": " + std::strerror(errno)};
  }
  const std::string out = requestLine + "\n";
  std::size_t sent = 0;
  while (sent < out.size()) {
    if (!waitForDescriptor(fd.get(), POLLOUT, deadline, clock)) {
      return {AgentAnswer::Kind::failed, {}, "the agent did not take the request in time"};
    }
    const ssize_t n = ::send(fd.get(), out.data() + sent, out.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return {AgentAnswer::Kind::failed, {}, std::strerror(errno)};
    sent += static_cast<std::size_t>(n);
  }
  std::string in;
  char buffer[16'384];
  for (;;) {
    const auto newline = in.find('\n');
    if (newline != std::string::npos) {
      auto response = JSONRPCResponse::decode(std::string_view(in).substr(0, newline));
      if (!response) return {AgentAnswer::Kind::failed, {}, "the agent's answer is not JSON-RPC"};
      return {AgentAnswer::Kind::answered, std::move(response), {}};
    }
    if (in.size() > kMaxAnswerBytes) return {AgentAnswer::Kind::failed, {}, "answer too long"};
    if (!waitForDescriptor(fd.get(), POLLIN, deadline, clock)) {
      return {AgentAnswer::Kind::failed, {}, "the agent did not answer in time"};
    }
    const ssize_t n = ::recv(fd.get(), buffer, sizeof buffer, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return {AgentAnswer::Kind::failed, {}, "the agent closed the connection"};
    in.append(buffer, static_cast<std::size_t>(n));
  }
}

std::string describeBatteryState(const JSONValue& state) {
  std::string out;
  const std::string availability = text(state.find("availability"));
  const bool ready = state.find("helper_ready") && state.find("helper_ready")->boolValue() == true;
  out += "Battery control: " + availability +
         (ready ? ", helper ready"
                : (state.find("helper_enabled") && state.find("helper_enabled")->boolValue() == true
                       ? ", helper enabled but not ready"
                       : ", helper not enabled")) +
         "\n";
  const JSONValue* limit = state.find("charge_limit");
  out += limit && !limit->isNull()
             ? "Charge limit: " + text(limit) + "% (sailing band " +
                   text(state.find("sailing_band")) + " points)\n"
             : std::string("Charge limit: unknown until the helper answers\n");
  out +=
      "Battery: " + text(state.find("capacity_percent")) + "%, " +
      (state.find("is_on_external_power") && state.find("is_on_external_power")->boolValue() == true
           ? "on external power"
           : "not on external power") +
      ", lid " +
      (state.find("is_clamshell_closed") && state.find("is_clamshell_closed")->boolValue() == true
           ? "closed"
           : "open") +
      "\n";
  out += "Force discharge: " + onOff(state.find("force_discharge_active")) + "\n";
  out += "Top-up: " + onOff(state.find("top_up_active")) + "\n";
  out += "Heat pause: " + onOff(state.find("heat_pause_active")) + "\n";
  const JSONValue* abortReason = state.find("last_discharge_abort_reason");
  if (abortReason && !abortReason->isNull()) {
    out += "Last discharge stopped: " + text(abortReason) + " (" +
           text(state.find("last_discharge_abort_at")) + ")\n";
  }
  return out;
}

std::string describeAutomation(const JSONValue& automation) {
  std::string out = "Heat protection: pause charging above " +
                    text(automation.find("heat_protection_threshold_c")) + " \u00b0C, resume " +
                    text(automation.find("heat_protection_hysteresis_c")) + " \u00b0C below\n";
  const JSONValue* rules = automation.find("smart_top_off_rules");
  const auto* list = rules ? rules->arrayValue() : nullptr;
  if (list == nullptr || list->empty()) {
    out += "Smart top-off rules: none\n";
  } else {
    out += "Smart top-off rules:\n";
    for (const auto& rule : *list) {
      out += "  " + ruleLine(rule) + "  [" + text(rule.find("id")) + "]\n";
    }
  }
  out += "Calendar access: " + text(automation.find("calendar_authorization")) +
         "; location access: " + text(automation.find("location_authorization")) + "\n";
  return out;
}

int runBatteryCommandLine(const BatteryCommandLine& command, const std::filesystem::path& socket,
                          std::ostream& out, std::ostream& err, Seconds timeout) {
  JSONRPCRequest request;
  request.jsonrpc = "2.0";
  request.id = JSONValue(1);
  request.method = command.method;
  request.params = command.params;
  const auto line = request.toJSON().write();
  if (!line) {
    err << "quorel: the request cannot be written as JSON.\n";
    return kExitCommandFailed;
  }
  const auto answer = callAgent(socket, *line, timeout);
  if (answer.kind == AgentAnswer::Kind::noAgent) {
    err << kAgentNotRunningSentence << "\n";
    return kExitAgentNotRunning;
  }
  if (answer.kind == AgentAnswer::Kind::failed) {
    err << "quorel: " << answer.problem << ".\n";
    return kExitCommandFailed;
  }
  const auto& response = *answer.response;
  if (response.error) {
    err << response.error->message << "\n";
    return response.error->code == kJSONRPCInvalidParams ? kExitCommandRefused : kExitCommandFailed;
  }
  const JSONValue result = response.result.value_or(JSONValue());
  if (command.json) {
    out << result.write().value_or("null") << "\n";
  } else if (!command.confirmation.empty()) {
    out << command.confirmation << "\n";
  } else {
    out << (command.shows == BatteryCommandLine::Shows::state ? describeBatteryState(result)
                                                              : describeAutomation(result));
  }
  return 0;
}

}  // namespace quorel
