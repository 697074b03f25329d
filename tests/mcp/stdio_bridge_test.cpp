// The stdio bridge against a real server on a loopback port, against none, and against a
// listener that takes a request and hangs up.

#include "mcp/stdio_bridge.hpp"

#include <gtest/gtest.h>

#include <asio/ip/tcp.hpp>
#include <asio/read.hpp>
#include <asio/write.hpp>
#include <fstream>
#include <sstream>
#include <thread>

#include "core/memory_preference_store.hpp"
#include "mcp/mcp_server.hpp"
#include "mcp_test_support.hpp"

namespace quorel {
namespace {

using namespace testing;  // the MCP test helpers

// Answers every call with the arguments it was given, so a test sees what reached the server.
struct EchoRegistry final : MCPToolRegistry {
  void callTool(const std::string&, std::optional<JSONValue> arguments, std::optional<JSONValue> id,
                std::function<void(JSONRPCResponse)> reply) override {
    reply(JSONRPCResponse::success(id, arguments.value_or(JSONValue())));
  }
};

class StdioBridgeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    main_.start();
    http_.start();
  }
  void TearDown() override {
    server_.reset();
    http_.shutdown();
    main_.shutdown();
  }

  // An agent (re)started on `port` (0: any), as a new process would be: a new server object
  // reading the token file afresh.
  std::uint16_t startAgent(std::uint16_t port = 0) {
    server_.reset();
    server_ =
        std::make_unique<MCPServer>(main_, http_, clock_, prefs_, data(),
                                    std::make_unique<EchoRegistry>(), MCPServerOptions{"9.9", {}});
    server_->start(port);
    EXPECT_TRUE(server_->isListening());
    return server_->transport().boundPort().value_or(0);
  }

  MCPStdioBridge makeBridge() { return MCPStdioBridge({data(), Seconds{10.0}}, clock_); }
  std::filesystem::path data() const { return dir_.path() / "data"; }

  ScratchDirectory dir_;
  MemoryPreferenceStore prefs_;
  SystemClock clock_;
  SerialQueue main_{"main", clock_};
  SerialQueue http_{kMCPTransportQueueLabel, clock_};
  std::unique_ptr<MCPServer> server_;
};

std::optional<JSONRPCResponse> decoded(const std::optional<std::string>& line) {
  return line ? JSONRPCResponse::decode(*line) : std::nullopt;
}

