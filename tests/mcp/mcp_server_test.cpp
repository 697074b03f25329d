// The server's lifecycle, its files and its answers, over real sockets where it matters.

#include "mcp/mcp_server.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <asio/ip/tcp.hpp>
#include <fstream>
#include <regex>

#include "mcp/mcp_server_switch.hpp"
#include "mcp_test_support.hpp"

namespace quorel {
namespace {

using testing::eventually;
using testing::LogCapture;
using testing::MapPreferenceStore;
using testing::post;
using testing::roundTrip;
using testing::ScratchDirectory;

std::string readFile(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void writeFile(const std::filesystem::path& p, const std::string& contents) {
  std::ofstream(p, std::ios::binary) << contents;
}

unsigned modeOf(const std::filesystem::path& p) {
  struct stat st {};
  ::stat(p.c_str(), &st);
  return st.st_mode & 0777;
}

// Records what reaches it, and answers like a tool that worked or one that refused.
class RecordingRegistry final : public MCPToolRegistry {
 public:
  struct Call {
    std::string name;
    std::optional<JSONValue> arguments;
    std::optional<JSONValue> id;
  };
  std::vector<Call> calls;

  void callTool(const std::string& name, std::optional<JSONValue> arguments,
                std::optional<JSONValue> id, std::function<void(JSONRPCResponse)> reply) override {
    calls.push_back({name, arguments, id});
    if (name == "refuse") {
      reply(JSONRPCResponse::failure(id, {kJSONRPCInvalidParams, "Invalid params: no", {}}));
    } else {
      reply(JSONRPCResponse::success(id, JSONValue::object({{"isError", false}})));
    }
  }
};

class MCPServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    main_.start();
    http_.start();
  }
  void TearDown() override {
    switch_.reset();
    server_.reset();
    http_.shutdown();
    main_.shutdown();
  }

  MCPServer& makeServer(std::unique_ptr<MCPToolRegistry> registry = nullptr) {
    server_ = std::make_unique<MCPServer>(main_, http_, prefs_, dir_.path() / "data",
                                          MCPServerOptions{"1.2.3", {}}, std::move(registry));
    stateChanges_ = 0;
    server_->addStateObserver([this] { ++stateChanges_; });
    return *server_;
  }

  // Runs everything already posted to the main queue.
  void drainMain() {
    main_.sync([] {});
  }

  std::optional<JSONRPCResponse> routeOnMain(const std::string& body) {
    auto request = JSONRPCRequest::decode(body);
    EXPECT_TRUE(request) << body;
    return main_.sync([&] {
      std::optional<JSONRPCResponse> out;
      bool answered = false;
      server_->route(*request, [&](std::optional<JSONRPCResponse> r) {
        out = std::move(r);
        answered = true;
      });
      EXPECT_TRUE(answered);
      return out;
    });
  }

  std::filesystem::path tokenFile() const { return mcpTokenFile(dir_.path() / "data"); }
  std::filesystem::path endpointFile() const { return mcpEndpointFile(dir_.path() / "data"); }

