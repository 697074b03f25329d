// The transport over real loopback sockets.

#include "mcp/mcp_http_transport.hpp"

#include <gtest/gtest.h>
#include <ifaddrs.h>

#include <asio/ip/tcp.hpp>
#include <cmath>
#include <deque>
#include <memory>
#include <mutex>

#include "mcp_test_support.hpp"

namespace quorel {
namespace {

using testing::eventually;
using testing::LogCapture;
using testing::post;
using testing::RawAnswer;
using testing::RawClient;
using testing::roundTrip;

const std::string kToken = "tok-123";
const std::string kAuth = "Authorization: Bearer " + kToken + "\r\n";
const std::string kPing = R"({"jsonrpc":"2.0","id":1,"method":"ping"})";

class MCPHTTPTransportTest : public ::testing::Test {
 protected:
  void SetUp() override { http_.start(); }
  void TearDown() override {
    transport_.reset();
    http_.shutdown();
  }

  // Echoes the method back; a request without an id is a notification.
  static void echo(JSONRPCRequest request, MCPHTTPTransport::Reply reply) {
    if (!request.id) {
      reply(std::nullopt);
      return;
    }
    reply(JSONRPCResponse::success(request.id, JSONValue::object({{"method", request.method}})));
  }

  std::uint16_t startTransport(std::optional<std::string> token = kToken,
                               MCPHTTPTransportOptions options = {}, std::uint16_t port = 0) {
    transport_ = std::make_unique<MCPHTTPTransport>(
        http_,
        [this](JSONRPCRequest request, MCPHTTPTransport::Reply reply) {
          {
            std::lock_guard lock(mutex_);
            ++routed_;
          }
          route_(std::move(request), std::move(reply));
        },
        options);
    transport_->setRequiredToken(std::move(token));
    EXPECT_FALSE(transport_->start(port));
    return transport_->boundPort().value_or(0);
  }

  int routedCount() {
    std::lock_guard lock(mutex_);
    return routed_;
  }