TEST_F(StdioBridgeTest, AnswersEachRequestOnOneLineInOrderAndEndsWithItsInput) {
  startAgent();
  // A big argument with an escaped line feed inside: forwarded whole and answered on one line.
  const std::string big(150'000, 'x');
  std::istringstream in(
      "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"initialize\",\"params\":{}}\r\n"
      "{\"jsonrpc\":\"2.0\",\"method\":\"notifications/initialized\"}\n"
      "\n"
      "{\"jsonrpc\":\"2.0\",\"id\":\"two\",\"method\":\"tools/call\",\"params\":{\"name\":\"e\","
      "\"arguments\":{\"big\":\"" +
      big +
      "\",\"nl\":\"a\\nb\"}}}\n"
      "{\"jsonrpc\":\"2.0\",\"id\":3,\"method\":\"ping\"\n"
      "{\"jsonrpc\":\"2.0\",\"id\":4,\"method\":\"nope\"}");  // the last line has no line feed
  std::ostringstream out;
  auto bridge = makeBridge();
  EXPECT_EQ(bridge.run(in, out), 0);

  std::vector<std::string> lines;
  std::istringstream written(out.str());
  for (std::string line; std::getline(written, line);) lines.push_back(line);
  ASSERT_EQ(lines.size(), 4u) << out.str().substr(0, 400);
  EXPECT_EQ(lines[0],
            R"({"id":1,"jsonrpc":"2.0","result":{"capabilities":{"tools":{}},)"
            R"("protocolVersion":"2025-06-18","serverInfo":{"name":"quorel","version":"9.9"}}})");
  EXPECT_EQ(decoded(lines[1])->result,
            JSONValue::object({{"big", JSONValue(big)}, {"nl", JSONValue("a\nb")}}));
  EXPECT_EQ(decoded(lines[1])->id, JSONValue("two"));
  EXPECT_EQ(lines[2],
            R"({"error":{"code":-32700,"message":"Parse error"},"id":null,"jsonrpc":"2.0"})");
  EXPECT_EQ(decoded(lines[3])->error->code, kJSONRPCMethodNotFound);
  EXPECT_EQ(decoded(lines[3])->id, JSONValue(4));
}

TEST_F(StdioBridgeTest, FindsARestartedAgentOnAnotherPortAndWithANewToken) {
  const std::string ping = R"({"jsonrpc":"2.0","id":7,"method":"ping"})";
  const auto ok = JSONRPCResponse::success(JSONValue(7), JSONValue::object({}));
  const auto firstPort = startAgent();
  auto bridge = makeBridge();
  ASSERT_EQ(decoded(bridge.handleLine(ping)), ok);

  // Restarted with a new token on the same port: the old token is refused, the file is read
  // again and the request goes through.
  server_.reset();
  std::ofstream(mcpTokenFile(data()), std::ios::trunc) << "a-token-of-my-own\n";
  ASSERT_EQ(startAgent(firstPort), firstPort);
  EXPECT_EQ(decoded(bridge.handleLine(ping)), ok);

  // Restarted elsewhere with a fresh token; the old port is held meanwhile so that the new one
  // differs, and free again when the bridge knocks there.
  server_.reset();
  asio::io_context io;
  asio::ip::tcp::acceptor squatter(io, {asio::ip::make_address_v4("127.0.0.1"), firstPort});
  std::filesystem::remove(mcpTokenFile(data()));
  const auto secondPort = startAgent();
  squatter.close();
  ASSERT_NE(secondPort, firstPort);
  EXPECT_EQ(decoded(bridge.handleLine(ping)), ok);
}

TEST_F(StdioBridgeTest, WithoutAnAgentRequestsGetErrorsNamingTheCommandsAndTheBridgeGoesOn) {
  auto bridge = makeBridge();
  const auto expectUnavailable = [&](const std::string& id, const std::string& words) {
    const auto answer =
        decoded(bridge.handleLine(R"({"jsonrpc":"2.0","id":)" + id + R"(,"method":"ping"})"));
    ASSERT_TRUE(answer && answer->error) << id;
    EXPECT_EQ(answer->id, JSONValue::parse(id));
    EXPECT_EQ(answer->error->code, kMCPBridgeAgentUnavailable);
    EXPECT_NE(answer->error->message.find(words), std::string::npos) << answer->error->message;
    EXPECT_NE(answer->error->message.find("`quorel mcp enable`"), std::string::npos);
  };
  // No endpoint file at all, then one naming a port where nothing listens.
  expectUnavailable("1", "has not published its endpoint in " + mcpEndpointFile(data()).string());
  std::filesystem::create_directories(data());
  const auto deadPort = portWithNothingOnIt();
  std::ofstream(mcpEndpointFile(data())) << mcpEndpointURL(deadPort) << "\n";
  expectUnavailable(R"("req-2")", "isn't answering on 127.0.0.1:" + std::to_string(deadPort));
  expectUnavailable(R"({"odd":["id"]})", "start the agent with `quorel`");
  // Notifications and answers from the client are owed nothing, and get nothing made up.
  EXPECT_EQ(bridge.handleLine(R"({"jsonrpc":"2.0","method":"notifications/initialized"})"),
            std::nullopt);
  EXPECT_EQ(bridge.handleLine(R"({"jsonrpc":"2.0","id":null,"method":"ping"})"), std::nullopt);
  EXPECT_EQ(bridge.handleLine(R"({"jsonrpc":"2.0","id":5,"result":{}})"), std::nullopt);

  // The agent comes up and the same bridge reaches it.
  startAgent();
  EXPECT_EQ(decoded(bridge.handleLine(R"({"jsonrpc":"2.0","id":8,"method":"ping"})")),
            JSONRPCResponse::success(JSONValue(8), JSONValue::object({})));
  const auto tooLarge = decoded(bridge.handleLine(R"({"jsonrpc":"2.0","id":9,"method":"x","p":")" +
                                                  std::string(1 << 20, 'x') + "\"}"));
  EXPECT_NE(tooLarge->error->message.find("it takes at most 1 MiB"), std::string::npos)
      << tooLarge->error->message;
  // A token file edited after the agent read it is refused, read again, and said so once.
  std::ofstream(mcpTokenFile(data()), std::ios::trunc) << "edited-after-start\n";
  auto late = makeBridge();
  const auto refused = decoded(late.handleLine(R"({"jsonrpc":"2.0","id":9,"method":"ping"})"));
  ASSERT_TRUE(refused && refused->error);
  EXPECT_NE(refused->error->message.find("refuses the token in " + mcpTokenFile(data()).string()),
            std::string::npos);
}