  ScratchDirectory dir_;
  MapPreferenceStore prefs_;
  SystemClock clock_;
  SerialQueue main_{"main", clock_};
  SerialQueue http_{kMCPTransportQueueLabel, clock_};
  std::unique_ptr<MCPServer> server_;
  std::unique_ptr<MCPServerSwitch> switch_;
  int stateChanges_ = 0;  // touched on the main queue only
};

TEST_F(MCPServerTest, RandomTokensAre43URLSafeCharactersAndDiffer) {
  const std::regex urlSafe("^[A-Za-z0-9_-]{43}$");
  const auto a = MCPServer::randomToken();
  const auto b = MCPServer::randomToken();
  EXPECT_TRUE(std::regex_match(a, urlSafe)) << a;
  EXPECT_TRUE(std::regex_match(b, urlSafe)) << b;
  EXPECT_NE(a, b);
}

TEST_F(MCPServerTest, TheTokenFileIsCreatedPrivateAndThenReusedTrimmed) {
  auto& server = makeServer();
  const auto token = server.loadOrCreateToken();
  EXPECT_EQ(token.size(), 43u);
  EXPECT_EQ(readFile(tokenFile()), token + "\n");
  EXPECT_EQ(modeOf(tokenFile()), 0600u);
  EXPECT_EQ(server.loadOrCreateToken(), token);

  writeFile(tokenFile(), "  my own token \r\n\n");
  EXPECT_EQ(server.loadOrCreateToken(), "my own token");
  EXPECT_EQ(readFile(tokenFile()), "  my own token \r\n\n");  // used as is, not rewritten
}

TEST_F(MCPServerTest, ABlankOrUnreadableTokenFileIsReplaced) {
  auto& server = makeServer();
  std::filesystem::create_directories(tokenFile().parent_path());
  for (std::string blank : {std::string(" \n\t\r\n"), std::string(), std::string("\xff\xfe")}) {
    writeFile(tokenFile(), blank);
    ::chmod(tokenFile().c_str(), 0644);
    const auto token = server.loadOrCreateToken();
    EXPECT_EQ(token.size(), 43u);
    EXPECT_EQ(readFile(tokenFile()), token + "\n");
    EXPECT_EQ(modeOf(tokenFile()), 0600u);
  }
}

TEST_F(MCPServerTest, AFailedTokenWriteStillGivesATokenForThisRun) {
  // A directory where the data directory should be cannot hold the file.
  writeFile(dir_.path() / "data", "not a directory");
  auto& server = makeServer();
  const auto token = server.loadOrCreateToken();
  EXPECT_EQ(token.size(), 43u);
  EXPECT_NE(server.loadOrCreateToken(), token);
}

TEST_F(MCPServerTest, CurrentPortFallsBackTo8473OutsideTheValidRange) {
  auto& server = makeServer();
  EXPECT_EQ(server.currentPort(), 8473);
  for (nlohmann::json bad : {nlohmann::json(0), nlohmann::json(-1), nlohmann::json(65536),
                             nlohmann::json(100000), nlohmann::json("9000")}) {
    prefs_.setValue(kMCPServerPortKey, bad);
    EXPECT_EQ(server.currentPort(), 8473) << bad;
  }
  prefs_.setValue(kMCPServerPortKey, 9000);
  EXPECT_EQ(server.currentPort(), 9000);
  EXPECT_EQ(server.endpointURLString(), "http://127.0.0.1:9000/mcp");
  prefs_.setValue(kMCPServerPortKey, 65535);
  EXPECT_EQ(server.currentPort(), 65535);
}

TEST_F(MCPServerTest, StartPublishesTheLivePortAndAnswersWithTheTokenFromTheFile) {
  auto& server = makeServer();
  server.start(0);
  ASSERT_TRUE(server.isListening());
  const auto port = *server.transport().boundPort();
  EXPECT_EQ(prefs_.integerValue(kMCPServerPortKey), port);
  EXPECT_EQ(readFile(endpointFile()), "http://127.0.0.1:" + std::to_string(port) + "/mcp\n");
  EXPECT_EQ(modeOf(tokenFile()), 0600u);

  const std::string token = server.loadOrCreateToken();
  const std::string auth = "x-quorel-mcp-token: " + token + "\r\n";
  auto init = roundTrip(port, post(R"({"jsonrpc":"2.0","id":1,"method":"initialize",
                                       "params":{"protocolVersion":"1999-01-01"}})",
                                   auth));
  EXPECT_EQ(
      JSONValue::parse(init.body()),
      JSONValue::object(
          {{"jsonrpc", "2.0"},
           {"id", 1},
           {"result",
            JSONValue::object(
                {{"protocolVersion", "2025-06-18"},
                 {"serverInfo", JSONValue::object({{"name", "quorel"}, {"version", "1.2.3"}})},
                 {"capabilities", JSONValue::object({{"tools", JSONValue::object({})}})}})}}))
      << init.bytes;
  auto list = roundTrip(port, post(R"({"jsonrpc":"2.0","id":"l","method":"tools/list"})", auth));
  EXPECT_EQ(JSONRPCResponse::decode(list.body()),
            JSONRPCResponse::success(JSONValue("l"),
                                     JSONValue::object({{"tools", JSONValue::array({})}})));
  EXPECT_EQ(roundTrip(port, post(R"({"jsonrpc":"2.0","id":1,"method":"ping"})")).status(),
            "401 Unauthorized");

  drainMain();
  EXPECT_EQ(main_.sync([&] { return stateChanges_; }), 1);
  EXPECT_EQ(server.statusText(), "Stopped");  // running, but the setting is off
  prefs_.setValue(kMCPServerEnabledKey, true);
  EXPECT_EQ(server.statusText(), "Running on 127.0.0.1:" + std::to_string(port));
}

TEST_F(MCPServerTest, StartingTwiceTouchesNothingTheSecondTime) {
  auto& server = makeServer();
  server.start(0);
  const auto port = *server.transport().boundPort();
  drainMain();
  std::filesystem::remove(endpointFile());
  std::filesystem::remove(tokenFile());
  server.start(0);
  drainMain();
  EXPECT_EQ(main_.sync([&] { return stateChanges_; }), 1);
  EXPECT_FALSE(std::filesystem::exists(endpointFile()));
  EXPECT_FALSE(std::filesystem::exists(tokenFile()));
  EXPECT_EQ(server.transport().boundPort(), port);

  server.stop();
  drainMain();
  EXPECT_EQ(main_.sync([&] { return stateChanges_; }), 2);
  EXPECT_FALSE(server.isListening());
  // The endpoint file stays for the bridge to find next time; a new start reads a new token.
  server.start(0);
  EXPECT_TRUE(std::filesystem::exists(tokenFile()));
}

