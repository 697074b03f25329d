// `quorel battery` against a command socket served in this process by the real service over a
// fake helper: the whole path from the words typed to the helper call and back.

#include "programs/quorel/battery_command.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "app/battery_command_socket.hpp"
#include "control/fake_helper_link.hpp"
#include "programs/quorel/status_command.hpp"

namespace quorel {
namespace {

constexpr const char* kId = "0B7C3F52-1D2E-4A6B-9C8D-0123456789AB";

class BatteryCommandSocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/quorel-cmd-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    // The socket belongs to the queue's thread once it runs.
    if (started_) main_.sync([this] { socket_.reset(); });
    socket_.reset();
    main_.shutdown();
    std::filesystem::remove_all(dir_);
  }
  // Serves on the queue's own thread from here on; `agentUid` is whom the socket admits.
  void serve(uid_t agentUid = ::getuid()) {
    socket_ = std::make_unique<BatteryCommandSocket>(main_, service_, agentUid);
    ASSERT_TRUE(socket_->listen(socketPath()).ok());
    main_.start();
    started_ = true;
  }
  std::filesystem::path socketPath() const { return dir_ / "quorel" / "control.sock"; }

  struct Outcome {
    int status;
    std::string out;
    std::string err;
  };
  Outcome run(const BatteryCommandLine& command) {
    std::ostringstream out, err;
    const int status = runBatteryCommandLine(command, socketPath(), out, err, Seconds{5});
    return {status, out.str(), err.str()};
  }
  static BatteryCommandLine request(std::string method, std::optional<JSONValue> params = {}) {
    BatteryCommandLine line;
    line.method = std::move(method);
    line.params = std::move(params);
    return line;
  }
  std::vector<std::string> helperCalls() {
    return main_.sync([this] { return link_.fakeProxy.calls; });
  }

  std::filesystem::path dir_;
  bool started_ = false;
  SystemClock clock_;
  SerialQueue main_{"test.main", clock_};
  testing::FakeHelperLink link_;
  testing::MemoryBatteryControlSettings settings_;
  testing::FakeMachine machine_;
  BatteryControlCommandService service_{link_, main_, settings_, machine_.environment()};
  std::unique_ptr<BatteryCommandSocket> socket_;
};

TEST_F(BatteryCommandSocketTest, CommandsReachTheHelperAndRefusalsAndFailuresExitApart) {
  serve();
  auto limit = request("setChargeLimit", JSONValue::object({{"percent", 19}}));
  auto outcome = run(limit);
  EXPECT_EQ(outcome.status, kExitCommandRefused);
  EXPECT_EQ(outcome.err, "Charge limit must be between 20 and 100 percent.\n");
  EXPECT_TRUE(helperCalls().empty());

  limit.params = JSONValue::object({{"percent", 75}});
  limit.confirmation = "Charge limit set to 75%.";
  outcome = run(limit);
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "Charge limit set to 75%.\n");
  EXPECT_EQ(helperCalls(), std::vector<std::string>{"setChargeLimit(75)"});

  main_.sync([this] {
    link_.fakeProxy.immediateAnswer =
        QuorelHelperError{QuorelHelperErrorCode::codeSMCWriteFailed, "The write did not stick."};
  });
  outcome = run(request("setTopUp", JSONValue::object({{"enabled", false}})));
  EXPECT_EQ(outcome.status, kExitCommandFailed);
  EXPECT_EQ(outcome.err, "The write did not stick.\n");

  auto state = request("state");
  state.json = true;
  outcome = run(state);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(JSONValue::parse(outcome.out), main_.sync([this] { return service_.state(); }));
}

