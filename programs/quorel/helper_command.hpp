#pragma once
// `quorel helper install | uninstall | status`: puts the privileged helper on this machine as a
// pair of systemd units with the allowed users' file, takes it off again, and shows what the
// agent's helper manager sees.
//
// Exit status: 0 done (for status: the helper answered); 1 not done: root is needed (the sudo
// command to run is printed), there is no systemd (how to run the helper by hand is printed), a
// step failed, or (status) the helper did not answer; 2 a usage error.

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "core/paths.hpp"

namespace CLI {
class App;
}

namespace quorel {

struct HelperCommandArguments {
  std::string action;  // "install", "uninstall" or "status"
  bool json = false;
  // Everything is written under this directory, and systemctl is left alone unless it is "/".
  std::filesystem::path root = "/";
  // The helper's executable as the service runs it; default: quorel-helper beside this program.
  std::optional<std::filesystem::path> helperBinary;
  // The user the helper is to serve; default: the one who ran sudo, else the caller.
  std::optional<uid_t> allowUid;
  std::filesystem::path helperSocket = "/run/quorel/helper.sock";
};

// Runs a program with the argument vector as given (no shell); its exit status, or -1.
using CommandRunner = std::function<int(const std::vector<std::string>& argv)>;
int runProgram(const std::vector<std::string>& argv);

struct HelperCommandEnvironment {
  uid_t effectiveUid = 0;
  uid_t realUid = 0;
  Environment environment;
  // Runs systemctl; unset, nothing is run (a staged tree under --root).
  CommandRunner run;
  // This program, for the sudo command that is printed.
  std::filesystem::path self;
  std::ostream* out = nullptr;
  std::ostream* err = nullptr;

  // The running process's.
  static HelperCommandEnvironment current();
};

// The files install writes, under `root`, in the order written.
std::vector<std::filesystem::path> helperInstalledFiles(const std::filesystem::path& root);
std::string helperSocketUnitText(const std::filesystem::path& socketPath);
std::string helperServiceUnitText(const std::filesystem::path& helperBinary);

int installHelper(const HelperCommandArguments& args, const HelperCommandEnvironment& env);
int uninstallHelper(const HelperCommandArguments& args, const HelperCommandEnvironment& env);
int helperStatus(const HelperCommandArguments& args, const HelperCommandEnvironment& env);

// Adds `helper` and its three subcommands to `app`; returns it, parsed when given.
CLI::App* addHelperCommand(CLI::App& app, HelperCommandArguments& args);
int runHelperCommand(HelperCommandArguments args, const CLI::App& command);

}  // namespace quorel