TEST_F(MCPServerTest, AFallbackPortBecomesTheConfiguredPort) {
  asio::io_context io;
  asio::ip::tcp::acceptor squatter(
      io, asio::ip::tcp::endpoint(asio::ip::make_address_v4("127.0.0.1"), 0));
  const auto taken = squatter.local_endpoint().port();
  prefs_.setValue(kMCPServerPortKey, taken);

  auto& server = makeServer();
  server.start(server.currentPort());
  ASSERT_TRUE(server.isListening());
  const auto live = *server.transport().boundPort();
  EXPECT_NE(live, taken);
  EXPECT_EQ(server.currentPort(), live);
  EXPECT_EQ(readFile(endpointFile()), "http://127.0.0.1:" + std::to_string(live) + "/mcp\n");

  // The next start asks for the port clients have written down, and gets it.
  server.stop();
  server.start(server.currentPort());
  EXPECT_EQ(server.transport().boundPort(), live);
}

TEST_F(MCPServerTest, AListenerThatCannotBeCreatedIsReportedAndLeavesTheSettingOn) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  // The sanitizers' runtime opens descriptors of its own to check memory; with none to spare
  // it reports objects it cannot inspect as broken.
  GTEST_SKIP() << "exhausting descriptors confuses the sanitizer runtime";
#endif
  LogCapture log;
  auto& server = makeServer();
  prefs_.setValue(kMCPServerEnabledKey, true);
  // Let the queue's reactor exist first, as it does in a running agent.
  server.start(0);
  server.stop();
  // With no descriptor to spare, neither the token file nor the socket can be opened.
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
  const int lowest = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(lowest, 0);
  ::close(lowest);
  rlimit tight = saved;
  tight.rlim_cur = static_cast<rlim_t>(lowest);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
  struct Restore {
    rlimit limit;
    ~Restore() { ::setrlimit(RLIMIT_NOFILE, &limit); }
  } restore{saved};
  server.start(0);
  ::setrlimit(RLIMIT_NOFILE, &saved);

  EXPECT_FALSE(server.isListening());
  const std::string reason = std::make_error_code(std::errc::too_many_files_open).message();
  EXPECT_EQ(server.statusText(), "Failed to start: " + reason);
  EXPECT_TRUE(log.contains("MCP listener could not be created: " + reason));
  EXPECT_TRUE(log.contains("MCP server failed to start listener: " + reason));
  EXPECT_TRUE(prefs_.boolValue(kMCPServerEnabledKey));
  drainMain();
  EXPECT_GE(main_.sync([&] { return stateChanges_; }), 1);
  // The failure clears at the next successful start.
  server.start(0);
  EXPECT_TRUE(server.isListening());
  EXPECT_FALSE(server.transport().lastStartError());
}

TEST_F(MCPServerTest, StatusTexts) {
  EXPECT_EQ(mcpStatusText(false, true, "x", 1), "Stopped");
  EXPECT_EQ(mcpStatusText(true, true, "x", 8473), "Running on 127.0.0.1:8473");
  EXPECT_EQ(mcpStatusText(true, false, "Address already in use", 8473),
            "Failed to start: Address already in use");
  EXPECT_EQ(mcpStatusText(true, false, std::nullopt, 8473), "Starting…");
}

TEST_F(MCPServerTest, RouteAnswersTheProtocolsOwnMethods) {
  makeServer();
  EXPECT_EQ(routeOnMain(R"({"jsonrpc":"2.0","id":3,"method":"ping"})"),
            JSONRPCResponse::success(JSONValue(3), JSONValue::object({})));
  EXPECT_EQ(
      routeOnMain(R"({"jsonrpc":"2.0","id":3,"method":"tools/list"})"),
      JSONRPCResponse::success(JSONValue(3), JSONValue::object({{"tools", JSONValue::array({})}})));
  EXPECT_EQ(routeOnMain(R"({"jsonrpc":"2.0","id":"i","method":"initialize"})")->result,
            server_->initializeResult());
  EXPECT_EQ(routeOnMain(R"({"jsonrpc":"2.0","id":3,"method":"Ping"})"),
            JSONRPCResponse::failure(JSONValue(3),
                                     {kJSONRPCMethodNotFound, "Method not found: Ping", {}}));
}

