#include "calendars_command_line.hpp"

#include <iostream>

#include "calendars_command.hpp"

namespace quorel {

namespace fs = std::filesystem;

CalendarsCommandLine::CalendarsCommandLine(CLI::App& app) {
  command_ = app.add_subcommand(
      "calendars",
      "The calendars the calendar prediction and smart top-off read; alone, lists them (e.g. "
      "calendars add ~/calendars/work.ics)");
  command_->require_subcommand(0, 1);
  const char* jsonHelp =
      "Print one JSON object: authorization and sources (path, origin, kind, readable, files, "
      "events_next_24h, problem)";
  command_->add_flag("--json", json_, jsonHelp);
  list_ = command_->add_subcommand(
      "list",
      "Every calendar found or listed, whether it can be read, its events in the next 24 h");
  list_->add_flag("--json", json_, jsonHelp);
  add_ = command_->add_subcommand(
      "add", "List one more .ics file or folder of them (e.g. calendars add ~/work.ics)");
  add_->add_option("path", path_, "An .ics file, or a folder read to three levels down")
      ->required();
  remove_ = command_->add_subcommand(
      "remove", "Take a file or folder off the list (e.g. calendars remove ~/work.ics)");
  remove_->add_option("path", path_, "The path as calendars list shows it")->required();
}

bool CalendarsCommandLine::selected() const {
  return command_->parsed();
}

int CalendarsCommandLine::run(const CommandContext& context) const {
  quietLogging();
  const auto paths = resolvePaths(context);
  if (!paths) return 2;
  CalendarsCommandArguments arguments;
  if (add_->parsed()) arguments.action = "add";
  if (remove_->parsed()) arguments.action = "remove";
  if (!path_.empty()) arguments.path = path_;
  arguments.json = json_;
  std::error_code ec;
  CalendarsCommandEnvironment environment{
      .preferencesFile = paths->preferencesFile(),
      .roots = CalendarRoots::fromEnvironment(ProcessEnvironment),
      .workingDirectory = fs::current_path(ec)};
  SystemClock clock;
  const auto result = runCalendarsCommand(arguments, environment, clock);
  std::cout << result.output;
  if (!result.error.empty()) std::cerr << result.error << "\n";
  return result.exitStatus;
}

}  // namespace quorel