TEST_F(BatteryCommandSocketTest, RefusedRulesFileLeavesTheStoredRulesAlone) {
  serve();
  const auto file = dir_ / "rules.json";
  auto write = [&](const std::string& rules) { std::ofstream(file) << rules; };
  const std::string calendar = std::string(R"({"type":"calendar","id":")") + kId +
                               R"(","eventTitleSubstring":"Flight","leadMinutes":60})";
  write("[" + calendar + "]");
  auto command = rulesFromFile(file);
  ASSERT_TRUE(command.ok()) << command.error().message;
  auto outcome = run(*command);
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_NE(outcome.out.find("Calendar: \"Flight\" \u2014 60 min before"), std::string::npos)
      << outcome.out;

  write("[" + calendar + "," + calendar + "]");
  outcome = run(*rulesFromFile(file));
  EXPECT_EQ(outcome.status, kExitCommandRefused);
  EXPECT_EQ(outcome.err, std::string("Rule 1: duplicate rule id ") + kId +
                             " \u2014 every rule needs a unique id.\n");
  EXPECT_EQ(main_.sync([this] { return settings_.rules.size(); }), 1u);
}

TEST_F(BatteryCommandSocketTest, WithoutAnAgentOneSentenceAndExitThree) {
  auto outcome = run(request("state"));
  EXPECT_EQ(outcome.status, kExitAgentNotRunning);
  EXPECT_EQ(outcome.err, std::string(kAgentNotRunningSentence) + "\n");

  // A socket file left by an agent that died is no agent either.
  auto fd = listenOnUnixSocket(socketPath(), 0600);
  ASSERT_TRUE(fd.ok());
  ::close(*fd);
  EXPECT_EQ(run(request("state")).status, kExitAgentNotRunning);
}

TEST_F(BatteryCommandSocketTest, AnotherUserIsTurnedAwayBeforeAnyCommandRuns) {
  // The socket admits only the uid it was given; this process is someone else to it.
  serve(::getuid() + 1);
  const auto outcome = run(request("setForceDischarge", JSONValue::object({{"enabled", false}})));
  EXPECT_EQ(outcome.status, kExitCommandFailed);
  EXPECT_TRUE(helperCalls().empty());
}

// Two requests in one write, the first answered by the helper only later: the answers still
// come in the order asked.
TEST_F(BatteryCommandSocketTest, PipelinedRequestsAreAnsweredInOrderAndBadParamsAreRefused) {
  link_.fakeProxy.answerImmediately = false;
  serve();
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, socketPath().c_str());
  ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const std::string requests =
      R"({"jsonrpc":"2.0","id":1,"method":"setChargeLimit","params":{"percent":80}})"
      "\n"
      R"({"jsonrpc":"2.0","id":2,"method":"setChargeLimit","params":{"percent":"80"}})"
      "\n"
      R"({"jsonrpc":"2.0","id":3,"method":"automation"})"
      "\n";
  ASSERT_EQ(::write(fd, requests.data(), requests.size()), static_cast<ssize_t>(requests.size()));
  // Wait until the first request is with the helper, then let it answer.
  while (helperCalls().empty()) std::this_thread::yield();
  EXPECT_TRUE(main_.sync([this] { return link_.fakeProxy.answerNext(); }));
  std::string in;
  char buffer[4096];
  while (std::count(in.begin(), in.end(), '\n') < 3) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    ASSERT_GT(n, 0);
    in.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  std::istringstream lines(in);
  std::string line;
  std::vector<JSONRPCResponse> answers;
  while (std::getline(lines, line)) answers.push_back(*JSONRPCResponse::decode(line));
  ASSERT_EQ(answers.size(), 3u);
  EXPECT_EQ(answers[0].id, JSONValue(1));
  EXPECT_TRUE(answers[0].result.has_value());
  EXPECT_EQ(answers[1].id, JSONValue(2));
  EXPECT_EQ(answers[1].error->message, "Invalid params: `percent` (integer) is required.");
  EXPECT_EQ(answers[2].id, JSONValue(3));
  EXPECT_TRUE(answers[2].result->find("smart_top_off_rules"));
}

}  // namespace
}  // namespace quorel
