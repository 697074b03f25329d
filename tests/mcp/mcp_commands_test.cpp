// The `quorel mcp` subcommands against a real server and against nothing at all.

#include "mcp/mcp_commands.hpp"

#include <gtest/gtest.h>

#include <fstream>

#include "core/memory_preference_store.hpp"
#include "mcp/mcp_server.hpp"
#include "mcp_test_support.hpp"

namespace quorel {
namespace {

using testing::portWithNothingOnIt;
using testing::ScratchDirectory;

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.rfind(prefix, 0) == 0;
}

class MCPCommandsTest : public ::testing::Test {
 protected:
  ScratchDirectory dir_;
  MemoryPreferenceStore prefs_;
  SystemClock clock_;
  std::filesystem::path data() const { return dir_.path() / "data"; }
};

TEST_F(MCPCommandsTest, EnableAndDisableFlipTheSettingAndSayWhereToConnect) {
  auto on = runMCPEnableCommand(prefs_, data());
  EXPECT_EQ(on.exitStatus, 0);
  EXPECT_TRUE(prefs_.boolValue(kMCPServerEnabledKey));
  EXPECT_EQ(on.text,
            "MCP server enabled — a running agent starts it within moments.\n"
            "HTTP: http://127.0.0.1:8473/mcp\n"
            "Token file: " +
                (data() / "mcp-token").string() +
                " (not created yet — the agent writes it when the server starts)\n");

  auto off = runMCPDisableCommand(prefs_, data());
  EXPECT_EQ(off.exitStatus, 0);
  EXPECT_FALSE(prefs_.boolValue(kMCPServerEnabledKey));
  EXPECT_TRUE(prefs_.hasValue(kMCPServerEnabledKey));
  EXPECT_EQ(off.text, "MCP server disabled — a running agent stops it within moments.\n");
}

TEST_F(MCPCommandsTest, StatusProbesOnlyWhenEnabled) {
  prefs_.setValue(kMCPServerPortKey, portWithNothingOnIt());
  auto stopped = runMCPStatusCommand(prefs_, data(), clock_);
  EXPECT_EQ(stopped.exitStatus, 0);
  EXPECT_TRUE(startsWith(stopped.text, "Stopped\nHTTP: http://127.0.0.1:")) << stopped.text;

  prefs_.setValue(kMCPServerEnabledKey, true);
  auto silent = runMCPStatusCommand(prefs_, data(), clock_);
  EXPECT_EQ(silent.exitStatus, 1);
  EXPECT_TRUE(startsWith(silent.text, "Not running — nothing answers on 127.0.0.1:"))
      << silent.text;
}

TEST_F(MCPCommandsTest, StatusOfARunningServerNeverPrintsTheToken) {
  const SystemClock clock;
  SerialQueue main("main", clock), http(kMCPTransportQueueLabel, clock);
  main.start();
  http.start();
  {
    MCPServer server(main, http, clock_, prefs_, data());
    server.start(0);
    ASSERT_TRUE(server.isListening());
    prefs_.setValue(kMCPServerEnabledKey, true);
    const std::string token = server.loadOrCreateToken();
    const std::string port = std::to_string(server.currentPort());

    auto s = runMCPStatusCommand(prefs_, data(), clock_);
    EXPECT_EQ(s.exitStatus, 0);
    EXPECT_EQ(s.text, "Running on 127.0.0.1:" + port + "\nHTTP: http://127.0.0.1:" + port +
                          "/mcp\nToken file: " + (data() / "mcp-token").string() + "\n");
    EXPECT_EQ(s.text.find(token), std::string::npos);

    // A token file changed after the start is refused by the running server.
    std::ofstream(data() / "mcp-token") << "changed\n";
    auto refused = runMCPStatusCommand(prefs_, data(), clock_);
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_TRUE(startsWith(refused.text, "Running on 127.0.0.1:" + port + ", but it refuses"))
        << refused.text;
  }
  http.shutdown();
  main.shutdown();
}

}  // namespace
}  // namespace quorel