  // The route keeps its reply instead of answering, until answerHeld() gives the answer.
  void holdReplies() {
    route_ = [this](JSONRPCRequest request, MCPHTTPTransport::Reply reply) {
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

  static void expectStatusOnly(const RawAnswer& a, const std::string& status) {
    EXPECT_EQ(a.status(), status) << a.bytes;
    EXPECT_EQ(a.header("Content-Length"), "0") << a.bytes;
    EXPECT_EQ(a.header("Connection"), "close") << a.bytes;
    EXPECT_EQ(a.body(), "");
    EXPECT_EQ(a.responseCount(), 1u);
    EXPECT_TRUE(a.closed);
  }

  SystemClock clock_;
  SerialQueue http_{"com.quorel.mcp.http", clock_};
  std::function<void(JSONRPCRequest, MCPHTTPTransport::Reply)> route_ = echo;
  std::unique_ptr<MCPHTTPTransport> transport_;
  std::mutex mutex_;
  int routed_ = 0;
  MCPHTTPTransport::Reply held_;
  std::optional<JSONValue> heldID_;
};

TEST_F(MCPHTTPTransportTest, AnswersARequestAsJSONAndCloses) {
  const auto port = startTransport();
  auto a = roundTrip(port, post(kPing, kAuth));
  EXPECT_EQ(a.status(), "200 OK");
  EXPECT_EQ(a.header("Content-Type"), "application/json");
  EXPECT_EQ(a.header("Connection"), "close");
  EXPECT_EQ(a.header("Content-Length"), std::to_string(a.body().size()));
  EXPECT_EQ(JSONRPCResponse::decode(a.body()),
            JSONRPCResponse::success(JSONValue(1), JSONValue::object({{"method", "ping"}})));
  EXPECT_TRUE(a.closed);
  // The query is dropped from the path and "/" is served like "/mcp".
  EXPECT_EQ(roundTrip(port, post(kPing, kAuth, "/mcp?x=1")).status(), "200 OK");
  EXPECT_EQ(roundTrip(port, post(kPing, kAuth, "/")).status(), "200 OK");
  // No content type at all is accepted, and so is a charset parameter.
  EXPECT_EQ(roundTrip(port, "POST /mcp HTTP/1.1\r\n" + kAuth + "Content-Length: " +
                                std::to_string(kPing.size()) + "\r\n\r\n" + kPing)
                .status(),
            "200 OK");
  EXPECT_EQ(roundTrip(port, "POST /mcp HTTP/1.1\r\n" + kAuth +
                                "Content-Type: application/json; charset=utf-8\r\n"
                                "Content-Length: " +
                                std::to_string(kPing.size()) + "\r\n\r\n" + kPing)
                .status(),
            "200 OK");
}

TEST_F(MCPHTTPTransportTest, StatusAnswersHaveEmptyBodiesAndTheirHeaders) {
  const auto port = startTransport();
  const auto head = [](const std::string& line, const std::string& headers) {
    return line + "\r\nHost: localhost:8473\r\n" + headers + "\r\n";
  };

  expectStatusOnly(roundTrip(port, head("OPTIONS /anything HTTP/1.1", kAuth)), "204 No Content");

  auto unauthorizedOptions = roundTrip(port, head("OPTIONS /mcp HTTP/1.1", ""));
  expectStatusOnly(unauthorizedOptions, "401 Unauthorized");
  EXPECT_EQ(unauthorizedOptions.header("WWW-Authenticate"), "Bearer");

  auto get = roundTrip(port, head("GET /mcp HTTP/1.1", kAuth));
  expectStatusOnly(get, "405 Method Not Allowed");
  EXPECT_EQ(get.header("Allow"), "POST, OPTIONS");
  expectStatusOnly(roundTrip(port, head("GET /mcp HTTP/1.1", "")), "401 Unauthorized");

  expectStatusOnly(roundTrip(port, post(kPing, kAuth, "/mcp/")), "404 Not Found");
  expectStatusOnly(roundTrip(port, post(kPing, kAuth + "Content-Type: text/plain\r\n")),
                   "415 Unsupported Media Type");
  expectStatusOnly(roundTrip(port, post(kPing, kAuth + "Origin: http://127.0.0.1:8473\r\n")),
                   "403 Forbidden");
  expectStatusOnly(
      roundTrip(port, "POST /mcp HTTP/1.1\r\nHost: evil.example:8473\r\n" + kAuth + "\r\n"),
      "403 Forbidden");
  expectStatusOnly(
      roundTrip(port, head("POST /mcp HTTP/1.1", kAuth + "Content-Length: 1048577\r\n")),
      "400 Bad Request");
  expectStatusOnly(
      roundTrip(port, head("POST /mcp HTTP/1.1", kAuth + "Transfer-Encoding: chunked\r\n")),
      "400 Bad Request");
  expectStatusOnly(roundTrip(port, "POST\r\n\r\n"), "400 Bad Request");
  expectStatusOnly(
      roundTrip(port, post(R"({"jsonrpc":"2.0","method":"notifications/initialized"})", kAuth)),
      "202 Accepted");
  // None of these reached the route but the notification.
  EXPECT_EQ(routedCount(), 1);
}

TEST_F(MCPHTTPTransportTest, ABodyThatIsNotARequestGetsAParseErrorWithoutAnId) {
  const auto port = startTransport();
  for (std::string body : {"{not json", R"({"id":4,"method":"ping"})", "", "[]"}) {
    auto a = roundTrip(port, post(body, kAuth));
    EXPECT_EQ(a.status(), "200 OK") << body;
    EXPECT_EQ(a.header("Content-Type"), "application/json");
    EXPECT_EQ(JSONValue::parse(a.body()),
              JSONValue::object(
                  {{"jsonrpc", "2.0"},
                   {"error", JSONValue::object({{"code", -32700}, {"message", "Parse error"}})}}))
        << a.body();
  }
  EXPECT_EQ(routedCount(), 0);
}

TEST_F(MCPHTTPTransportTest, AResponseThatCannotBeEncodedIsReplacedByTheFixedError) {
  route_ = [](JSONRPCRequest request, MCPHTTPTransport::Reply reply) {
    reply(JSONRPCResponse::success(request.id, JSONValue(std::nan(""))));
  };
  const auto port = startTransport();
  auto a = roundTrip(port, post(kPing, kAuth));
  EXPECT_EQ(a.status(), "200 OK");
  EXPECT_EQ(a.body(),
            R"({"jsonrpc":"2.0","id":null,"error":{"code":-32603,"message":"encode failed"}})");
}

TEST_F(MCPHTTPTransportTest, BuffersPastTheLimitArePayloadTooLarge) {
  const auto port = startTransport();
  // The Content-Length is in range, but head and body together pass the limit.
  const std::string body(MCPHTTPTransport::kMaxBufferedBytes, ' ');
  expectStatusOnly(roundTrip(port, post(body, kAuth)), "413 Payload Too Large");
  // A head that never ends is cut off the same way rather than buffered without bound.
  expectStatusOnly(roundTrip(port, "POST /mcp HTTP/1.1\r\nX: " + body), "413 Payload Too Large");
}

TEST_F(MCPHTTPTransportTest, RequestsArrivingInPiecesAreAssembled) {
  const auto port = startTransport();
  RawClient client(port);
  ASSERT_TRUE(client.connected());
  const std::string whole = post(kPing, kAuth);
  // Give the transport's queue a chance to read each piece on its own.
  for (std::size_t at = 0; at < whole.size(); at += 7) {
    ASSERT_TRUE(client.send(whole.substr(at, 7)));
    http_.sync([] {});
  }
  auto a = client.readAll();
  EXPECT_EQ(a.status(), "200 OK") << a.bytes;
  EXPECT_EQ(a.responseCount(), 1u);
}

TEST_F(MCPHTTPTransportTest, AnAnswerLargerThanTheSocketHoldsReachesASlowReaderWhole) {
  const std::string big(16 << 20, 'x');
  route_ = [&big](JSONRPCRequest request, MCPHTTPTransport::Reply reply) {
    reply(JSONRPCResponse::success(request.id, JSONValue(big)));
  };
  const auto port = startTransport();
  RawClient client(port);
  ASSERT_TRUE(client.send(post(kPing, kAuth)));
  ASSERT_TRUE(eventually([&] { return routedCount() == 1; }));
  // Nothing is read until the transport has written what the socket takes and must wait for
  // the rest: the second job on its queue runs after the one that writes the answer.
  http_.sync([] {});
  http_.sync([] {});
  auto a = client.readAll();
  const std::string expected = R"({"id":1,"jsonrpc":"2.0","result":")" + big + R"("})";
  EXPECT_EQ(a.status(), "200 OK");
  EXPECT_EQ(a.header("Content-Length"), std::to_string(expected.size()));
  EXPECT_EQ(a.body().size(), expected.size());
  EXPECT_TRUE(a.body() == expected);
  EXPECT_TRUE(a.closed);
  EXPECT_FALSE(a.reset);
}

TEST_F(MCPHTTPTransportTest, PipelinedRequestsGetOneAnswerAndTheRestIsDropped) {
  const auto port = startTransport();
  auto a = roundTrip(port, post(kPing, kAuth) + post(kPing, kAuth) + post(kPing, kAuth));
  EXPECT_EQ(a.status(), "200 OK");
  EXPECT_EQ(a.responseCount(), 1u);
  EXPECT_TRUE(a.closed);
  EXPECT_EQ(routedCount(), 1);
}

TEST_F(MCPHTTPTransportTest, ARequestPipelinedWhileTheFirstIsRoutedDoesNotResetTheAnswer) {
  // Closing on unread bytes would end the stream with a reset instead of an orderly close.
  holdReplies();
  const auto port = startTransport();
  RawClient client(port);
  ASSERT_TRUE(client.send(post(kPing, kAuth)));
  ASSERT_TRUE(waitForHeldReply());
  ASSERT_TRUE(client.send(post(kPing, kAuth)));
  answerHeld(JSONValue(true));
  auto a = client.readAll();
  EXPECT_EQ(a.status(), "200 OK");
  EXPECT_EQ(a.body(), R"({"id":1,"jsonrpc":"2.0","result":true})");
  EXPECT_TRUE(a.closed);
  EXPECT_FALSE(a.reset);
  EXPECT_EQ(routedCount(), 1);
}

TEST_F(MCPHTTPTransportTest, AStreamEndedBeforeTheRequestIsClosedWithoutAnAnswer) {
  const auto port = startTransport();
  RawClient client(port);
  ASSERT_TRUE(client.send("POST /mcp HTTP/1.1\r\nContent-Length: 50\r\n" + kAuth + "\r\n{"));
  client.shutdownWrite();
  auto a = client.readAll();
  EXPECT_TRUE(a.closed);
  EXPECT_EQ(a.bytes, "");
  EXPECT_EQ(routedCount(), 0);
}

TEST_F(MCPHTTPTransportTest, APeerFromANonLoopbackAddressIsClosedSilently) {
  // A local process can reach 127.0.0.1 from the machine's other addresses.
  std::optional<in_addr> external;
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) == 0) {
    for (auto* i = list; i != nullptr && !external; i = i->ifa_next) {
      if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_INET) continue;
      const auto address = reinterpret_cast<const sockaddr_in*>(i->ifa_addr)->sin_addr;
      if ((ntohl(address.s_addr) >> 24) != 127) external = address;
    }
    ::freeifaddrs(list);
  }
  if (!external) GTEST_SKIP() << "this machine has no IPv4 address besides loopback";

