#include "platform/linux/linux_procfs_process_table.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "sysfs_tree.hpp"

namespace quorel {
namespace {

using namespace std::string_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::int64_t kBootTime_s = 1'795'445'428;
// Not the usual 100, so that a rate taken from the system instead of the injected one shows.
constexpr long kTicksPerSecond = 250;
// PF_KTHREAD among kthreadd's other flags, and a user process's flags (0x400100) whose bits lie
// next to it.
constexpr std::uint64_t kKernelFlags = 0x208040;
constexpr std::uint64_t kUserFlags = 0x400100;

struct StatFields {
  std::string name;
  char state = 'S';
  ProcessId ppid = 1;
  std::uint64_t flags = kUserFlags;
  std::uint64_t utime = 0;
  std::uint64_t stime = 0;
  std::uint64_t startTicks = 0;
};

// A stat line laid out as the kernel writes it, all 52 fields, with values that differ from the
// ones under test in the neighbouring fields (cutime, cstime, vsize...) so that an off-by-one
// field count reads a wrong number.
std::string statLine(ProcessId pid, const StatFields& f) {
  return std::to_string(pid) + " (" + f.name + ") " + f.state + " " + std::to_string(f.ppid) + " " +
         std::to_string(pid) + " " + std::to_string(pid) + " 0 -1 " + std::to_string(f.flags) +
         " 1234 5678 9 10 " + std::to_string(f.utime) + " " + std::to_string(f.stime) +
         " 777 888 20 0 3 0 " + std::to_string(f.startTicks) +
         " 3133440 380 18446744073709551615 94274067419136 94274067439017 140728902011280 0 0 0 "
         "0 0 0 0 0 0 17 1 0 0 0 0 0 94274067455024 94274067456640 94275096457216 "
         "140728902015627 140728902015647 140728902015647 140728902017003 0\n";
}

class ProcTree {
 public:
  ProcTree() {
    tree_.write("stat",
                "cpu  10132153 290696 3084719 46828483 16683 0 25195 0 0 0\n"
                "cpu0 1393280 32966 572056 13343292 6130 0 17875 0 0 0\n"
                "intr 199292 0 0\nctxt 1990473\nbtime " +
                    std::to_string(kBootTime_s) + "\nprocesses 2915\nprocs_running 2\n");
    // What else lives at the top of procfs, none of it a process.
    tree_.write("sys/kernel/pid_max", "4194304\n");
    tree_.write("12abc/stat", statLine(12, {.name = "not a pid"}));
    tree_.write("00/stat", statLine(0, {.name = "zero"}));
    std::filesystem::create_symlink("4242", root() / "self");
    std::filesystem::create_symlink("4242/task/4242", root() / "thread-self");
  }

  const std::filesystem::path& root() const { return tree_.root(); }

  void process(ProcessId pid, const StatFields& fields, const std::string& cmdline,
               const std::string& exe = {}) const {
    const auto dir = std::to_string(pid);
    tree_.write(dir + "/stat", statLine(pid, fields));
    tree_.write(dir + "/comm", fields.name.substr(0, 15) + "\n");
    tree_.write(dir + "/cmdline", cmdline);
    if (!exe.empty()) std::filesystem::create_symlink(exe, root() / dir / "exe");
  }

  void write(const std::string& relative, const std::string& content) const {
    tree_.write(relative, content);
  }
  void remove(const std::string& relative) const { tree_.remove(relative); }

 private:
  testing::SysfsTree tree_;
};

// The descriptors this process holds, as the kernel lists them (the listing's own included).
std::vector<int> openDescriptors() {
  std::vector<int> fds;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    fds.push_back(std::stoi(entry.path().filename().string()));
  }
  return fds;
}
std::size_t openDescriptorCount() {
  return openDescriptors().size();
}

// One sampler pass: every listed process's CPU time in ticks of kTicksPerSecond (4 ms).
std::uint64_t passTicks(const LinuxProcfsProcessTable& table) {
  std::uint64_t total_ns = 0;
  for (ProcessId pid : table.listPids()) {
    if (const auto stat = table.readStat(pid)) total_ns += stat->cpuTime_ns;
  }
  return total_ns / 4'000'000;
}

class LinuxProcfsProcessTableTest : public ::testing::Test {
 protected:
  LinuxProcfsProcessTableTest() {
    tree.process(1, {.name = "systemd", .ppid = 0, .utime = 300, .stime = 200},
                 "/sbin/init\0splash\0"s, "/usr/lib/systemd/systemd");
    tree.process(2, {.name = "kthreadd", .ppid = 0, .flags = kKernelFlags}, "");
    tree.process(15, {"kworker/0:1-events", 'I', 2, kKernelFlags, 0, 41}, "");
    tree.process(4242, {"my prog) (x", 'R', 1, kUserFlags, 1000, 251, 322698},
                 "node\0/opt/tool/cli.js\0--yes\0"s, "/usr/bin/node");
    tree.process(4300, {.name = "defunct", .state = 'Z', .ppid = 4242, .utime = 7}, "");
  }

