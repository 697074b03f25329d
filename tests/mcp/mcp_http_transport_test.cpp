// The transport over real loopback sockets; its deadlines on a clock the test moves.

#include "mcp/mcp_http_transport.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <deque>
#include <memory>
#include <mutex>

#include "mcp_test_support.hpp"

namespace quorel {
namespace {

using namespace testing;  // the MCP test helpers

const std::string kToken = "tok-123";
const std::string kAuth = "Authorization: Bearer " + kToken + "\r\n";
const std::string kPing = R"({"jsonrpc":"2.0","id":1,"method":"ping"})";

// A manual clock that counts how often it is read, so that a test knows the transport has
// looked at it again.
struct CountingClock final : Clock {
  TimePoint now() const override { return manual.now(); }
  MonotonicTime monotonicNow() const override { return ++reads, manual.monotonicNow(); }
  ManualClock manual;
  mutable std::atomic<int> reads{0};
};

class MCPHTTPTransportTest : public ::testing::Test {
 protected:
  void SetUp() override { http_.start(); }
  void TearDown() override {
    transport_.reset();
    http_.shutdown();
  }

  // Echoes the method back, except "unwritable", whose answer cannot be encoded; a request
  // without an id is a notification.
  static void echo(JSONRPCRequest request, MCPHTTPTransport::Reply reply) {
    if (!request.id) return reply(std::nullopt);
    reply(JSONRPCResponse::success(request.id,
                                   request.method == "unwritable"
                                       ? JSONValue(std::nan(""))
                                       : JSONValue::object({{"method", request.method}})));
  }

  std::uint16_t startTransport(MCPHTTPTransportOptions options = {}) {
    transport_ = std::make_unique<MCPHTTPTransport>(
        http_, clock_,
        [this](JSONRPCRequest request, MCPHTTPTransport::Reply reply) {
          ++routed_;
          route_(std::move(request), std::move(reply));
        },
        options);
    transport_->setRequiredToken(kToken);
    EXPECT_FALSE(transport_->start(0));
    return transport_->boundPort().value_or(0);
  }

  // The route keeps the reply to a request instead of answering, until answerHeld() gives the
  // answer; notifications it answers at once.
  void holdReplies() {
    route_ = [this](JSONRPCRequest request, MCPHTTPTransport::Reply reply) {
      if (!request.id) return reply(std::nullopt);
      std::lock_guard lock(mutex_);
      heldID_ = request.id;
      held_ = std::move(reply);
    };
  }
  bool waitForHeldReply() {
    return eventually([&] {
      std::lock_guard lock(mutex_);
      return static_cast<bool>(held_);
    });
  }
  void answerHeld(JSONValue result) {
    std::lock_guard lock(mutex_);
    held_(JSONRPCResponse::success(heldID_, std::move(result)));
  }

