#pragma once
// A procfs written to a temporary directory, laid out as the kernel does (`stat` with btime at the
// root; `stat`, `comm` and `cmdline` per process), with stat lines of realistic length, so that
// benchmarks read files of the size and shape the agent meets. Removed when it goes.

#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "energy/process_table.hpp"

namespace quorel::bench {

struct GeneratedProcess {
  ProcessId pid = 0;
  ProcessId ppid = 0;
  std::string name;
  // Written NUL-terminated to `cmdline`; kernel threads have none.
  std::vector<std::string> arguments;
  bool kernelThread = false;
};

class GeneratedProcTree {
 public:
  GeneratedProcTree(std::string_view label, const std::vector<GeneratedProcess>& processes) {
    std::random_device random;
    root_ = std::filesystem::temp_directory_path() /
            ("quorel-" + std::string(label) + "-" + std::to_string(random()) +
             std::to_string(random()));
    std::filesystem::create_directories(root_);
    write("stat", "cpu  10132153 290696 3084719 46828483 16683 0 25195 0 0 0\nbtime 1795445428\n");
    std::filesystem::create_symlink("1", root_ / "self");
    std::filesystem::create_directories(root_ / "sys" / "kernel");
    std::mt19937 numbers(7);
    for (const GeneratedProcess& p : processes) {
      const std::string pid = std::to_string(p.pid);
      const unsigned long flags = p.kernelThread ? 0x208040 : 0x400100;
      const auto minorFaults = numbers() % 100000;
      const auto userTicks = numbers() % 1000000;
      const auto systemTicks = numbers() % 100000;
      const auto startTicks = 24 + numbers() % 5000000;
      const std::string line =
          pid + " (" + p.name + ") S " + std::to_string(p.ppid) + " " + pid + " " + pid +
          " 34817 " + pid + " " + std::to_string(flags) + " " + std::to_string(minorFaults) +
          " 0 12 0 " + std::to_string(userTicks) + " " + std::to_string(systemTicks) +
          " 0 0 20 0 4 0 " + std::to_string(startTicks) +
          " 1249550336 41250 18446744073709551615 94274067419136 94274067439017 "
          "140728902011280 0 0 0 0 4096 134234626 0 0 0 17 1 0 0 0 0 0 94274067455024 "
          "94274067456640 94275096457216 140728902015627 140728902015647 140728902015647 "
          "140728902017003 0\n";
      std::string cmdline;
      for (const std::string& argument : p.arguments) cmdline += argument + '\0';
      write(pid + "/stat", line);
      write(pid + "/comm", p.name + "\n");
      write(pid + "/cmdline", cmdline);
    }
  }
  ~GeneratedProcTree() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }
  GeneratedProcTree(const GeneratedProcTree&) = delete;
  GeneratedProcTree& operator=(const GeneratedProcTree&) = delete;

  const std::filesystem::path& root() const { return root_; }

 private:
  void write(const std::string& relative, const std::string& content) {
    const auto path = root_ / relative;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::trunc | std::ios::binary) << content;
  }

  std::filesystem::path root_;
};

}  // namespace quorel::bench
