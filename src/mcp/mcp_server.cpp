#include "mcp/mcp_server.hpp"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <sstream>

#include "core/batched_poster.hpp"
#include "core/logging.hpp"
#include "mcp/text_util.hpp"

namespace quorel {

namespace fs = std::filesystem;

std::filesystem::path mcpTokenFile(const std::filesystem::path& dataDirectory) {
  return dataDirectory / "mcp-token";
}

std::filesystem::path mcpEndpointFile(const std::filesystem::path& dataDirectory) {
  return dataDirectory / "mcp-endpoint";
}

std::uint16_t mcpConfiguredPort(const PreferenceStore& preferences) {
  const std::int64_t port = preferences.integerValue(kMCPServerPortKey);
  if (port < 1 || port > 65535) return kMCPDefaultPort;
  return static_cast<std::uint16_t>(port);
}

std::string mcpEndpointURL(std::uint16_t port) {
  return "http://127.0.0.1:" + std::to_string(port) + "/mcp";
}

std::string mcpStatusText(bool enabled, bool listening,
                          const std::optional<std::string>& startErrorDescription,
                          std::uint16_t port) {
  if (!enabled) return "Stopped";
  if (listening) return "Running on 127.0.0.1:" + std::to_string(port);
  if (startErrorDescription) return "Failed to start: " + *startErrorDescription;
  return "Starting…";
}

namespace {

// Writes beside the target and renames over it, so that a reader never sees half a file.
// The temporary file is created with `mode` from the start, so a token is never readable by
// others even for a moment.
bool writeFileAtomically(const fs::path& target, std::string_view contents, mode_t mode) {
  thread_local std::mt19937_64 suffixSource{std::random_device{}()};
  const fs::path temporary =
      target.parent_path() / ("." + target.filename().string() + ".tmp-" +
                              std::to_string(::getpid()) + "-" + std::to_string(suffixSource()));
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (fd < 0) return false;
  bool ok = true;
  for (std::size_t written = 0; ok && written < contents.size();) {
    const ssize_t n = ::write(fd, contents.data() + written, contents.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) ok = false;
    if (n > 0) written += static_cast<std::size_t>(n);
  }
  if (::close(fd) != 0) ok = false;
  if (ok && ::rename(temporary.c_str(), target.c_str()) != 0) ok = false;
  if (!ok) ::unlink(temporary.c_str());
  return ok;
}

std::optional<std::string> readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream contents;
  contents << in.rdbuf();
  if (in.bad()) return std::nullopt;
  return contents.str();
}

std::string uuidString() {
  std::array<unsigned char, 16> b{};
  if (RAND_bytes(b.data(), static_cast<int>(b.size())) != 1) {
    std::random_device device;
    for (auto& byte : b) byte = static_cast<unsigned char>(device());
  }
  b[6] = static_cast<unsigned char>((b[6] & 0x0F) | 0x40);
  b[8] = static_cast<unsigned char>((b[8] & 0x3F) | 0x80);
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (std::size_t i = 0; i < b.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out.push_back('-');
    out.push_back(kHex[b[i] >> 4]);
    out.push_back(kHex[b[i] & 0x0F]);
  }
  return out;
}

bool kernelRandomBytes(unsigned char* out, std::size_t size) {
  std::size_t filled = 0;
  while (filled < size) {
    const ssize_t n = ::getrandom(out + filled, size - filled, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    filled += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

// The part of the server that callbacks on other queues may reach. They hold it weakly, so
// that the server can go away while a request is still on its way to the main queue.
struct MCPServer::Core {
  Core(SerialQueue& main, PreferenceStore& prefs, fs::path dir, MCPServerOptions opts,
       std::unique_ptr<MCPToolRegistry> reg)
      : mainQueue(main),
        preferences(prefs),
        dataDirectory(std::move(dir)),
        options(std::move(opts)),
        registry(std::move(reg)),
        log(logging::get("mcp")) {}

  SerialQueue& mainQueue;
  PreferenceStore& preferences;
  const fs::path dataDirectory;
  const MCPServerOptions options;
  std::unique_ptr<MCPToolRegistry> registry;
  std::shared_ptr<spdlog::logger> log;

  std::mutex observersMutex;
  std::map<std::uint64_t, std::function<void()>> observers;
  std::uint64_t nextObserverID = 1;

  void publishLivePort(std::uint16_t port) {
    preferences.setValue(kMCPServerPortKey, port);
    std::error_code ec;
    fs::create_directories(dataDirectory, ec);
    writeFileAtomically(mcpEndpointFile(dataDirectory), mcpEndpointURL(port) + "\n", 0666);
  }

  void postStateChanged(const std::shared_ptr<Core>& self) {
    std::weak_ptr<Core> weak = self;
    mainQueue.async([weak] {
      auto core = weak.lock();
      if (!core) return;
      std::vector<std::function<void()>> toCall;
      {
        std::lock_guard lock(core->observersMutex);
        for (const auto& [id, fn] : core->observers) toCall.push_back(fn);
      }
      for (const auto& fn : toCall) fn();
    });
  }
};

MCPServer::MCPServer(SerialQueue& mainQueue, SerialQueue& transportQueue, const Clock& clock,
                     PreferenceStore& preferences, std::filesystem::path dataDirectory,
                     std::unique_ptr<MCPToolRegistry> registry, MCPServerOptions options)
    : core_(std::make_shared<Core>(mainQueue, preferences, std::move(dataDirectory),
                                   std::move(options), std::move(registry))) {
  std::weak_ptr<Core> weak = core_;
  // Requests reach the main queue in batches under load, sparing its thread a wakeup each.
  struct Routed {
    JSONRPCRequest request;
    MCPHTTPTransport::Reply reply;
  };
  BatchedPoster<Routed> toMain(mainQueue, [weak](Routed& routed) {
    if (auto core = weak.lock()) MCPServer::routeWith(*core, routed.request, routed.reply);
  });
  auto routeOnMain = [toMain](JSONRPCRequest request, MCPHTTPTransport::Reply reply) {
    toMain.post({std::move(request), std::move(reply)});
  };
  transport_ = std::make_unique<MCPHTTPTransport>(transportQueue, clock, std::move(routeOnMain),
                                                  core_->options.transport);
  transport_->setOnListening([weak](std::uint16_t port) {
    if (auto core = weak.lock()) {
      core->publishLivePort(port);
      core->postStateChanged(core);
    }
  });
  transport_->setOnStartError([weak](std::error_code) {
    if (auto core = weak.lock()) core->postStateChanged(core);
  });
}

MCPServer::~MCPServer() {
  transport_.reset();
}

void MCPServer::start(std::uint16_t port) {
  if (transport_->isListening()) return;
  transport_->setRequiredToken(loadOrCreateToken());
  if (auto error = transport_->start(port)) {
    core_->log->error("MCP server failed to start listener: {}", error->message());
    postStateChanged();
  }
}

void MCPServer::stop() {
  transport_->stop();
  postStateChanged();
}

std::uint16_t MCPServer::currentPort() const {
  return mcpConfiguredPort(core_->preferences);
}

std::string MCPServer::endpointURLString() const {
  return mcpEndpointURL(currentPort());
}

bool MCPServer::isListening() const {
  return transport_->isListening();
}

std::string MCPServer::statusText() const {
  std::optional<std::string> error;
  if (auto e = transport_->lastStartError()) error = e->message();
  return mcpStatusText(core_->preferences.boolValue(kMCPServerEnabledKey),
                       transport_->isListening(), error, currentPort());
}

std::string MCPServer::loadOrCreateToken() {
  const fs::path file = mcpTokenFile(core_->dataDirectory);
  if (auto contents = readFile(file); contents && isValidUTF8(*contents)) {
    const std::string_view token = trimWhitespace(*contents);
    if (!token.empty()) return std::string(token);
  }
  std::string token = randomToken();
  std::error_code ec;
  fs::create_directories(core_->dataDirectory, ec);
  if (writeFileAtomically(file, token + "\n", 0600)) ::chmod(file.c_str(), 0600);
  return token;
}

void MCPServer::publishLivePort(std::uint16_t port) {
  core_->publishLivePort(port);
}

std::string MCPServer::randomToken() {
  std::string raw(32, '\0');
  if (!kernelRandomBytes(reinterpret_cast<unsigned char*>(raw.data()), raw.size())) {
    raw = uuidString() + uuidString();
  }
  std::string encoded(4 * ((raw.size() + 2) / 3) + 1, '\0');
  const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()),
                                reinterpret_cast<const unsigned char*>(raw.data()),
                                static_cast<int>(raw.size()));
  encoded.resize(static_cast<std::size_t>(n));
  std::string token;
  token.reserve(encoded.size());
  for (char c : encoded) {
    if (c == '+') {
      token.push_back('-');
    } else if (c == '/') {
      token.push_back('_');
    } else if (c != '=') {
      token.push_back(c);
    }
  }
  return token;
}

void MCPServer::postStateChanged() {
  core_->postStateChanged(core_);
}

void MCPServer::route(const JSONRPCRequest& request,
                      std::function<void(std::optional<JSONRPCResponse>)> reply) {
  routeWith(*core_, request, reply);
}

template <class Reply>
void MCPServer::routeWith(Core& core, const JSONRPCRequest& request, const Reply& reply) {
  if (!request.id) {
    reply(std::nullopt);
    return;
  }
  const auto& id = request.id;
  const auto method = mcpMethodFromString(request.method);
  if (!method) {
    reply(JSONRPCResponse::failure(
        id, {kJSONRPCMethodNotFound, "Method not found: " + request.method, {}}));
    return;
  }
  switch (*method) {
    case MCPMethod::initialize:
      reply(JSONRPCResponse::success(id, initializeResultFor(core.options)));
      return;
    case MCPMethod::toolsList:
      reply(JSONRPCResponse::successText(id, MCPToolRegistry::toolsListText()));
      return;
    case MCPMethod::ping:
      reply(JSONRPCResponse::success(id, JSONValue(JSONValue::Object{})));
      return;
    case MCPMethod::toolsCall:
      break;
  }
  const JSONValue* name = request.params ? request.params->find("name") : nullptr;
  if (name == nullptr || !name->isString()) {
    reply(JSONRPCResponse::failure(
        id, {kJSONRPCInvalidParams, "Invalid params: `name` is required for tools/call.", {}}));
    return;
  }
  auto arguments = request.params->member("arguments");
  auto log = core.log;
  const std::string toolName = *name->stringValue();
  core.registry->callTool(toolName, std::move(arguments), id,
                          [log, toolName, reply](JSONRPCResponse response) {
                            if (response.error) {
                              log->info("tools/call {} → error {}", toolName, response.error->code);
                            } else {
                              log->info("tools/call {} → ok", toolName);
                            }
                            reply(std::move(response));
                          });
}

JSONValue MCPServer::initializeResult() const {
  return initializeResultFor(core_->options);
}

JSONValue MCPServer::initializeResultFor(const MCPServerOptions& options) {
  return JSONValue::object(
      {{"protocolVersion", kMCPProtocolVersion},
       {"serverInfo", JSONValue::object({{"name", "quorel"}, {"version", options.version}})},
       {"capabilities", JSONValue::object({{"tools", JSONValue(JSONValue::Object{})}})}});
}

std::uint64_t MCPServer::addStateObserver(std::function<void()> observer) {
  std::lock_guard lock(core_->observersMutex);
  const auto id = core_->nextObserverID++;
  core_->observers.emplace(id, std::move(observer));
  return id;
}

void MCPServer::removeStateObserver(std::uint64_t id) {
  std::lock_guard lock(core_->observersMutex);
  core_->observers.erase(id);
}

const std::filesystem::path& MCPServer::dataDirectory() const {
  return core_->dataDirectory;
}

MCPToolRegistry& MCPServer::registry() {
  return *core_->registry;
}

}  // namespace quorel
