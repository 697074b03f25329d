#include "helper_server.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>

#include "platform/linux/sysfs_tree.hpp"
#include "platform/sandbox/simulated_battery_controls.hpp"
#include "support/wait_until.hpp"

namespace quorel {
namespace {

using Writes = std::vector<std::string>;

int connectTo(const std::filesystem::path& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return -1;
  }
  ::fcntl(fd, F_SETFL, O_NONBLOCK);
  return fd;
}

// A client over a real socket. The server's queue is never started: the client turns it by hand
// while it waits, so nothing runs on another thread and the clock moves only when told.
class Client {
 public:
  Client(const std::filesystem::path& path, SerialQueue& queue)
      : fd_(connectTo(path)), queue_(queue) {}
  ~Client() {
    if (fd_ >= 0) ::close(fd_);
  }
  bool connected() const { return fd_ >= 0; }
  void send(std::string_view text) const {
    while (!text.empty()) {
      const ssize_t n = ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL);
      if (n > 0) {
        text.remove_prefix(static_cast<std::size_t>(n));
      } else {
        queue_.runPending();
      }
    }
  }
  // The next line from the server; absent when it closed the connection first.
  std::optional<std::string> line() {
    std::optional<std::string> got;
    testing::waitUntil([&] { return (got = takeLine()) || closed_; }, [&] { turn(); });
    return got;
  }
  std::optional<JSONValue> call(std::string_view request) {
    send(std::string(request) + "\n");
    auto text = line();
    return text ? JSONValue::parse(*text) : std::nullopt;
  }
  void endWriting() const { ::shutdown(fd_, SHUT_WR); }
  // Whether the server has closed the connection, after turning the queue a while.
  bool closedByServer() {
    testing::waitUntil([&] { return closed_; }, [&] { turn(); }, std::chrono::milliseconds(500));
    return closed_;
  }

 private:
  void turn() {
    queue_.runPending();
    char buffer[4096];
    const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
    if (n > 0) received_.append(buffer, static_cast<std::size_t>(n));
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK)) closed_ = true;
  }
  std::optional<std::string> takeLine() {
    const auto newline = received_.find('\n');
    if (newline == std::string::npos) return std::nullopt;
    std::string out = received_.substr(0, newline);
    received_.erase(0, newline + 1);
    return out;
  }

  int fd_;
  SerialQueue& queue_;
  std::string received_;
  bool closed_ = false;
};

std::optional<double> errorCode(const std::optional<JSONValue>& reply) {
  const JSONValue* error = reply ? reply->find("error") : nullptr;
  return error && error->find("code") ? error->find("code")->numberValue() : std::nullopt;
}

class HelperServerTest : public ::testing::Test {
 protected:
  HelperServerTest() {
    SimulatedBatteryOptions options;
    options.capacity_percent = 90;
    battery = std::make_unique<SimulatedBatteryControls>(clock, options);
    controller = std::make_unique<HelperController>(*battery, clock, dir.root(), "2.0.7");
    methods = std::make_unique<HelperMethods>(*controller);
    controller->start();
    startServer({});
  }
  ~HelperServerTest() override {
    server.reset();
    queue.shutdown();
  }
  void startServer(HelperServerOptions options) {
    server = std::make_unique<HelperServer>(queue, *methods, options);
    server->setOnQuit([this] { ++quits; });
    auto fd = listenOnUnixSocket(socketPath());
    ASSERT_TRUE(fd) << fd.error().message;
    server->start(*fd);
  }
  std::filesystem::path socketPath() const { return dir.root() / "run" / "helper.sock"; }
  Client client() { return Client(socketPath(), queue); }

  ManualClock clock;
  SerialQueue queue{"helper-test", clock};
  testing::SysfsTree dir;
  std::unique_ptr<SimulatedBatteryControls> battery;
  std::unique_ptr<HelperController> controller;
  std::unique_ptr<HelperMethods> methods;
  std::unique_ptr<HelperServer> server;
  int quits = 0;
};

