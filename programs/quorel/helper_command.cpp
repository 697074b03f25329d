#include "helper_command.hpp"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <iostream>

#include "control/helper_client.hpp"
#include "control/helper_manager.hpp"
#include "platform/linux/systemd_helper_service_controller.hpp"

extern char** environ;

namespace quorel {

namespace {

constexpr const char* kSystemctl = "systemctl";
constexpr Seconds kResetWait{5};

std::filesystem::path under(const std::filesystem::path& root, const std::filesystem::path& path) {
  return root / path.relative_path();
}

std::optional<uid_t> parseUid(const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  std::uint32_t value = 0;
  const auto [end, ec] = std::from_chars(text->data(), text->data() + text->size(), value);
  if (ec != std::errc() || end != text->data() + text->size()) return std::nullopt;
  return static_cast<uid_t>(value);
}

// The user to allow: named, else the one sudo ran this for, else the caller unless that is root.
std::optional<uid_t> invokingUser(const HelperCommandArguments& args,
                                  const HelperCommandEnvironment& env) {
  if (args.allowUid) return args.allowUid;
  if (env.effectiveUid == 0 && env.environment) {
    if (auto sudo = parseUid(env.environment("SUDO_UID")); sudo && *sudo != 0) return sudo;
  }
  if (env.realUid != 0) return env.realUid;
  return std::nullopt;
}

// Written beside the target and renamed over it, so that systemd never reads half a unit.
bool writeFile(const std::filesystem::path& file, const std::string& text, std::ostream& err) {
  std::error_code ec;
  std::filesystem::create_directories(file.parent_path(), ec);
  const auto temporary = file.string() + ".tmp";
  {
    std::ofstream out(temporary, std::ios::trunc);
    out << text;
    if (!out.flush()) {
      err << "quorel: cannot write " << file.string() << ": " << std::strerror(errno) << "\n";
      return false;
    }
  }
  std::filesystem::permissions(temporary, static_cast<std::filesystem::perms>(0644), ec);
  if (std::rename(temporary.c_str(), file.c_str()) != 0) {
    err << "quorel: cannot write " << file.string() << ": " << std::strerror(errno) << "\n";
    std::filesystem::remove(temporary, ec);
    return false;
  }
  return true;
}

bool runAll(const std::vector<std::vector<std::string>>& commands,
            const HelperCommandEnvironment& env) {
  for (const auto& argv : commands) {
    const int status = env.run(argv);
    if (status != 0) {
      std::string line;
      for (const auto& word : argv) line += (line.empty() ? "" : " ") + word;
      *env.err << "quorel: `" << line << "` failed (exit status " << status << ").\n";
      return false;
    }
  }
  return true;
}

bool needsRoot(const HelperCommandArguments& args, const HelperCommandEnvironment& env,
               const char* verb) {
  if (env.effectiveUid == 0 || args.root != "/") return false;
  *env.err << "quorel: " << (std::string(verb) == "install" ? "installing" : "removing")
           << " the battery helper needs root. Run:\n  sudo " << env.self.string() << " helper "
           << verb << "\n";
  return true;
}

std::filesystem::path helperBinaryFor(const HelperCommandArguments& args,
                                      const HelperCommandEnvironment& env) {
  if (args.helperBinary) return std::filesystem::absolute(*args.helperBinary);
  return env.self.parent_path() / "quorel-helper";
}

void explainNoSystemd(const std::filesystem::path& helperBinary, std::optional<uid_t> uid,
                      std::ostream& out) {
  out << "This system doesn't run systemd, so the battery helper can't be installed as a "
         "service.\nRun it by hand as root instead, and leave it running:\n  sudo "
      << helperBinary.string();
  if (uid) out << " --allow-uid " << *uid;
  out << "\n";
}

}  // namespace

int runProgram(const std::vector<std::string>& argv) {
  if (argv.empty()) return -1;
  // Run as root: a bare name is looked for in the system's own directories only, never along a
  // PATH the caller chose.
  std::string program = argv.front();
  if (program.find('/') == std::string::npos) {
    std::string found;
    for (const char* dir : {"/usr/bin/", "/bin/", "/usr/sbin/", "/sbin/"}) {
      if (::access((dir + program).c_str(), X_OK) == 0) {
        found = dir + program;
        break;
      }
    }
    if (found.empty()) return -1;
    program = std::move(found);
  }
  std::vector<char*> words;
  for (const auto& word : argv) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  pid_t pid = 0;
  if (posix_spawn(&pid, program.c_str(), nullptr, nullptr, words.data(), environ) != 0) return -1;
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

HelperCommandEnvironment HelperCommandEnvironment::current() {
  HelperCommandEnvironment env;
  env.effectiveUid = ::geteuid();
  env.realUid = ::getuid();
  env.environment = ProcessEnvironment;
  env.run = runProgram;
  std::error_code ec;
  env.self = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) env.self = "quorel";
  env.out = &std::cout;
  env.err = &std::cerr;
  return env;
}

std::vector<std::filesystem::path> helperInstalledFiles(const std::filesystem::path& root) {
  return {under(root, "/etc/systemd/system/quorel-helper.socket"),
          under(root, "/etc/systemd/system/quorel-helper.service"),
          under(root, std::filesystem::path(kDefaultHelperAllowFile))};
}

std::string helperSocketUnitText(const std::filesystem::path& socketPath) {
  return "# Written by `quorel helper install`; removed by `quorel helper uninstall`.\n"
         "[Unit]\n"
         "Description=Quorel battery helper socket\n"
         "\n"
         "[Socket]\n"
         "ListenStream=" +
         socketPath.string() +
         "\n"
         "# Anyone may connect; the helper checks each caller's uid itself.\n"
         "SocketMode=0666\n"
         "DirectoryMode=0755\n"
         "\n"
         "[Install]\n"
         "WantedBy=sockets.target\n";
}

std::string helperServiceUnitText(const std::filesystem::path& helperBinary) {
  return "# Written by `quorel helper install`; removed by `quorel helper uninstall`.\n"
         "[Unit]\n"
         "Description=Quorel battery helper\n"
         "Requires=quorel-helper.socket\n"
         "After=quorel-helper.socket\n"
         "\n"
         "[Service]\n"
         "ExecStart=" +
         helperBinary.string() + " --allow-file " + std::string(kDefaultHelperAllowFile) +
         "\n"
         "StateDirectory=quorel\n"
         "NoNewPrivileges=yes\n"
         "ProtectSystem=strict\n"
         "# The battery's attributes are links into /sys/devices; ProtectKernelTunables stays off\n"
         "# because it would make them read-only.\n"
         "ReadWritePaths=/var/lib/quorel /sys/class/power_supply /sys/devices\n"
         "ProtectHome=yes\n"
         "PrivateTmp=yes\n"
         "PrivateNetwork=yes\n"
         "RestrictAddressFamilies=AF_UNIX\n"
         "ProtectKernelModules=yes\n"
         "ProtectControlGroups=yes\n"
         "ProtectClock=yes\n"
         "ProtectHostname=yes\n"
         "RestrictNamespaces=yes\n"
         "RestrictRealtime=yes\n"
         "RestrictSUIDSGID=yes\n"
         "LockPersonality=yes\n"
         "MemoryDenyWriteExecute=yes\n"
         "SystemCallArchitectures=native\n"
         "CapabilityBoundingSet=\n"
         "UMask=0077\n";
}

int installHelper(const HelperCommandArguments& args, const HelperCommandEnvironment& env) {
  if (needsRoot(args, env, "install")) return 1;
  const auto binary = helperBinaryFor(args, env);
  const auto uid = invokingUser(args, env);
  if (!SystemdHelperServiceController::systemdRunning(args.root)) {
    explainNoSystemd(binary, uid, *env.out);
    return 1;
  }
  std::error_code ec;
  if (!std::filesystem::is_regular_file(binary, ec)) {
    *env.err << "quorel: no helper at " << binary.string()
             << "; name it with --helper-binary PATH.\n";
    return 1;
  }
  const auto files = helperInstalledFiles(args.root);
  // Users allowed before stay allowed: another user may have installed the helper first.
  auto allowed = readAllowedUids(files[2]).valueOr({});
  if (uid) allowed.push_back(*uid);
  if (!writeFile(files[0], helperSocketUnitText(args.helperSocket), *env.err) ||
      !writeFile(files[1], helperServiceUnitText(binary), *env.err) ||
      !writeFile(files[2], formatAllowedUids(allowed), *env.err)) {
    return 1;
  }
  // A helper already running read the allowed users when it started.
  if (env.run && !runAll({{kSystemctl, "daemon-reload"},
                          {kSystemctl, "enable", "--now", std::string(kHelperSocketUnit)},
                          {kSystemctl, "try-restart", std::string(kHelperServiceUnit)}},
                         env)) {
    return 1;
  }
  *env.out << "Installed the battery helper (" << binary.string() << ") behind "
           << args.helperSocket.string() << ".\n";
  if (uid) {
    *env.out << "It serves uid " << *uid << " (and root).\n";
  } else {
    *env.out << "It serves root only; name a user with --allow-uid UID.\n";
  }
  return 0;
}

int uninstallHelper(const HelperCommandArguments& args, const HelperCommandEnvironment& env) {
  if (needsRoot(args, env, "uninstall")) return 1;
  // The battery goes back to how the helper found it before the helper goes.
  SystemClock clock;
  const auto reset = callHelperOnce(args.helperSocket, "resetAll", {}, kResetWait, clock);
  if (reset.error && !(reset.error->kind == HelperCallError::Kind::transport &&
                       (reset.error->code == ENOENT || reset.error->code == ECONNREFUSED))) {
    *env.err << "quorel: the helper could not put the battery back (" << reset.error->message
             << "); a charge limit may stay in force until the next boot.\n";
  }
  const bool systemd = SystemdHelperServiceController::systemdRunning(args.root);
  if (env.run && systemd) {
    runAll({{kSystemctl, "disable", "--now", std::string(kHelperSocketUnit),
             std::string(kHelperServiceUnit)}},
           env);
  }
  int removed = 0;
  for (const auto& file : helperInstalledFiles(args.root)) {
    std::error_code ec;
    if (std::filesystem::remove(file, ec)) {
      *env.out << "Removed " << file.string() << "\n";
      ++removed;
    } else if (ec) {
      *env.err << "quorel: cannot remove " << file.string() << ": " << ec.message() << "\n";
      return 1;
    }
  }
  std::error_code ec;
  const auto configDir = helperInstalledFiles(args.root)[2].parent_path();
  if (std::filesystem::is_empty(configDir, ec)) std::filesystem::remove(configDir, ec);
  if (env.run && systemd) {
    runAll({{kSystemctl, "daemon-reload"}}, env);
  }
  if (removed == 0) *env.out << "The battery helper was not installed.\n";
  return 0;
}

CLI::App* addHelperCommand(CLI::App& app, HelperCommandArguments& args) {
  auto* helper = app.add_subcommand(
      "helper",
      "Install, remove or check the privileged helper that writes the battery's charge limit "
      "(e.g. sudo quorel helper install)");
  helper->require_subcommand(1);
  for (const char* action : {"install", "uninstall", "status"}) {
    auto* sub = helper->add_subcommand(
        action, std::string(action) == "install"
                    ? "As root: write the systemd units and the allowed users, start the socket"
                : std::string(action) == "uninstall"
                    ? "As root: put the battery back, stop the helper, remove what install wrote"
                    : "What the agent's helper manager sees: status, version, state");
    sub->add_option("--root", args.root,
                    "Write under this directory instead of / (for packaging; systemctl is not "
                    "run), e.g. --root /tmp/stage");
    if (std::string(action) == "install") {
      sub->add_option("--helper-binary", args.helperBinary,
                      "The quorel-helper the service runs (default: beside quorel), e.g. "
                      "/usr/local/bin/quorel-helper");
      sub->add_option("--allow-uid", args.allowUid,
                      "The user the helper serves (default: the one who ran sudo), e.g. 1000");
    }
    if (std::string(action) == "status") {
      sub->add_flag("--json", args.json, "Print one JSON object");
    }
  }
  return helper;
}

int runHelperCommand(HelperCommandArguments args, const CLI::App& command) {
  for (const auto* sub : command.get_subcommands()) args.action = sub->get_name();
  auto env = HelperCommandEnvironment::current();
  // A staged tree is not this system's: its units are not systemd's to load.
  if (args.root != "/") env.run = nullptr;
  if (args.action == "install") return installHelper(args, env);
  if (args.action == "uninstall") return uninstallHelper(args, env);
  return helperStatus(args, env);
}

}  // namespace quorel