  LogCapture log;
  const auto port = startTransport();
  RawClient stranger(port, external);
  ASSERT_TRUE(stranger.connected());
  stranger.send(post(kPing, kAuth));
  auto a = stranger.readAll();
  EXPECT_TRUE(a.closed);
  EXPECT_EQ(a.bytes, "");
  EXPECT_EQ(routedCount(), 0);
  // Nothing logged but the listener coming up.
  EXPECT_EQ(log.messages("mcp").size(), 1u);
}

TEST_F(MCPHTTPTransportTest, TheThirtyThirdConnectionIsClosedWithoutAnAnswer) {
  LogCapture log;
  const auto port = startTransport();
  std::deque<RawClient> held;
  for (std::size_t i = 0; i < MCPHTTPTransport::kMaxConnections; ++i) {
    held.emplace_back(port);
    ASSERT_TRUE(held.back().connected());
  }
  ASSERT_TRUE(eventually([&] { return transport_->connectionCount() == 32; }));

  RawClient extra(port);
  ASSERT_TRUE(extra.connected());
  extra.send(post(kPing, kAuth));
  auto refused = extra.readAll();
  EXPECT_TRUE(refused.closed);
  EXPECT_EQ(refused.bytes, "");
  EXPECT_TRUE(log.contains("MCP: connection cap (32) reached — rejecting new peer"));
  EXPECT_EQ(routedCount(), 0);

  // A held connection still gets its answer, and once it is gone there is room again.
  held.front().send(post(kPing, kAuth));
  EXPECT_EQ(held.front().readAll().status(), "200 OK");
  held.pop_front();
  ASSERT_TRUE(eventually([&] { return transport_->connectionCount() == 31; }));
  EXPECT_EQ(roundTrip(port, post(kPing, kAuth)).status(), "200 OK");
}

TEST_F(MCPHTTPTransportTest, TheDeadlineCoversTheWholeRequestButNotTheAnswer) {
  LogCapture log;
  // The route holds its reply so that the answer comes only after the deadline has passed.
  holdReplies();
  const auto port = startTransport(kToken, MCPHTTPTransportOptions{Seconds{0.2}});

  RawClient complete(port);
  ASSERT_TRUE(complete.send(post(kPing, kAuth)));
  ASSERT_TRUE(waitForHeldReply());
  // This one is cut at its deadline; `complete`, whose request is being routed, is not.
  RawClient idle(port);
  ASSERT_TRUE(idle.send("POST /mcp HTTP/1.1\r\n"));
  auto cut = idle.readAll();
  EXPECT_TRUE(cut.closed);
  EXPECT_EQ(cut.bytes, "");
  EXPECT_EQ(log.count("MCP: connection idle past 0.2s without a complete request — cancelling"),
            1u);

  answerHeld(JSONValue("late"));
  auto late = complete.readAll();
  EXPECT_EQ(late.status(), "200 OK");
  EXPECT_NE(late.body().find("late"), std::string::npos);
}

TEST_F(MCPHTTPTransportTest, OneTimerServesTheDeadlinesOfEveryWaitingConnection) {
  LogCapture log;
  const std::string idleLine =
      "MCP: connection idle past 0.3s without a complete request — cancelling";
  const auto port = startTransport(kToken, MCPHTTPTransportOptions{Seconds{0.3}});

  RawClient first(port);
  ASSERT_TRUE(first.send("POST /mcp HTTP/1.1\r\n"));
  // Waits for its second piece like `first`, but completes in time and is answered.
  RawClient prompt(port);
  const auto whole = post(kPing, kAuth);
  ASSERT_TRUE(prompt.send(whole.substr(0, 10)));
  ASSERT_TRUE(eventually([&] { return transport_->connectionCount() == 2; }));
  ASSERT_TRUE(prompt.send(whole.substr(10)));
  EXPECT_EQ(prompt.readAll().status(), "200 OK");

  EXPECT_TRUE(first.readAll().closed);
  EXPECT_EQ(log.count(idleLine), 1u);
  // Nothing was waiting once `first` went; a connection arriving now must arm the timer anew.
  RawClient later(port);
  ASSERT_TRUE(later.send("POST /mcp HTTP/1.1\r\n"));
  auto cut = later.readAll(std::chrono::seconds(5));
  EXPECT_TRUE(cut.closed);
  EXPECT_EQ(cut.bytes, "");
  EXPECT_EQ(log.count(idleLine), 2u);
  EXPECT_EQ(transport_->connectionCount(), 0u);
}

TEST_F(MCPHTTPTransportTest, ATakenPortFallsBackToOneTheSystemGives) {
  LogCapture log;
  asio::io_context io;
  asio::ip::tcp::acceptor squatter(
      io, asio::ip::tcp::endpoint(asio::ip::make_address_v4("127.0.0.1"), 0));
  const auto taken = squatter.local_endpoint().port();

  std::uint16_t reported = 0;
  transport_ = std::make_unique<MCPHTTPTransport>(http_, echo);
  transport_->setOnListening([&](std::uint16_t p) { reported = p; });
  EXPECT_FALSE(transport_->start(taken));
  ASSERT_TRUE(transport_->isListening());
  const auto bound = transport_->boundPort();
  ASSERT_TRUE(bound);
  EXPECT_NE(*bound, taken);
  EXPECT_EQ(reported, *bound);
  EXPECT_FALSE(transport_->lastStartError());
  EXPECT_TRUE(log.contains("MCP listener ready on 127.0.0.1:" + std::to_string(*bound) +
                           " (fallback port)"));
  EXPECT_EQ(roundTrip(*bound, post(kPing)).status(), "200 OK");
}

TEST_F(MCPHTTPTransportTest, StartTwiceKeepsOneListenerAndStopClosesEverything) {
  LogCapture log;
  int listening = 0;
  transport_ = std::make_unique<MCPHTTPTransport>(http_, echo);
  transport_->setOnListening([&](std::uint16_t) { ++listening; });
  ASSERT_FALSE(transport_->start(0));
  const auto port = *transport_->boundPort();
  EXPECT_TRUE(log.contains("MCP listener ready on 127.0.0.1:" + std::to_string(port)));
  ASSERT_FALSE(transport_->start(0));
  EXPECT_EQ(transport_->boundPort(), port);
  EXPECT_EQ(listening, 1);

  RawClient open(port);
  ASSERT_TRUE(eventually([&] { return transport_->connectionCount() == 1; }));
  transport_->stop();
  EXPECT_FALSE(transport_->isListening());
  EXPECT_FALSE(transport_->boundPort());
  EXPECT_EQ(transport_->connectionCount(), 0u);
  auto a = open.readAll();
  EXPECT_TRUE(a.closed);
  EXPECT_FALSE(RawClient(port).connected());

  ASSERT_FALSE(transport_->start(0));
  EXPECT_TRUE(transport_->isListening());
  EXPECT_EQ(listening, 2);
}

TEST_F(MCPHTTPTransportTest, AReplyAfterTheTransportIsGoneIsDropped) {
  holdReplies();
  const auto port = startTransport();
  RawClient client(port);
  ASSERT_TRUE(client.send(post(kPing, kAuth)));
  ASSERT_TRUE(waitForHeldReply());
  transport_.reset();
  EXPECT_TRUE(client.readAll().closed);
  answerHeld(JSONValue(true));
  http_.sync([] {});
}

}  // namespace
}  // namespace quorel