  ProcTree tree;
};

TEST_F(LinuxProcfsProcessTableTest, ListsOnlyNumericEntriesInOrder) {
  tree.process(100000, {.name = "late"}, "late\0"s);
  const LinuxProcfsProcessTable table(tree.root(), kTicksPerSecond);
  EXPECT_THAT(table.listPids(), ElementsAre(1, 2, 15, 4242, 4300, 100000));

  const LinuxProcfsProcessTable missing(tree.root() / "absent", kTicksPerSecond);
  EXPECT_THAT(missing.listPids(), IsEmpty());
}

TEST_F(LinuxProcfsProcessTableTest, ReadsStatFieldsPastANameWithSpacesAndParentheses) {
  const LinuxProcfsProcessTable table(tree.root(), kTicksPerSecond);
  const auto stat = table.readStat(4242);
  ASSERT_TRUE(stat.has_value());
  EXPECT_EQ(stat->pid, 4242);
  EXPECT_EQ(stat->ppid, 1);
  EXPECT_EQ(stat->state, 'R');
  EXPECT_FALSE(stat->isKernelThread);
  // (1000 + 251) ticks at 250 per second: 5.004 s, exactly, with the odd tick kept.
  EXPECT_EQ(stat->cpuTime_ns, 5'004'000'000u);
  EXPECT_EQ(stat->startTicks, 322698u);
  // 322698 ticks after boot at 250 per second: 1290.792 s.
  const auto expected = TimePoint{std::chrono::seconds(kBootTime_s)} + std::chrono::seconds(1290) +
                        std::chrono::milliseconds(792);
  EXPECT_EQ(stat->startTime, std::optional<TimePoint>(expected));
}

TEST_F(LinuxProcfsProcessTableTest, KnowsKernelThreadsByFlagOrByKthreaddAsParent) {
  // A kernel thread whose flags lack the bit is still known by its parent, kthreadd.
  tree.process(16, {.name = "ksoftirqd/0", .ppid = 2, .flags = 0, .stime = 9}, "");
  // A kernel thread that kthreadd did not start (the idle injection threads are one kind).
  tree.process(17, {.name = "idle_inject/0", .ppid = 0, .flags = kKernelFlags}, "");
  const LinuxProcfsProcessTable table(tree.root(), kTicksPerSecond);
  table.listPids();
  for (ProcessId pid : {2, 15, 16, 17}) {
    const auto stat = table.readStat(pid);
    ASSERT_TRUE(stat.has_value()) << pid;
    EXPECT_TRUE(stat->isKernelThread) << pid;
  }
  // Their CPU time is read all the same: it counts in the machine's total.
  EXPECT_EQ(table.readStat(15)->cpuTime_ns, 164'000'000u);
  for (ProcessId pid : {1, 4242, 4300}) EXPECT_FALSE(table.readStat(pid)->isKernelThread) << pid;
  EXPECT_THAT(*table.readArguments(15), IsEmpty());
  EXPECT_EQ(table.readExecutablePath(15), std::nullopt);
}

TEST_F(LinuxProcfsProcessTableTest, InAPidNamespacePidTwoIsAnOrdinaryParent) {
  // In a container kernel threads are invisible and pid 2 may be the user's shell.
  tree.process(2, {.name = "bash", .ppid = 1}, "bash\0"s);
  tree.process(30, {.name = "agent", .ppid = 2, .utime = 5}, "agent\0"s);
  const LinuxProcfsProcessTable table(tree.root(), kTicksPerSecond);
  table.listPids();
  EXPECT_FALSE(table.readStat(2)->isKernelThread);
  EXPECT_FALSE(table.readStat(30)->isKernelThread);
  EXPECT_TRUE(table.readStat(15)->isKernelThread);  // the flag still speaks for itself
}

TEST_F(LinuxProcfsProcessTableTest, AProcessThatVanishedYieldsNothingFromEveryRead) {
  tree.remove("4242/stat");  // gone between the listing and the read of its stat
  tree.remove("4300");       // gone altogether
  const LinuxProcfsProcessTable table(tree.root(), kTicksPerSecond);
  EXPECT_EQ(table.readStat(4242), std::nullopt);
  for (ProcessId pid : {4300, 99999, 0, -1}) {
    EXPECT_EQ(table.readStat(pid), std::nullopt) << pid;
    EXPECT_EQ(table.readName(pid), std::nullopt) << pid;
    EXPECT_EQ(table.readArguments(pid), std::nullopt) << pid;
    EXPECT_EQ(table.readExecutablePath(pid), std::nullopt) << pid;
  }
}

TEST_F(LinuxProcfsProcessTableTest, RefusesStatLinesThatAreCutShortOrGarbled) {
  const std::string good = statLine(700, {.name = "ok", .utime = 3});
  const auto cutAfterField = [&](int fields) {
    // Field 2 ends at the ')'; count spaces from there.
    std::size_t pos = good.rfind(')') + 1;
    for (int field = 2; field < fields; ++field) pos = good.find(' ', pos + 1);
    return good.substr(0, pos);
  };
  const std::vector<std::string> broken = {
      "",
      "700 (no closing parenthesis S 1 700 700 0 -1 0 0 0 0 0 1 1 0 0 20 0 1 0 5 0 0",
      cutAfterField(15),  // stops after stime
      cutAfterField(21),  // stops right before starttime
      statLine(701, {.name = "another pid"}),
      "abc (x) S 1 700 700 0 -1 0 0 0 0 0 1 1 0 0 20 0 1 0 5 0 0\n",
      "700 (x) S 1 700 700 0 -1 0 0 0 0 0 -1 1 0 0 20 0 1 0 5 0 0\n",  // negative utime
      "700 (x) S 1 700 700 0 -1 0 0 0 0 0 1x 1 0 0 20 0 1 0 5 0 0\n",  // not a number
      "700 (x) S -3 700 700 0 -1 0 0 0 0 0 1 1 0 0 20 0 1 0 5 0 0\n",  // negative ppid
      "700 (x) SS 1 700 700 0 -1 0 0 0 0 0 1 1 0 0 20 0 1 0 5 0 0\n",  // state of two letters
      std::string("700 (x) S 1 700\0 700 0 -1 0 0 0 0 0 1 1 0 0 20 0 1 0 5 0 0\n", 60),
  };
  const LinuxProcfsProcessTable table(tree.root(), kTicksPerSecond);
  for (const auto& line : broken) {
    tree.write("700/stat", line);
    EXPECT_EQ(table.readStat(700), std::nullopt) << ::testing::PrintToString(line);
  }
  tree.write("700/stat", cutAfterField(22));  // the fields past starttime are not needed
  EXPECT_EQ(table.readStat(700)->cpuTime_ns, 12'000'000u);
  // Only a hand-made tree has a stat line longer than a page; it is read whole all the same.
  const std::string longName(6000, ')');
  tree.write("701/stat", statLine(701, {.name = longName, .ppid = 4242, .stime = 250}));
  const auto stat = table.readStat(701);
  ASSERT_TRUE(stat.has_value());
  EXPECT_EQ(stat->ppid, 4242);
  EXPECT_EQ(stat->cpuTime_ns, 1'000'000'000u);
}

TEST_F(LinuxProcfsProcessTableTest, WithoutBootTimeTheStartIsAbsentUntilItAppears) {
  tree.write("stat", "cpu  1 2 3 4\nintr 5\n");
  const LinuxProcfsProcessTable table(tree.root(), kTicksPerSecond);
  auto stat = table.readStat(4242);
  ASSERT_TRUE(stat.has_value());
  EXPECT_EQ(stat->startTime, std::nullopt);
  EXPECT_EQ(stat->startTicks, 322698u);  // the identity of the process does not need it
  EXPECT_EQ(stat->cpuTime_ns, 5'004'000'000u);

  tree.write("stat", "cpu  1 2 3 4\nbtime 1000\n");
  table.listPids();
  EXPECT_EQ(table.bootTime_s(), std::optional<std::int64_t>(1000));
  EXPECT_EQ(table.readStat(4242)->startTime,
            TimePoint{std::chrono::seconds(1000) + std::chrono::milliseconds(1'290'792)});
  // Once known it is kept: the machine booted once.
  tree.write("stat", "btime 5\n");
  table.listPids();
  EXPECT_EQ(table.bootTime_s(), std::optional<std::int64_t>(1000));
}

TEST_F(LinuxProcfsProcessTableTest, ReadsNamesArgumentsAndExecutablesOnDemand) {
  tree.write("4242/comm", "caf\xE9 \xFF\n");
  tree.write("4243/cmdline", "python3\0-m\0mlx_lm.\xC0server\0\0\0"s);
  tree.write("4244/cmdline", "nginx: worker process");
  std::filesystem::create_symlink("/usr/lib/firefox/firefox (deleted)", tree.root() / "4243/exe");
  const LinuxProcfsProcessTable table(tree.root(), kTicksPerSecond);

  EXPECT_EQ(table.readName(1), "systemd");
  EXPECT_EQ(table.readName(4242), "caf\uFFFD \uFFFD");
  EXPECT_THAT(*table.readArguments(4242), ElementsAre("node", "/opt/tool/cli.js", "--yes"));
  EXPECT_THAT(*table.readArguments(4243), ElementsAre("python3", "-m", "mlx_lm.\uFFFDserver"));
  EXPECT_THAT(*table.readArguments(4244), ElementsAre("nginx: worker process"));
  EXPECT_EQ(table.readExecutablePath(4242), std::filesystem::path("/usr/bin/node"));
  EXPECT_EQ(table.readExecutablePath(4243), std::filesystem::path("/usr/lib/firefox/firefox"));
}

TEST_F(LinuxProcfsProcessTableTest, KeptDescriptorsFollowTheListingAndCloseWithTheTable) {
  const std::size_t before = openDescriptorCount();
  {
    const LinuxProcfsProcessTable table(tree.root(), kTicksPerSecond, StatDescriptors::keepOpen);
    // 500 + 0 + 41 + 1251 + 7: the kernel thread's 41 count in the total.
    EXPECT_EQ(passTicks(table), 1799u);
    EXPECT_EQ(openDescriptorCount(), before + 5);
    // Rewritten in place, as procfs renders lines afresh: read through the kept descriptor.
    tree.process(4242, {"my prog) (x", 'R', 1, kUserFlags, 1500, 251, 322698}, "node\0"s);
    EXPECT_EQ(passTicks(table), 2299u);
    EXPECT_EQ(openDescriptorCount(), before + 5);

    tree.remove("4300");  // ended: its descriptor closes in the first pass not to list it
    EXPECT_EQ(passTicks(table), 2292u);
    EXPECT_EQ(openDescriptorCount(), before + 4);

    // Pid 15 given to a new process: another start, another owner, no longer a kernel thread.
    tree.process(15, {"worker", 'R', 1, kUserFlags, 3, 0, 999'999}, "worker\0"s);
    const auto reused = table.readStat(15);
    ASSERT_TRUE(reused.has_value());
    EXPECT_EQ(reused->startTicks, 999'999u);
    EXPECT_EQ(reused->ppid, 1);
    EXPECT_FALSE(reused->isKernelThread);
    EXPECT_EQ(openDescriptorCount(), before + 4);

    // A stat that reads nothing belongs to a process that has just ended.
    tree.write("4242/stat", "");
    EXPECT_EQ(table.readStat(4242), std::nullopt);
    EXPECT_EQ(openDescriptorCount(), before + 3);
  }
  EXPECT_EQ(openDescriptorCount(), before);
}

TEST_F(LinuxProcfsProcessTableTest, OnPlainFilesAReplacedStatIsReadAfresh) {
  // A plain file replaced under a kept descriptor would still be read through it.
  const LinuxProcfsProcessTable table(tree.root(), kTicksPerSecond);
  EXPECT_EQ(table.readStat(4242)->cpuTime_ns, 5'004'000'000u);
  tree.remove("4242");
  tree.process(4242, {.name = "successor", .utime = 25, .startTicks = 400'000}, "successor\0"s);
  const auto stat = table.readStat(4242);
  ASSERT_TRUE(stat.has_value());
  EXPECT_EQ(stat->startTicks, 400'000u);
  EXPECT_EQ(stat->cpuTime_ns, 100'000'000u);
}

// Built only without sanitizers, whose runtimes need descriptors of their own. The limit is
// lowered in a process of its own, the death test's.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(LinuxProcfsProcessTableTest, RunningOutOfDescriptorsFallsBackToReopeningAndLogsOnce) {
  for (ProcessId pid = 5000; pid < 5060; ++pid) {
    tree.process(pid, {.name = "w", .utime = 1, .startTicks = 9}, "w\0"s);
  }
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto run = [&] {
    testing::LogCapture logs;
    const LinuxProcfsProcessTable table(tree.root(), kTicksPerSecond, StatDescriptors::keepOpen);
    // About twenty free below the limit (the death test's own, numbered high, stay open).
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = static_cast<rlim_t>(openDescriptorCount() + 20);
    ::setrlimit(RLIMIT_NOFILE, &limit);
    bool ok = true;
    for (int pass = 0; pass < 3; ++pass) ok = ok && passTicks(table) == 1799u + 60u;
    const auto messages = logs.messages("ProcessTable");
    ok = ok && messages.size() == 1 && messages[0].rfind("out of file descriptors", 0) == 0;
    std::exit(ok ? 0 : 1);
  };
  EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "");
}
#endif

// The layouts above are written from the kernel's; this holds them to the real thing.
TEST(LinuxProcfsProcessTableOnThisMachineTest, ReadsItsOwnProcess) {
  const LinuxProcfsProcessTable table;
  const auto pids = table.listPids();
  EXPECT_TRUE(std::binary_search(pids.begin(), pids.end(), ::getpid()));
  const auto stat = table.readStat(::getpid());
  ASSERT_TRUE(stat.has_value());
  EXPECT_EQ(stat->ppid, ::getppid());
  EXPECT_EQ(stat->state, 'R');
  EXPECT_FALSE(stat->isKernelThread);
  ASSERT_TRUE(stat->startTime.has_value());
  const double age_s = secondsBetween(*stat->startTime, SystemClock().now());
  // The boot time has whole seconds only, so the start can seem up to a second in the future.
  EXPECT_GT(age_s, -1.5);
  EXPECT_LT(age_s, 3600.0);
  const auto arguments = table.readArguments(::getpid());
  ASSERT_TRUE(arguments.has_value() && !arguments->empty());
  EXPECT_EQ(table.readExecutablePath(::getpid()), std::filesystem::read_symlink("/proc/self/exe"));
  if (const auto kthreadd = table.readStat(2); kthreadd && table.readName(2) == "kthreadd") {
    EXPECT_TRUE(kthreadd->isKernelThread);
  }
}

TEST(LinuxProcfsProcessTableOnThisMachineTest, AKeptDescriptorClosesWhenItsProcessEnds) {
  const LinuxProcfsProcessTable table;
  ASSERT_TRUE(table.keepsDescriptorsOpen()) << "/proc is procfs";
  int gate[2];
  ASSERT_EQ(::pipe(gate), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::close(gate[1]);
    char byte;
    (void)!::read(gate[0], &byte, 1);  // until the parent closes its end
    ::_exit(0);
  }
  ::close(gate[0]);
  const std::size_t before = openDescriptorCount() - 1;  // less the end closed below
  ASSERT_TRUE(table.readStat(child).has_value());
  const auto again = table.readStat(child);
  ASSERT_TRUE(again.has_value());
  EXPECT_EQ(again->ppid, ::getpid());
  EXPECT_EQ(openDescriptorCount(), before + 2);

  ::close(gate[1]);
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  // The kept descriptor now reads ESRCH; the pid is gone from the listing as well.
  EXPECT_EQ(table.readStat(child), std::nullopt);
  EXPECT_EQ(openDescriptorCount(), before);
}

}  // namespace
}  // namespace quorel
