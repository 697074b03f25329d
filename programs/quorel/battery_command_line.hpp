#pragma once
// The command-line words of `quorel battery`'s control subcommands, registered beside the
// existing `battery replaced`.

#include <CLI/CLI.hpp>
#include <optional>
#include <string>
#include <vector>

#include "battery_command.hpp"
#include "commands.hpp"

namespace quorel {

class BatteryControlCommands {
 public:
  // Adds status, limit, discharge, top-up, heat-protection, automation and rules to `battery`.
  explicit BatteryControlCommands(CLI::App& battery);

  // Whether one of these subcommands was given.
  bool selected() const;
  // Sends it to the running agent; returns the exit status.
  int run(const CommandContext& context) const;

 private:
  // The request the parsed words make, or the sentence saying why they make none.
  Result<BatteryCommandLine> commandLine() const;

  CLI::App* status_ = nullptr;
  CLI::App* limit_ = nullptr;
  CLI::App* discharge_ = nullptr;
  CLI::App* topUp_ = nullptr;
  CLI::App* heat_ = nullptr;
  CLI::App* automation_ = nullptr;
  CLI::App* rules_ = nullptr;
  CLI::App* rulesSet_ = nullptr;
  CLI::App* rulesClear_ = nullptr;
  bool json_ = false;
  std::string limitValue_;
  std::string switchValue_;
  std::vector<int> heatValues_;
  std::string rulesFile_;
};

}  // namespace quorel
