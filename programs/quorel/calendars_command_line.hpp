#pragma once
// The command-line words of `quorel calendars`, registered on the program's parser.

#include <CLI/CLI.hpp>
#include <string>

#include "commands.hpp"

namespace quorel {

// The words of `quorel calendars`, registered on the program's parser.
class CalendarsCommandLine {
 public:
  explicit CalendarsCommandLine(CLI::App& app);
  bool selected() const;
  int run(const CommandContext& context) const;

 private:
  CLI::App* command_ = nullptr;
  CLI::App* list_ = nullptr;
  CLI::App* add_ = nullptr;
  CLI::App* remove_ = nullptr;
  bool json_ = false;
  std::string path_;
};

}  // namespace quorel
