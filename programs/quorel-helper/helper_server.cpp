#include "helper_server.hpp"

#include <algorithm>

#include "core/logging.hpp"

namespace quorel {

CallerAuthority authorityFor(uid_t uid, const std::vector<uid_t>& allowedUids) {
  if (uid == 0) return CallerAuthority::full;
  return std::find(allowedUids.begin(), allowedUids.end(), uid) != allowedUids.end()
             ? CallerAuthority::full
             : CallerAuthority::pingOnly;
}

bool isPermitted(CallerAuthority authority, std::string_view method) {
  return authority == CallerAuthority::full || method == "ping";
}

// One caller: its authority is fixed when it connects.
class HelperServer::Session final : public LineSession {
 public:
  Session(HelperMethods& methods, uid_t uid, CallerAuthority authority,
          std::shared_ptr<std::function<void()>> onQuit)
      : methods_(methods), uid_(uid), authority_(authority), onQuit_(std::move(onQuit)) {}

  void handleLine(std::string_view line, LineReply reply) override {
    auto request = JSONRPCRequest::decode(line);
    if (!request) {
      const bool parses = JSONValue::parse(line).has_value();
      reply({encode(JSONRPCResponse::failure(
          std::nullopt,
          parses ? JSONRPCErrorObject{kJSONRPCInvalidRequest, "Invalid Request", std::nullopt}
                 : JSONRPCErrorObject::parseError))});
      return;
    }
    if (request->jsonrpc != "2.0") {
      reply({encode(JSONRPCResponse::failure(
          request->id, {kJSONRPCInvalidRequest, "jsonrpc must be \"2.0\"", std::nullopt}))});
      return;
    }
    if (!isPermitted(authority_, request->method)) {
      logging::get("HelperServer")
          ->warn("uid {} is not allowed to call {}; closing it", uid_, request->method);
      const std::string uid = std::to_string(uid_);
      reply({encode(JSONRPCResponse::failure(
                 request->id, {kHelperNotPermitted,
                               "uid " + uid +
                                   " may only ping this helper; an administrator can allow it "
                                   "with --allow-uid " +
                                   uid + ".",
                               std::nullopt})),
             true});
      return;
    }
    auto response = methods_.handle(*request);
    const bool quit = request->method == "quit";
    if (quit) {
      logging::get("HelperServer")->info("uid {} asked the helper to quit", uid_);
      quitRequested_ = true;
    }
    reply({request->id ? std::optional(encode(response)) : std::nullopt, quit});
  }

  std::string lineTooLongAnswer() override {
    return encode(JSONRPCResponse::failure(
        std::nullopt, {kHelperLineTooLong, "Request line longer than 65536 bytes", std::nullopt}));
  }

  void closed() override {
    if (quitRequested_ && *onQuit_) (*onQuit_)();
  }

 private:
  static std::string encode(const JSONRPCResponse& response) {
    return response.encode().value_or(
        R"({"error":{"code":-32603,"message":"encode failed"},"jsonrpc":"2.0"})");
  }

  HelperMethods& methods_;
  const uid_t uid_;
  const CallerAuthority authority_;
  std::shared_ptr<std::function<void()>> onQuit_;
  bool quitRequested_ = false;
};

HelperServer::HelperServer(SerialQueue& queue, HelperMethods& methods, HelperServerOptions options)
    : methods_(methods),
      allowedUids_(std::move(options.allowedUids)),
      server_(
          queue,
          [this](uid_t uid) -> std::unique_ptr<LineSession> {
            return std::make_unique<Session>(methods_, uid, authorityFor(uid, allowedUids_),
                                             onQuit_);
          },
          LineSocketServerOptions{.name = "HelperServer",
                                  .maxLineBytes = kMaxLineBytes,
                                  .maxPendingOutput = kMaxPendingOutput,
                                  .lineDeadline = options.lineDeadline,
                                  .idleDeadline = options.idleDeadline,
                                  .maxConnections = options.maxConnections}) {}

HelperServer::~HelperServer() {
  stop();
}

void HelperServer::start(int listeningFd) {
  server_.start(listeningFd);
}

void HelperServer::stop() {
  server_.stop();
}

std::size_t HelperServer::connectionCount() const {
  return server_.connectionCount();
}

void HelperServer::setOnQuit(std::function<void()> onQuit) {
  *onQuit_ = std::move(onQuit);
}

Result<int> listenOnUnixSocket(const std::filesystem::path& path) {
  return listenOnUnixSocket(path, 0666);
}

}  // namespace quorel