TEST_F(HelperServerTest, EveryMethodAnswersOverTheSocket) {
  auto c = client();
  ASSERT_TRUE(c.connected());
  auto ping = c.call(R"({"jsonrpc":"2.0","id":1,"method":"ping"})");
  ASSERT_TRUE(ping);
  EXPECT_EQ(ping->find("id")->numberValue(), 1);
  EXPECT_EQ(ping->find("result")->numberValue(), static_cast<double>(::getpid()));

  auto caps = c.call(R"({"jsonrpc":"2.0","id":2,"method":"capabilities"})");
  EXPECT_EQ(HelperCapabilities::fromJSON(*caps->find("result")), battery->capabilities());

  struct Step {
    std::string request;
    std::optional<double> error;  // absent: the result is true
  };
  const Step steps[] = {
      {R"("setChargeLimit","params":{"percent":80})", {}},
      {R"("setSailingBand","params":{"band":3})", {}},
      {R"("forceDischarge","params":{"enable":true})", {}},
      {R"("forceDischarge","params":{"enable":false})", {}},
      {R"("setClamshellKeepAwake","params":{"enable":true})", {}},
      {R"("releaseLimitUntilFullThenRestore")", {}},
      {R"("cancelTopUp")", {}},
      {R"("clearChargeLimit")", {}},
      {R"("setChargeLimit","params":{"percent":19})", 400},
      {R"("setChargeLimit","params":{"percent":"80"})", -32602},
      {R"("setChargeLimit","params":{"percent":80.5})", -32602},
      {R"("setChargeLimit")", -32602},
      {R"("forceDischarge","params":{"enable":1})", -32602},
      {R"("setSailingBand","params":[3])", -32602},
      {R"("rm -rf /")", -32601},
  };
  for (const auto& step : steps) {
    auto reply = c.call(R"({"jsonrpc":"2.0","id":7,"method":)" + step.request + "}");
    ASSERT_TRUE(reply) << step.request;
    if (step.error) {
      EXPECT_EQ(errorCode(reply), step.error) << step.request;
    } else {
      EXPECT_EQ(reply->member("result"), JSONValue(true)) << step.request << *reply->write();
    }
  }
  auto outOfRange = c.call(R"({"jsonrpc":"2.0","id":8,"method":"setChargeLimit",)"
                           R"("params":{"percent":101}})");
  EXPECT_EQ(outOfRange->find("error")->find("data")->member("domain"),
            JSONValue("QuorelHelperError"));

  auto state = c.call(R"({"jsonrpc":"2.0","id":9,"method":"getState"})");
  auto decoded = HelperState::fromJSON(*state->find("result"));
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->chargeLimit, 100);
  EXPECT_EQ(decoded->sailingBand, 3);
  EXPECT_TRUE(decoded->sleepDisabledByQuorel);
  EXPECT_EQ(decoded->helperVersion, "2.0.7");
  EXPECT_EQ(battery->writes().front(), "end=80");

  auto counters = c.call(R"({"jsonrpc":"2.0","id":10,"method":"readEnergyCounters"})");
  const auto* zones = counters->find("result")->arrayValue();
  ASSERT_TRUE(zones && zones->size() == 1);
  EXPECT_EQ(zones->front().member("name"), JSONValue("package-0"));

  auto reset = c.call(R"({"jsonrpc":"2.0","id":11,"method":"resetAll"})");
  EXPECT_EQ(reset->member("result"), JSONValue(true));
  EXPECT_FALSE(battery->keepingAwake());

  auto quit = c.call(R"({"jsonrpc":"2.0","id":12,"method":"quit"})");
  EXPECT_EQ(quit->member("result"), JSONValue(true));
  EXPECT_TRUE(c.closedByServer());
  EXPECT_EQ(quits, 1);
}