  // The transport decides its deadlines on the counting clock; the queue that carries it keeps
  // real time, so its own timers still run.
  CountingClock clock_;
  SystemClock queueClock_;
  SerialQueue http_{"com.quorel.mcp.http", queueClock_};
  std::function<void(JSONRPCRequest, MCPHTTPTransport::Reply)> route_ = echo;
  std::unique_ptr<MCPHTTPTransport> transport_;
  std::atomic<int> routed_{0};
  std::mutex mutex_;
  MCPHTTPTransport::Reply held_;
  std::optional<JSONValue> heldID_;
};

TEST_F(MCPHTTPTransportTest, EveryAnswerCarriesItsStatusHeadersAndLengthAndCloses) {
  const auto port = startTransport();
  const auto head = [](const std::string& line, const std::string& headers) {
    return line + " HTTP/1.1\r\nHost: localhost:8473\r\n" + headers + "\r\n";
  };
  const std::string pong = R"({"id":1,"jsonrpc":"2.0","result":{"method":"ping"}})";
  const std::string parseError =
      R"({"error":{"code":-32700,"message":"Parse error"},"jsonrpc":"2.0"})";
  const std::string notification =
      post(R"({"jsonrpc":"2.0","method":"notifications/initialized"})", kAuth);
  const std::string encodeFailed =
      R"({"jsonrpc":"2.0","id":null,"error":{"code":-32603,"message":"encode failed"}})";
  // Head and body together pass the buffer limit though the Content-Length is in range.
  const std::string big(MCPHTTPTransport::kMaxBufferedBytes, ' ');
  struct Case {
    std::string request, status, body{};
    std::pair<std::string, std::string> header{"Connection", "close"};
  };
  const Case cases[] = {
      {post(kPing, kAuth), "200 OK", pong, {"Content-Type", "application/json"}},
      {head("OPTIONS /anything", kAuth), "204 No Content"},
      {head("OPTIONS /mcp", ""), "401 Unauthorized", "", {"WWW-Authenticate", "Bearer"}},
      {head("GET /mcp", kAuth), "405 Method Not Allowed", "", {"Allow", "POST, OPTIONS"}},
      {post(kPing, kAuth, "/mcp/"), "404 Not Found"},
      {post(kPing, kAuth + "Content-Type: text/plain\r\n"), "415 Unsupported Media Type"},
      {post(kPing, kAuth + "Origin: http://127.0.0.1:8473\r\n"), "403 Forbidden"},
      {head("POST /mcp", kAuth + "Transfer-Encoding: chunked\r\n"), "400 Bad Request"},
      {post(big, kAuth), "413 Payload Too Large"},
      // A head that never ends is cut off the same way rather than buffered without bound.
      {"POST /mcp HTTP/1.1\r\nX: " + big, "413 Payload Too Large"},
      {notification, "202 Accepted"},
      // What cannot be decoded as a request gets a fixed error, without reaching the route.
      {post("{not json", kAuth), "200 OK", parseError},
      {post(R"({"jsonrpc":"2.0","id":1,"method":"unwritable"})", kAuth), "200 OK", encodeFailed},
  };
  for (const auto& c : cases) {
    const auto a = roundTrip(port, c.request);
    SCOPED_TRACE(a.bytes);
    EXPECT_EQ(a.status(), c.status) << c.request.substr(0, 200);
    EXPECT_EQ(a.header("Content-Length"), std::to_string(c.body.size()));
    EXPECT_EQ(a.header("Connection"), "close");
    EXPECT_EQ(a.header(c.header.first), c.header.second);
    EXPECT_EQ(a.body(), c.body);
    EXPECT_EQ(a.responseCount(), 1u);
    EXPECT_TRUE(a.closed);
  }
  // The pings, the notification and the unwritable answer reached the route; nothing else did.
  EXPECT_EQ(routed_, 3);
}

TEST_F(MCPHTTPTransportTest, AnAnswerLargerThanTheSocketHoldsReachesASlowReaderWhole) {
  const std::string big(16 << 20, 'x');
  route_ = [&big](JSONRPCRequest request, MCPHTTPTransport::Reply reply) {
    reply(JSONRPCResponse::success(request.id, JSONValue(big)));
  };
  RawClient client(startTransport());
  ASSERT_TRUE(client.send(post(kPing, kAuth)));
  ASSERT_TRUE(eventually([&] { return routed_ == 1; }));
  // Nothing is read until the transport has written what the socket takes and must wait for
  // the rest: the second job on its queue runs after the one that writes the answer.
  http_.sync([] {});
  http_.sync([] {});
  auto a = client.readAll();
  const std::string expected = R"({"id":1,"jsonrpc":"2.0","result":")" + big + R"("})";
  EXPECT_EQ(a.header("Content-Length"), std::to_string(expected.size()));
  EXPECT_EQ(a.body().size(), expected.size());
  EXPECT_TRUE(a.body() == expected);
  EXPECT_TRUE(a.closed);
  EXPECT_FALSE(a.reset);
}

TEST_F(MCPHTTPTransportTest, PipelinedRequestsGetOneAnswerWithoutAReset) {
  // Closing on bytes that arrive while the first request is routed would end the stream with a
  // reset, which can destroy the answer before it is read.
  const auto port = startTransport();
  holdReplies();
  RawClient client(port);
  ASSERT_TRUE(client.send(post(kPing, kAuth)));
  ASSERT_TRUE(waitForHeldReply());
  ASSERT_TRUE(client.send(post(kPing, kAuth)));
  answerHeld(JSONValue(true));
  auto b = client.readAll();
  EXPECT_EQ(b.body(), R"({"id":1,"jsonrpc":"2.0","result":true})");
  EXPECT_EQ(b.responseCount(), 1u);
  EXPECT_TRUE(b.closed);
  EXPECT_FALSE(b.reset);
  EXPECT_EQ(routed_, 1);
}

TEST_F(MCPHTTPTransportTest, OnlyLoopbackPeersAreServed) {
  const auto isLoopback = [](const char* address) {
    const asio::ip::tcp::endpoint peer(asio::ip::make_address(address), 0);
    return MCPHTTPTransport::isLoopbackPeer(*peer.data());
  };
  for (const char* ok : {"127.0.0.1", "127.0.0.2", "127.255.255.254", "::1"}) {
    EXPECT_TRUE(isLoopback(ok)) << ok;
  }
  for (const char* bad : {"192.0.2.2", "10.0.0.1", "128.0.0.1", "0.0.0.0", "126.255.255.255", "::2",
                          "::ffff:127.0.0.1", "fe80::1"}) {
    EXPECT_FALSE(isLoopback(bad)) << bad;
  }

  // The whole of 127.0.0.0/8 reaches the loopback interface: a peer from another address than
  // the listener's own is served.
  RawClient neighbour(startTransport(), "127.0.0.2");
  ASSERT_TRUE(neighbour.connected());
  ASSERT_TRUE(neighbour.send(post(kPing, kAuth)));
  EXPECT_EQ(neighbour.readAll().status(), "200 OK");
}

TEST_F(MCPHTTPTransportTest, TheThirtyThirdConnectionIsClosedWithoutAnAnswer) {
  LogCapture log;
  const auto port = startTransport();
  std::deque<RawClient> held;
  for (std::size_t i = 0; i < MCPHTTPTransport::kMaxConnections; ++i) {
    ASSERT_TRUE(held.emplace_back(port).connected());
  }
  ASSERT_TRUE(eventually([&] { return transport_->connectionCount() == 32; }));

  RawClient extra(port);
  extra.send(post(kPing, kAuth));
  auto refused = extra.readAll();
  EXPECT_TRUE(refused.closed);
  EXPECT_EQ(refused.bytes, "");
  EXPECT_TRUE(log.contains("MCP: connection cap (32) reached — rejecting new peer"));
  EXPECT_EQ(routed_, 0);
}

TEST_F(MCPHTTPTransportTest, ADeadlineFallsOnlyWhenTheClockPassesItAndNotOnTheAnswer) {
  LogCapture log;
  const std::string idleLine =
      "MCP: connection idle past 0.05s without a complete request — cancelling";
  // The deadline is short in real time too, so the timer fires and finds it not yet passed on
  // the clock many times over.
  holdReplies();
  const auto port = startTransport(MCPHTTPTransportOptions{Seconds{0.05}});
  RawClient routed(port);
  ASSERT_TRUE(routed.send(post(kPing, kAuth)));
  ASSERT_TRUE(waitForHeldReply());
  RawClient idle(port);
  ASSERT_TRUE(idle.send("POST /mcp HTTP/1.1\r\n"));
  // Waits for its second piece like `idle`, but completes in time.
  RawClient prompt(port);
  const auto whole = post(R"({"jsonrpc":"2.0","method":"n"})", kAuth);
  ASSERT_TRUE(prompt.send(whole.substr(0, 10)));
  ASSERT_TRUE(eventually([&] { return transport_->connectionCount() == 3; }));

  const int reads = clock_.reads.load();
  ASSERT_TRUE(eventually([&] { return clock_.reads.load() >= reads + 5; }));
  EXPECT_EQ(transport_->connectionCount(), 3u);
  clock_.manual.advance(Seconds{0.04});
  ASSERT_TRUE(prompt.send(whole.substr(10)));
  EXPECT_EQ(prompt.readAll().status(), "202 Accepted");
  EXPECT_EQ(transport_->connectionCount(), 2u);
  EXPECT_FALSE(log.contains(idleLine));

  clock_.manual.advance(Seconds{0.02});
  auto cut = idle.readAll();
  EXPECT_TRUE(cut.closed);
  EXPECT_EQ(cut.bytes, "");
  EXPECT_EQ(log.count(idleLine), 1u);
  // Past its deadline too, the routed request still gets its answer.
  answerHeld(JSONValue("late"));
  EXPECT_EQ(routed.readAll().body(), R"({"id":1,"jsonrpc":"2.0","result":"late"})");

  // Nothing was waiting once `idle` went; a connection arriving now arms the timer anew.
  RawClient later(port);
  ASSERT_TRUE(later.send("POST /mcp HTTP/1.1\r\n"));
  ASSERT_TRUE(eventually([&] { return transport_->connectionCount() == 1; }));
  clock_.manual.advance(Seconds{0.06});
  EXPECT_TRUE(later.readAll().closed);
  EXPECT_EQ(log.count(idleLine), 2u);
  EXPECT_EQ(transport_->connectionCount(), 0u);
}

TEST_F(MCPHTTPTransportTest, AReplyAfterTheTransportIsGoneIsDropped) {
  holdReplies();
  RawClient client(startTransport());
  ASSERT_TRUE(client.send(post(kPing, kAuth)));
  ASSERT_TRUE(waitForHeldReply());
  transport_.reset();
  EXPECT_TRUE(client.readAll().closed);
  answerHeld(JSONValue(true));
  http_.sync([] {});
}

}  // namespace
}  // namespace quorel