// A listener that takes one request, moves the endpoint file to a second listener, and hangs
// up without answering. The request may have been acted on, so the bridge must not send it
// again; the next message goes to where the file now points.
TEST_F(StdioBridgeTest, ARequestThatMayHaveBeenActedOnIsNotSentTwice) {
  asio::io_context io;
  asio::ip::tcp::acceptor first(io, {asio::ip::make_address_v4("127.0.0.1"), 0});
  asio::ip::tcp::acceptor second(io, {asio::ip::make_address_v4("127.0.0.1"), 0});
  std::filesystem::create_directories(data());
  std::ofstream(mcpEndpointFile(data())) << mcpEndpointURL(first.local_endpoint().port());

  std::thread hangUp([&] {
    auto peer = first.accept();
    std::string head;
    asio::error_code ec;
    asio::read(peer, asio::dynamic_buffer(head), asio::transfer_at_least(1), ec);
    std::ofstream(mcpEndpointFile(data()), std::ios::trunc)
        << mcpEndpointURL(second.local_endpoint().port());
  });
  auto bridge = makeBridge();
  const auto answer =
      decoded(bridge.handleLine(R"({"jsonrpc":"2.0","id":1,"method":"tools/call"})"));
  hangUp.join();
  ASSERT_TRUE(answer && answer->error);
  EXPECT_NE(answer->error->message.find("took the request but gave no answer"), std::string::npos)
      << answer->error->message;

  second.non_blocking(true);
  asio::error_code ec;
  second.accept(ec);
  EXPECT_EQ(ec, asio::error::would_block) << "the request was sent a second time";

  std::thread answerNotJSON([&] {
    second.non_blocking(false);
    auto peer = second.accept();
    std::string head;
    asio::error_code readError;
    asio::read(peer, asio::dynamic_buffer(head), asio::transfer_at_least(1), readError);
    asio::write(peer,
                asio::buffer(std::string("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello")));
  });
  const auto next = decoded(bridge.handleLine(R"({"jsonrpc":"2.0","id":2,"method":"ping"})"));
  answerNotJSON.join();
  ASSERT_TRUE(next && next->error);
  EXPECT_NE(
      next->error->message.find("Something other than Quorel's agent answers on 127.0.0.1:" +
                                std::to_string(second.local_endpoint().port()) + " (HTTP 200)"),
      std::string::npos)
      << next->error->message;
}

TEST(MCPEndpointAddressTest, ReadsLoopbackURLsOnly) {
  using A = MCPEndpointAddress;
  const std::vector<std::pair<std::string, std::optional<A>>> cases = {
      {"http://127.0.0.1:8473/mcp\n", A{"127.0.0.1", 8473, "/mcp"}},
      {"  HTTP://LocalHost:1/mcp?x=1 ", A{"127.0.0.1", 1, "/mcp?x=1"}},
      {"http://[::1]:65535", A{"::1", 65535, "/"}},
      {"http://127.0.0.1/mcp", std::nullopt},         // no port
      {"http://127.0.0.1:0/mcp", std::nullopt},       // not a port one can reach
      {"http://127.0.0.1:65536/mcp", std::nullopt},   // past 16 bits
      {"http://192.168.1.5:8473/mcp", std::nullopt},  // never anything but this machine
      {"http://[::1/mcp", std::nullopt},
      {"https://127.0.0.1:8473/mcp", std::nullopt},
  };
  for (const auto& [url, expected] : cases) EXPECT_EQ(A::fromURL(url), expected) << url;
}

}  // namespace
}  // namespace quorel