TEST_F(HelperServerTest, AnswersComeInOrderEvenToAClientThatStoppedWriting) {
  auto c = client();
  c.send(R"({"jsonrpc":"2.0","id":"a","method":"ping"})"
         "\n"
         R"({"jsonrpc":"2.0","method":"setChargeLimit","params":{"percent":70}})"
         "\r\n"
         "\n"
         R"({"jsonrpc":"2.0","id":"b","method":"getState"})"
         "\n"
         R"({"jsonrpc":"2.0","id":"c","method":"ping"})");
  // Shutting its side at once must not cost the client its answers, nor its unended last line.
  c.endWriting();
  std::vector<std::string> ids;
  for (int i = 0; i < 3; ++i) {
    auto reply = JSONValue::parse(c.line().value_or(""));
    ASSERT_TRUE(reply);
    ids.push_back(*reply->find("id")->stringValue());
    if (ids.back() == "b") {
      EXPECT_EQ(reply->find("result")->member("chargeLimit"), JSONValue(70));
    }
  }
  EXPECT_EQ(ids, (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_TRUE(c.closedByServer());
}

TEST_F(HelperServerTest, GarbageGetsProtocolErrorsAndTheConnectionCarriesOn) {
  auto c = client();
  const std::pair<std::string, double> cases[] = {
      {"this is not json", -32700},
      {"{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"ping\"", -32700},
      {"[1,2,3]", -32600},
      {R"({"jsonrpc":"2.0","id":1})", -32600},
      {R"({"jsonrpc":"1.0","id":1,"method":"ping"})", -32600},
      {"{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"\xff\xfe\"}", -32700},
      {std::string(600, '[') + std::string(600, ']'), -32700},
  };
  for (const auto& [line, code] : cases) {
    EXPECT_EQ(errorCode(c.call(line)), code) << line.substr(0, 60);
  }
  EXPECT_TRUE(c.call(R"({"jsonrpc":"2.0","id":1,"method":"ping"})")->find("result"));
  EXPECT_EQ(battery->writes(), Writes{});
}

TEST_F(HelperServerTest, AnOversizedLineGetsAnErrorAndIsDisconnectedWithoutAnyWrite) {
  auto c = client();
  const std::string huge =
      R"({"jsonrpc":"2.0","id":1,"method":"setChargeLimit","params":{"percent":80,"pad":")" +
      std::string(HelperServer::kMaxLineBytes, 'x') + "\"}}\n";
  c.send(huge);
  EXPECT_EQ(errorCode(JSONValue::parse(c.line().value_or(""))), kHelperLineTooLong);
  EXPECT_TRUE(c.closedByServer());
  EXPECT_EQ(battery->writes(), Writes{});
  EXPECT_TRUE(client().call(R"({"jsonrpc":"2.0","id":1,"method":"ping"})"));
}

TEST_F(HelperServerTest, ATricklingClientIsDroppedAtItsLineDeadline) {
  auto c = client();
  c.send(R"({"jsonrpc":"2.0",)");
  queue.runPending();
  for (int i = 0; i < 29; ++i) {
    clock.advance(Seconds{1});
    c.send(" ");
    queue.runPending();
  }
  EXPECT_FALSE(c.closedByServer()) << "29 s into a line is within the deadline";
  clock.advance(Seconds{1.5});
  EXPECT_TRUE(c.closedByServer()) << "more bytes must not push the deadline back";

  auto silent = client();
  ASSERT_TRUE(silent.call(R"({"jsonrpc":"2.0","id":1,"method":"ping"})"));
  clock.advance(Seconds{599});
  EXPECT_FALSE(silent.closedByServer());
  clock.advance(Seconds{2});
  EXPECT_TRUE(silent.closedByServer());
}

TEST_F(HelperServerTest, ManyClientsAtOnceAreEachAnsweredWhileOthersStall) {
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 60; ++i) clients.push_back(std::make_unique<Client>(socketPath(), queue));
  // Half send part of a line and stop; the other half must be answered regardless.
  for (std::size_t i = 0; i < clients.size(); i += 2) clients[i]->send(R"({"jsonrpc":"2.0","id)");
  for (std::size_t i = 1; i < clients.size(); i += 2) {
    clients[i]->send(R"({"jsonrpc":"2.0","id":)" + std::to_string(i) +
                     R"(,"method":"ping"})"
                     "\n");
  }
  for (std::size_t i = 1; i < clients.size(); i += 2) {
    auto reply = JSONValue::parse(clients[i]->line().value_or(""));
    ASSERT_TRUE(reply) << i;
    EXPECT_EQ(reply->find("id")->numberValue(), static_cast<double>(i));
  }
  EXPECT_EQ(server->connectionCount(), 60u);
}

