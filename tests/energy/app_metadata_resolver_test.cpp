#include "energy/app_metadata_resolver.hpp"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include "energy/process_display_name.hpp"

namespace quorel {
namespace {

TEST(ProcessDisplayNameTest, LabelsKnownProgramsAndHelperForms) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"Safari", "Safari"},
      {"Code", "Visual Studio Code"},
      {"Code Helper (Renderer)", "Visual Studio Code (Renderer)"},
      {"Code Helper", "Visual Studio Code"},
      {"Foo Helper (GPU)", "Foo (GPU)"},
      // No base before the marker, no parenthesis after it, or one left open: no helper form.
      {"Helper", "Helper"},
      {" Helper (GPU)", " Helper (GPU)"},
      {"Foo Helper Tool", "Foo Helper Tool"},
      {"Foo Helper (GPU", "Foo Helper (GPU"},
      {"Foo Helpers", "Foo Helpers"},
  };
  for (const auto& [name, label] : cases) {
    EXPECT_EQ(ProcessDisplayName::label(name), label) << name;
  }
}

struct FakeProcess {
  std::string name;
  std::vector<std::string> arguments;
  std::optional<std::filesystem::path> executable;
  bool kernelThread = false;
};

class FakeProcessTable final : public ProcessTable {
 public:
  std::map<ProcessId, FakeProcess> processes;
  mutable int listCalls = 0;

  std::vector<ProcessId> listPids() const override {
    ++listCalls;
    std::vector<ProcessId> pids;
    for (const auto& [pid, p] : processes) pids.push_back(pid);
    return pids;
  }
  std::optional<ProcessStat> readStat(ProcessId pid) const override {
    if (!processes.count(pid)) return std::nullopt;
    return ProcessStat{pid, 1, 0, 1, std::nullopt, 'S', processes.at(pid).kernelThread};
  }
  std::optional<std::string> readName(ProcessId pid) const override {
    if (!processes.count(pid)) return std::nullopt;
    return processes.at(pid).name;
  }
  std::optional<std::vector<std::string>> readArguments(ProcessId pid) const override {
    if (!processes.count(pid)) return std::nullopt;
    return processes.at(pid).arguments;
  }
  std::optional<std::filesystem::path> readExecutablePath(ProcessId pid) const override {
    return processes.count(pid) ? processes.at(pid).executable : std::nullopt;
  }
};

class FakeCatalog final : public ApplicationCatalog {
 public:
  std::map<std::filesystem::path, ApplicationInfo> applications;
  std::optional<ApplicationInfo> applicationFor(const std::filesystem::path& exe) const override {
    const auto it = applications.find(exe);
    return it == applications.end() ? std::nullopt : std::optional(it->second);
  }
};

constexpr const char* kNotRunning = "\nNot running now — shown from recorded energy history.";

TEST(AppMetadataResolverTest, DescribesWhatRunsUnderAName) {
  FakeProcessTable table;
  table.processes = {
      // A kernel thread by the same name is no program and must not be taken.
      {2, {"editor", {}, std::nullopt, true}},
      {10, {"editor", {"editor", "--new"}, "/opt/editor/editor"}},
      {11, {"Code", {"/usr/share/code/code"}, "/usr/share/code/code"}},
      // Found by argv[0] alone; it would also match "tool" that way, but an exact name wins.
      {12, {"Runner-main", {"/opt/Runner"}, std::nullopt}},
      {13, {"tool-x", {"tool"}, "/usr/bin/wrong"}},
      {20, {"tool", {"tool"}, "/usr/bin/tool"}},
      {21, {"relative", {"bin/relative"}, std::nullopt}},
  };
  FakeCatalog catalog;
  catalog.applications = {
      {"/opt/editor/editor", {"org.example.Editor", "Editor", "2.1"}},
      {"/usr/share/code/code", {"com.example.Code", "Code", std::nullopt}},
  };
  AppMetadataResolver resolver(table, catalog);

  const std::vector<std::pair<std::string, std::optional<std::string>>> cases = {
      {"editor", "ID  org.example.Editor\nVersion  2.1\nLocation  /opt/editor/editor"},
      {"Code", "Visual Studio Code\nID  com.example.Code\nLocation  /usr/share/code/code"},
      {"tool", "Location  /usr/bin/tool"},
      {"runner", "Location  /opt/Runner"},
      {"relative", "Location  unknown"},
      {"ghost", kNotRunning},
      {"Code Helper (Renderer)", std::string("Visual Studio Code (Renderer)") + kNotRunning},
      {"Other", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& [name, text] : cases) {
    EXPECT_EQ(resolver.describe(name), text) << name;
  }
}

TEST(AppMetadataResolverTest, KeepsTheFirstAnswerForAName) {
  FakeProcessTable table;
  FakeCatalog catalog;
  AppMetadataResolver resolver(table, catalog);
  EXPECT_EQ(resolver.describe("later"), kNotRunning);
  table.processes[30] = {"later", {}, "/usr/bin/later"};
  EXPECT_EQ(resolver.describe("later"), kNotRunning);
  EXPECT_EQ(table.listCalls, 1);
  EXPECT_EQ(resolver.describe("later "), kNotRunning);
  EXPECT_EQ(table.listCalls, 2);
}

TEST(AppMetadataResolverTest, ConcurrentCallersAgree) {
  FakeProcessTable table;
  table.processes[40] = {"busy", {}, "/usr/bin/busy"};
  FakeCatalog catalog;
  AppMetadataResolver resolver(table, catalog);
  std::vector<std::optional<std::string>> answers(4);
  std::vector<std::thread> threads;
  for (auto& answer : answers) {
    threads.emplace_back([&resolver, &answer] { answer = resolver.describe("busy"); });
  }
  for (std::thread& t : threads) t.join();
  for (const auto& answer : answers) EXPECT_EQ(answer, "Location  /usr/bin/busy");
}

}  // namespace
}  // namespace quorel