TEST_F(MCPServerTest, ANotificationRunsNothingWhateverItsMethod) {
  auto registry = std::make_unique<RecordingRegistry>();
  auto* recorded = registry.get();
  makeServer(std::move(registry));
  EXPECT_EQ(routeOnMain(R"({"jsonrpc":"2.0","method":"notifications/initialized"})"), std::nullopt);
  EXPECT_EQ(routeOnMain(R"({"jsonrpc":"2.0","id":null,"method":"tools/call",
                            "params":{"name":"set_charge_limit"}})"),
            std::nullopt);
  EXPECT_TRUE(main_.sync([&] { return recorded->calls.empty(); }));
  // The same method with an id is an unknown method.
  EXPECT_EQ(
      routeOnMain(R"({"jsonrpc":"2.0","id":1,"method":"notifications/initialized"})")->error->code,
      kJSONRPCMethodNotFound);
}

TEST_F(MCPServerTest, ToolsCallNeedsAStringName) {
  makeServer();
  const JSONRPCErrorObject expected{
      kJSONRPCInvalidParams, "Invalid params: `name` is required for tools/call.", {}};
  for (std::string params : {"", R"(,"params":{"name":5})", R"(,"params":{})",
                             R"(,"params":["get_overview"])", R"(,"params":"get_overview")"}) {
    auto r = routeOnMain(R"({"jsonrpc":"2.0","id":9,"method":"tools/call")" + params + "}");
    ASSERT_TRUE(r) << params;
    EXPECT_EQ(r->error, expected) << params;
    EXPECT_EQ(r->id, JSONValue(9));
  }
}

TEST_F(MCPServerTest, ToolsCallGoesToTheRegistryAndItsOutcomeIsLogged) {
  LogCapture log;
  auto registry = std::make_unique<RecordingRegistry>();
  auto* recorded = registry.get();
  makeServer(std::move(registry));
  auto ok = routeOnMain(
      R"({"jsonrpc":"2.0","id":"a","method":"tools/call","params":{"name":"x","arguments":{"k":1}}})");
  EXPECT_EQ(ok->result, JSONValue::object({{"isError", false}}));
  auto refused =
      routeOnMain(R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"refuse"}})");
  EXPECT_EQ(refused->error->message, "Invalid params: no");
  main_.sync([&] {
    ASSERT_EQ(recorded->calls.size(), 2u);
    EXPECT_EQ(recorded->calls[0].arguments, JSONValue::object({{"k", 1}}));
    EXPECT_EQ(recorded->calls[0].id, JSONValue("a"));
    EXPECT_EQ(recorded->calls[1].arguments, std::nullopt);
  });
  EXPECT_TRUE(log.contains("tools/call x → ok"));
  EXPECT_TRUE(log.contains("tools/call refuse → error -32602"));
}

TEST_F(MCPServerTest, TheEmptyCatalogueTreatsEveryToolAsUnknown) {
  LogCapture log;
  makeServer();
  auto r = routeOnMain(
      R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"get_overview"}})");
  EXPECT_EQ(r, JSONRPCResponse::failure(
                   JSONValue(1),
                   {kJSONRPCInvalidParams, "Invalid params: Unknown tool: get_overview", {}}));
  EXPECT_TRUE(log.contains("tools/call get_overview → error -32602"));
}

TEST_F(MCPServerTest, TheSwitchFollowsTheSettingAcrossProcesses) {
  std::uint16_t freePort = 0;
  {
    asio::io_context io;
    asio::ip::tcp::acceptor probe(
        io, asio::ip::tcp::endpoint(asio::ip::make_address_v4("127.0.0.1"), 0));
    freePort = probe.local_endpoint().port();
  }
  prefs_.setValue(kMCPServerPortKey, freePort);
  auto& server = makeServer();
  main_.sync([&] {
    switch_ = std::make_unique<MCPServerSwitch>(server, prefs_, main_);
    switch_->activate();
  });
  EXPECT_FALSE(server.isListening());
  EXPECT_EQ(prefs_.observerCount(), 1u);

  // As another process would: the store's observer fires on the writer's thread.
  prefs_.setValue(kMCPServerEnabledKey, true);
  drainMain();
  drainMain();
  ASSERT_TRUE(server.isListening());
  EXPECT_EQ(server.transport().boundPort(), freePort);

  prefs_.setValue(kMCPServerEnabledKey, false);
  drainMain();
  EXPECT_FALSE(server.isListening());

  // Sleep stops it; wake applies the rule again.
  prefs_.setValue(kMCPServerEnabledKey, true);
  drainMain();
  ASSERT_TRUE(server.isListening());
  server.stop();
  EXPECT_FALSE(server.isListening());
  main_.sync([&] { switch_->apply(); });
  EXPECT_TRUE(server.isListening());

  main_.sync([&] { switch_.reset(); });
  EXPECT_EQ(prefs_.observerCount(), 0u);
}

}  // namespace
}  // namespace quorel