TEST(HelperAuthorityTest, OnlyRootAndAllowedUsersMayDoMoreThanPing) {
  const std::vector<uid_t> allowed{1000, 1002};
  EXPECT_EQ(authorityFor(0, allowed), CallerAuthority::full);
  EXPECT_EQ(authorityFor(1000, allowed), CallerAuthority::full);
  EXPECT_EQ(authorityFor(1001, allowed), CallerAuthority::pingOnly);
  EXPECT_EQ(authorityFor(65534, {}), CallerAuthority::pingOnly);
  EXPECT_TRUE(isPermitted(CallerAuthority::pingOnly, "ping"));
  for (const char* method : {"getState", "setChargeLimit", "quit", "Ping", "", "resetAll"}) {
    EXPECT_FALSE(isPermitted(CallerAuthority::pingOnly, method)) << method;
    EXPECT_TRUE(isPermitted(CallerAuthority::full, method)) << method;
  }
}

// A real foreign user: a child process that drops to `nobody` and speaks to the socket. Needs
// root, which the helper's test runs have; elsewhere the check above covers the rule.
TEST_F(HelperServerTest, AForeignUserMayPingButIsRefusedByUidAndDisconnectedOtherwise) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
  std::filesystem::permissions(dir.root(), std::filesystem::perms::all);
  std::filesystem::permissions(dir.root() / "run", std::filesystem::perms::all);
  int pipeFds[2];
  ASSERT_EQ(::pipe(pipeFds), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(pipeFds[0]);
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(2);
    const int fd = connectTo(socketPath());
    ::fcntl(fd, F_SETFL, 0);
    const std::string requests =
        R"({"jsonrpc":"2.0","id":1,"method":"ping"})"
        "\n"
        R"({"jsonrpc":"2.0","id":2,"method":"setChargeLimit","params":{"percent":50}})"
        "\n"
        R"({"jsonrpc":"2.0","id":3,"method":"ping"})"
        "\n";
    if (fd < 0 || ::send(fd, requests.data(), requests.size(), MSG_NOSIGNAL) < 0) ::_exit(3);
    char buffer[4096];
    ssize_t n;
    while ((n = ::recv(fd, buffer, sizeof buffer, 0)) > 0) {
      if (::write(pipeFds[1], buffer, static_cast<std::size_t>(n)) != n) ::_exit(4);
    }
    ::_exit(0);
  }
  ::close(pipeFds[1]);
  int status = 0;
  testing::waitUntil([&] { return ::waitpid(child, &status, WNOHANG) == child; },
                     [&] { queue.runPending(); }, std::chrono::seconds(10));
  std::string out;
  char buffer[4096];
  ssize_t n;
  while ((n = ::read(pipeFds[0], buffer, sizeof buffer)) > 0) out.append(buffer, n);
  ::close(pipeFds[0]);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  const auto newline = out.find('\n');
  ASSERT_NE(newline, std::string::npos) << out;
  EXPECT_TRUE(JSONValue::parse(out.substr(0, newline))->find("result"));
  const std::string refusal = out.substr(newline + 1);
  EXPECT_EQ(errorCode(JSONValue::parse(refusal.substr(0, refusal.find('\n')))),
            kHelperNotPermitted);
  EXPECT_NE(refusal.find("uid 65534"), std::string::npos) << refusal;
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 2) << "nothing after the refusal: " << out;
  EXPECT_EQ(battery->writes(), Writes{});
}

TEST(HelperSocketTest, ListeningReplacesAStaleSocketButNeverAnotherFile) {
  testing::SysfsTree dir;
  const auto path = dir.root() / "helper.sock";
  auto first = listenOnUnixSocket(path);
  ASSERT_TRUE(first);
  EXPECT_EQ(std::filesystem::status(path).permissions() & std::filesystem::perms::all,
            static_cast<std::filesystem::perms>(0666));
  ::close(*first);
  auto second = listenOnUnixSocket(path);
  ASSERT_TRUE(second) << second.error().message;
  ::close(*second);

  const auto file = dir.root() / "precious";
  std::ofstream(file) << "keep me";
  EXPECT_FALSE(listenOnUnixSocket(file));
  EXPECT_TRUE(std::filesystem::is_regular_file(file));
}

}  // namespace
}  // namespace quorel
