#include "programs/quorel/helper_command.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "control/helper_service_controller.hpp"

namespace quorel {
namespace {

namespace fs = std::filesystem;

class HelperInstallTest : public ::testing::Test {
 protected:
  HelperInstallTest() {
    std::random_device random;
    root = fs::temp_directory_path() / ("quorel-install-" + std::to_string(random()));
    fs::create_directories(root / "run/systemd/system");
    fs::create_directories(root / "opt/bin");
    std::ofstream(helperBinary()) << "#!/bin/true\n";
    args.root = root;
    args.helperBinary = helperBinary();
    args.helperSocket = root / "helper.sock";
    env.effectiveUid = 0;
    env.realUid = 0;
    env.environment = [this](const std::string& name) -> std::optional<std::string> {
      auto it = variables.find(name);
      return it == variables.end() ? std::nullopt : std::optional(it->second);
    };
    env.run = [this](const std::vector<std::string>& argv) {
      commands.push_back(argv);
      return 0;
    };
    env.self = "/usr/bin/quorel";
    env.out = &out;
    env.err = &err;
  }
  ~HelperInstallTest() override { fs::remove_all(root); }

  fs::path helperBinary() const { return root / "opt/bin/quorel-helper"; }
  // Every regular file under the root, but the ones the fixture made.
  std::set<fs::path> files() const {
    std::set<fs::path> found;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
      if (entry.is_regular_file() && entry.path() != helperBinary()) found.insert(entry.path());
    }
    return found;
  }
  static std::string read(const fs::path& file) {
    std::ifstream in(file);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  fs::path root;
  HelperCommandArguments args;
  HelperCommandEnvironment env;
  std::map<std::string, std::string> variables{{"SUDO_UID", "1000"}};
  std::vector<std::vector<std::string>> commands;
  std::ostringstream out, err;
};

TEST_F(HelperInstallTest, InstallWritesExactlyItsFilesAndStartsTheSocket) {
  ASSERT_EQ(installHelper(args, env), 0) << err.str();
  const auto written = helperInstalledFiles(root);
  EXPECT_EQ(files(), std::set<fs::path>(written.begin(), written.end()));

  const std::string socketUnit = read(written[0]);
  EXPECT_NE(socketUnit.find("ListenStream=" + args.helperSocket.string() + "\n"),
            std::string::npos);
  EXPECT_NE(socketUnit.find("SocketMode=0666\n"), std::string::npos);
  const std::string serviceUnit = read(written[1]);
  EXPECT_NE(serviceUnit.find("ExecStart=" + helperBinary().string() +
                             " --allow-file /etc/quorel/helper-allowed-uids\n"),
            std::string::npos);
  for (const char* line : {"NoNewPrivileges=yes", "ProtectSystem=strict", "PrivateNetwork=yes",
                           "RestrictAddressFamilies=AF_UNIX", "ReadWritePaths=/var/lib/quorel "}) {
    EXPECT_NE(serviceUnit.find(line), std::string::npos) << line;
  }
  EXPECT_EQ(serviceUnit.find("ProtectKernelTunables=yes"), std::string::npos)
      << "it would make the battery's attributes read-only";
  EXPECT_EQ(parseAllowedUids(read(written[2])), std::vector<uid_t>{1000});
  EXPECT_EQ(fs::status(written[0]).permissions() & fs::perms::all, static_cast<fs::perms>(0644));

  using Argv = std::vector<std::string>;
  EXPECT_EQ(commands, (std::vector<Argv>{{"systemctl", "daemon-reload"},
                                         {"systemctl", "enable", "--now", "quorel-helper.socket"},
                                         {"systemctl", "try-restart", "quorel-helper.service"}}));

  // Installing again for another user keeps the first one.
  args.allowUid = 1001;
  ASSERT_EQ(installHelper(args, env), 0);
  EXPECT_EQ(parseAllowedUids(read(written[2])), (std::vector<uid_t>{1000, 1001}));
  EXPECT_EQ(files().size(), 3u) << "no temporary file left behind";
}

TEST_F(HelperInstallTest, InstallRefusesWithoutRootSystemdOrAHelperAndWritesNothing) {
  struct Case {
    const char* name;
    std::function<void()> arrange;
    std::string says;
  };
  const Case cases[] = {
      {"not root",
       [&] {
         args.root = "/";
         env.effectiveUid = env.realUid = 1000;
       },
       "Run:\n  sudo /usr/bin/quorel helper install\n"},
      {"no systemd", [&] { fs::remove_all(root / "run"); },
       "  sudo " + helperBinary().string() + " --allow-uid 1000\n"},
      {"no helper", [&] { args.helperBinary = root / "missing"; }, "--helper-binary PATH"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto saved = std::make_tuple(args, env.effectiveUid, env.realUid);
    fs::create_directories(root / "run/systemd/system");
    out.str("");
    err.str("");
    c.arrange();
    EXPECT_EQ(installHelper(args, env), 1);
    EXPECT_NE((out.str() + err.str()).find(c.says), std::string::npos) << out.str() << err.str();
    EXPECT_TRUE(files().empty());
    EXPECT_TRUE(commands.empty());
    std::tie(args, env.effectiveUid, env.realUid) = saved;
  }
}

// A helper that answers one request, as the installed one would answer the uninstaller.
class OneAnswerHelper {
 public:
  explicit OneAnswerHelper(const fs::path& path) {
    listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(listener_, 1), 0);
    thread_ = std::thread([this] {
      const int fd = ::accept(listener_, nullptr, nullptr);
      if (fd < 0) return;
      char buffer[4096];
      const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
      if (n > 0) request = std::string(buffer, static_cast<std::size_t>(n));
      const std::string answer = R"({"jsonrpc":"2.0","id":1,"result":true})"
                                 "\n";
      (void)!::send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
      ::close(fd);
    });
  }
  ~OneAnswerHelper() {
    ::shutdown(listener_, SHUT_RDWR);
    if (thread_.joinable()) thread_.join();
    ::close(listener_);
  }
  // What it was asked, once it has answered.
  std::string received() {
    thread_.join();
    return request;
  }

 private:
  std::string request;
  int listener_ = -1;
  std::thread thread_;
};

TEST_F(HelperInstallTest, UninstallResetsTheBatteryThenRemovesExactlyWhatInstallWrote) {
  std::ofstream(root / "unrelated.conf") << "keep\n";
  ASSERT_EQ(installHelper(args, env), 0);
  std::ofstream(root / "etc/systemd/system/other.service") << "[Unit]\n";
  commands.clear();
  OneAnswerHelper helper(args.helperSocket);
  ASSERT_EQ(uninstallHelper(args, env), 0) << err.str();
  EXPECT_NE(helper.received().find(R"("method":"resetAll")"), std::string::npos);
  fs::remove(args.helperSocket);
  EXPECT_EQ(files(), (std::set<fs::path>{root / "unrelated.conf",
                                         root / "etc/systemd/system/other.service"}));
  EXPECT_FALSE(fs::exists(root / "etc/quorel")) << "its own directory goes once empty";
  using Argv = std::vector<std::string>;
  EXPECT_EQ(commands, (std::vector<Argv>{{"systemctl", "disable", "--now", "quorel-helper.socket",
                                          "quorel-helper.service"},
                                         {"systemctl", "daemon-reload"}}));
  EXPECT_TRUE(err.str().empty()) << err.str();

  // Nothing left to remove is no failure.
  out.str("");
  EXPECT_EQ(uninstallHelper(args, env), 0);
  EXPECT_NE(out.str().find("was not installed"), std::string::npos);
}

}  // namespace
}  // namespace quorel
