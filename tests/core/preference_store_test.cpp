#include <grp.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <string>

#include "core/file_preference_store.hpp"
#include "core/memory_preference_store.hpp"
#include "core/serial_queue.hpp"
#include "support/log_capture.hpp"

namespace quorel {
namespace {

namespace fs = std::filesystem;

class TempDirectory {
 public:
  TempDirectory() {
    std::string pattern = (fs::temp_directory_path() / "quorel-prefs-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
  }
  ~TempDirectory() {
    std::error_code ec;
    fs::remove_all(path_, ec);
  }
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

std::string readFile(const fs::path& p) {
  std::stringstream s;
  s << std::ifstream(p).rdbuf();
  return s.str();
}

void writeFile(const fs::path& p, const std::string& text) {
  std::ofstream(p) << text;
}

unsigned modeOf(const fs::path& p) {
  return static_cast<unsigned>(fs::status(p).permissions() & fs::perms::all);
}

// Runs `body` in a forked child, `meanwhile` here, and returns what the child found wrong (empty
// when nothing). The child leaves straight through the kernel: a sanitizer's exit hook would turn
// warnings the parent had collected before the fork into the child's exit status.
std::string inChild(
    const std::function<std::string()>& body, const std::function<void()>& meanwhile = [] {}) {
  int report[2];
  if (::pipe(report) != 0) return "no pipe to the child";
  const pid_t child = ::fork();
  if (child < 0) return "cannot fork";
  if (child == 0) {
    ::close(report[0]);
    const std::string failure = body();  // short enough for one atomic write
    const auto written = ::write(report[1], failure.data(), failure.size());
    (void)written;
    ::syscall(SYS_exit_group, 0);
  }
  ::close(report[1]);
  meanwhile();
  std::string failure;
  char buffer[256];
  for (ssize_t n; (n = ::read(report[0], buffer, sizeof buffer)) > 0;) failure.append(buffer, n);
  ::close(report[0]);
  int status = 0;
  if (::waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    return "the child did not finish: " + failure;
  }
  return failure;
}

// Runs `check` where file permissions bind. Root reads and writes through permissions, so as root
// (CI) `check` runs in a child that has dropped to the unprivileged user nobody, with `scratch`
// handed to that user; otherwise it runs here.
std::string runUnprivileged(const fs::path& scratch, const std::function<std::string()>& check) {
  if (::geteuid() != 0) return check();
  constexpr uid_t kNobody = 65534;
  constexpr gid_t kNoGroup = 65534;
  if (::chown(scratch.c_str(), kNobody, kNoGroup) != 0)
    return "cannot hand over " + scratch.string();
  return inChild([&]() -> std::string {
    const bool dropped =
        ::setgroups(0, nullptr) == 0 && ::setgid(kNoGroup) == 0 && ::setuid(kNobody) == 0;
    return dropped ? check() : "cannot drop to nobody";
  });
}

TEST(MemoryPreferenceStoreTest, StoresTypedValuesAndNotifiesOnlyOnChange) {
  MemoryPreferenceStore store;
  int calls = 0;
  const auto id = store.addObserver([&] { ++calls; });
  EXPECT_FALSE(store.boolValue("Quorel.mcpServerEnabled"));
  store.setValue("Quorel.mcpServerEnabled", true);
  store.setValue("Quorel.mcpServerPort", 8473);
  store.setValue("QuorelSettings", "{\"a\":1}");
  EXPECT_TRUE(store.boolValue("Quorel.mcpServerEnabled"));
  EXPECT_EQ(store.integerValue("Quorel.mcpServerPort"), 8473);
  EXPECT_EQ(store.dataValue("QuorelSettings"), "{\"a\":1}");
  EXPECT_EQ(calls, 3);

  store.setValue("Quorel.mcpServerPort", 8473);  // same value: nothing changed
  store.removeValue("absent");
  EXPECT_EQ(calls, 3);
  store.removeValue("Quorel.mcpServerPort");
  EXPECT_EQ(calls, 4);
  store.removeObserver(id);
  store.setValue("x", 1);
  EXPECT_EQ(calls, 4);
  // An observer may write back without deadlocking.
  store.addObserver([&] {
    if (!store.hasValue("echo")) store.setValue("echo", store.value("source").value_or(0));
  });
  store.setValue("source", 7);
  EXPECT_EQ(store.integerValue("echo"), 7);
}

class FilePreferenceStoreTest : public ::testing::Test {
 protected:
  TempDirectory temp;
  fs::path dir = temp.path() / "config" / "quorel";
  fs::path file = dir / "defaults.json";
};

TEST_F(FilePreferenceStoreTest, PersistsAcrossInstancesWithPrivateModes) {
  {
    FilePreferenceStore store(file);
    store.setValue("QuorelSettings", "{\"pollingInterval\":2}");
    store.setValue("Quorel.migration.collapsedByDefault.v1", true);
  }
  EXPECT_EQ(modeOf(dir), 0700u);
  EXPECT_EQ(modeOf(file), 0600u);

  FilePreferenceStore reopened(file);
  EXPECT_EQ(reopened.dataValue("QuorelSettings"), "{\"pollingInterval\":2}");
  EXPECT_TRUE(reopened.boolValue("Quorel.migration.collapsedByDefault.v1"));

  reopened.removeValue("QuorelSettings");
  EXPECT_FALSE(FilePreferenceStore(file).hasValue("QuorelSettings"));
  // Only the document and its lock file remain: no temporary file is left behind.
  const std::set<fs::path> entries(fs::directory_iterator{dir}, fs::directory_iterator{});
  EXPECT_EQ(entries, (std::set<fs::path>{file, file.string() + ".lock"}));
}

TEST_F(FilePreferenceStoreTest, CorruptFileIsMovedAsideWithAWarningNamingBothPaths) {
  fs::create_directories(dir);
  writeFile(file, "{\"QuorelSettings\": \"half a docu");
  testing::LogCapture logs;

  FilePreferenceStore store(file);
  EXPECT_FALSE(store.hasValue("QuorelSettings"));
  const fs::path aside = file.string() + ".corrupt";
  ASSERT_TRUE(fs::exists(aside));
  EXPECT_EQ(readFile(aside), "{\"QuorelSettings\": \"half a docu");
  EXPECT_FALSE(fs::exists(file));
  EXPECT_EQ(logs.count("preferences file " + file.string() +
                       " is not a valid JSON object — moved it aside to " + aside.string() +
                       " and started with empty preferences"),
            1u);

  // A second bad file does not overwrite the first one set aside.
  writeFile(file, "[1, 2, 3]");
  FilePreferenceStore again(file);
  EXPECT_EQ(readFile(aside), "{\"QuorelSettings\": \"half a docu");
  EXPECT_EQ(readFile(file.string() + ".corrupt-1"), "[1, 2, 3]");

  again.setValue("k", 1);
  EXPECT_EQ(nlohmann::json::parse(readFile(file)), (nlohmann::json{{"k", 1}}));
}

TEST_F(FilePreferenceStoreTest, TwoStoresOnOneFileKeepEachOthersKeysAndPollSeesOnlyTheOther) {
  FilePreferenceStore agent(file);
  FilePreferenceStore commandLine(file);
  int agentCalls = 0;
  agent.addObserver([&] { ++agentCalls; });
  agent.setValue("Quorel.mcpServerPort", 8473);
  EXPECT_EQ(agentCalls, 1);
  EXPECT_FALSE(agent.poll()) << "the agent's own write must not read as a foreign change";

  commandLine.setValue("Quorel.mcpServerEnabled", true);  // had not seen the port yet
  EXPECT_FALSE(agent.hasValue("Quorel.mcpServerEnabled"));
  EXPECT_TRUE(agent.poll());
  EXPECT_EQ(agentCalls, 2);
  EXPECT_TRUE(agent.boolValue("Quorel.mcpServerEnabled"));
  EXPECT_FALSE(agent.poll());

  // Without a poll, the agent learns of another write through its own read-modify-write.
  commandLine.setValue("QuorelSettings", "{}");
  agent.setValue("own", 1);
  EXPECT_EQ(agent.dataValue("QuorelSettings"), "{}");
  EXPECT_EQ(nlohmann::json::parse(readFile(file)),
            (nlohmann::json{{"Quorel.mcpServerPort", 8473},
                            {"Quorel.mcpServerEnabled", true},
                            {"QuorelSettings", "{}"},
                            {"own", 1}}));
  // A file deleted by hand empties the domain too.
  fs::remove(file);
  EXPECT_TRUE(agent.poll());
  EXPECT_FALSE(agent.hasValue("own"));
}

TEST_F(FilePreferenceStoreTest, WatchOnQueueFiresObserversAfterAnotherWrite) {
  const SystemClock clock;
  SerialQueue queue("test.prefs.watch", clock);
  FilePreferenceStore commandLine(file);
  std::atomic<int> calls{0};
  {
    FilePreferenceStore agent(file);
    agent.addObserver([&] {
      EXPECT_TRUE(queue.isCurrent());
      ++calls;
    });
    agent.watchOn(queue);
    queue.runPending();

    commandLine.setValue("Quorel.autoUpdatePromptAnswered", true);
    // inotify queues the event as the rename returns; the reactor needs a turn or two to see it.
    for (int i = 0; i < 100 && calls.load() == 0; ++i) queue.runPending();
    EXPECT_EQ(calls.load(), 1);
    EXPECT_TRUE(agent.boolValue("Quorel.autoUpdatePromptAnswered"));
  }
  // Once the store is gone its watch no longer reacts.
  queue.runPending();
  commandLine.setValue("later", 1);
  for (int i = 0; i < 10; ++i) queue.runPending();
  EXPECT_EQ(calls.load(), 1);
}

TEST_F(FilePreferenceStoreTest, ForkedProcessAndParentWritingTogetherLoseNothing) {
  constexpr int kWrites = 40;
  FilePreferenceStore parent(file);
  const auto write = [&](FilePreferenceStore& store, const std::string& prefix) {
    for (int i = 0; i < kWrites; ++i) store.setValue(prefix + std::to_string(i), i);
  };
  // The child writes through a store of its own, as a second program would.
  EXPECT_EQ(inChild(
                [&] {
                  FilePreferenceStore childStore(file);
                  write(childStore, "child.");
                  return std::string();
                },
                [&] { write(parent, "parent."); }),
            "");
  parent.poll();
  auto onDisk = nlohmann::json::parse(readFile(file));
  for (int i = 0; i < kWrites; ++i) {
    EXPECT_EQ(onDisk.value("child." + std::to_string(i), -1), i);
    EXPECT_EQ(onDisk.value("parent." + std::to_string(i), -1), i);
    EXPECT_EQ(parent.integerValue("child." + std::to_string(i)), i);
  }
}

TEST_F(FilePreferenceStoreTest, UnwritableDirectoryKeepsTheChangeInMemoryAndSaysSo) {
  const auto check = [&]() -> std::string {
    fs::create_directories(dir);
    fs::permissions(dir, fs::perms::owner_read | fs::perms::owner_exec);
    testing::LogCapture logs;
    {
      FilePreferenceStore store(file);
      store.setValue("a", 1);
      if (store.integerValue("a") != 1) return "the change was not kept in memory";
    }
    fs::permissions(dir, fs::perms::owner_all);
    if (fs::exists(file)) return "the file was written after all";
    for (const auto& message : logs.messages()) {
      if (message.rfind("cannot write preferences to " + file.string(), 0) == 0) return "";
    }
    return "nothing said the preferences could not be written";
  };
  EXPECT_EQ(runUnprivileged(temp.path(), check), "");
}

TEST_F(FilePreferenceStoreTest, UnreadableFileIsNeitherReplacedNorTakenForEmpty) {
  const auto check = [&]() -> std::string {
    fs::create_directories(dir);
    writeFile(file, "{\"kept\": true}");
    fs::permissions(file, fs::perms::none);
    {
      FilePreferenceStore store(file);
      store.setValue("a", 1);
      if (store.integerValue("a") != 1) return "the change was not kept in memory";
    }
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);
    const std::string text = readFile(file);
    return nlohmann::json::parse(text) == nlohmann::json{{"kept", true}} ? "" : "replaced: " + text;
  };
  EXPECT_EQ(runUnprivileged(temp.path(), check), "");
}

}  // namespace
}  // namespace quorel
