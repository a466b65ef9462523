#include "cli/setup_command.h"

#include <fmt/format.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "cli/account_paths.h"
#include "cli/local_user_command.h"
#include "cli/owner.h"
#include "cli/printable.h"
#include "cli/setup_file.h"
#include "cli/setup_report.h"
#include "cli/setup_unit.h"
#include "cli/user_command.h"
#include "host/base/become_account.h"
#include "host/base/data_lock.h"
#include "host/base/files.h"
#include "host/daemon/config.h"
#include "host/daemon/configured_paths.h"

namespace vexa::cli {
namespace {

constexpr const char* kGuestsFolder = "/var/lib/vexa-images";
constexpr const char* kAdministrators = "administrators";
constexpr mode_t kDataMode = 0700;
constexpr mode_t kImagesMode = 0711;  // QEMU's account passes through
constexpr std::size_t kMaxConfigBytes = 1024 * 1024;

void Say(const GlobalOptions& global, const std::string& sentence) {
  if (!global.quiet) std::cout << Printable(sentence) << std::endl;
}

// At the end of the input, nothing more is asked.
std::string Ask(const std::string& question, const std::string& usual) {
  if (std::cin.eof()) return "";
  std::cout << question << (usual.empty() ? "" : fmt::format(" [{}]", Printable(usual))) << ": " << std::flush;
  std::string answer;
  if (!std::getline(std::cin, answer) || answer.empty()) return usual;
  return answer;
}

// The folder for guests as configured: the setting, or without it the daemon's default, where guests have disks there
// already. "" otherwise.
std::string ConfiguredImages(const std::string& config, const std::string& text) {
  const std::string images = SettingIn(text, "image-roots");
  if (!images.empty()) return images;
  const auto paths = daemon::ReadConfiguredPaths(config);
  const std::string folder = (paths ? paths->data_directory : daemon::Config().data_directory) + "/images";
  std::error_code missing;
  return !std::filesystem::is_empty(folder, missing) && !missing ? folder : "";
}

// The options, completed on a terminal with answers. `text` is the configuration file.
SetupOptions Complete(SetupOptions options, const std::string& text) {
  const std::string images = ConfiguredImages(options.config, text);
  if (options.assume_yes || ::isatty(STDIN_FILENO) == 0) {
    if (options.images.empty() && images.empty()) options.images = kGuestsFolder;
    return options;
  }
  const std::string listen = SettingIn(text, "listen");
  // What is accepted stays as it is written: it may be a list.
  const auto ask = [](const std::string& question, const std::string& configured, const char* usual) {
    const std::string answer = Ask(question, configured.empty() ? usual : configured);
    return answer == configured ? "" : answer;
  };
  if (options.admin.empty()) options.admin = Ask("First administrator ('-' for none)", "admin");
  if (options.admin == "-") options.admin.clear();
  if (options.listen.empty()) options.listen = ask("Address and port for users", listen, "127.0.0.1:8642");
  if (options.images.empty()) options.images = ask("Folder for guests", images, kGuestsFolder);
  return options;
}

// The configuration that the daemon reads from the file.
daemon::Config ReadConfig(const std::string& path) {
  const char* const arguments[] = {"vexad", "--config", path.c_str()};
  return daemon::ParseCommandLine(3, arguments).config;
}

Result<bool> WriteConfig(const SetupOptions& options) {
  std::vector<FileSetting> settings;
  if (!options.listen.empty()) settings.push_back({"listen", options.listen});
  if (!options.images.empty()) settings.push_back({"image-roots", options.images});
  if (!options.hypervisor.empty()) settings.push_back({"hypervisor", options.hypervisor});
  const std::string folder = std::filesystem::path(options.config).parent_path();
  if (Status made = CreateDirectories(folder.empty() ? "." : folder, 0755); !made) return made.error();
  return ChangeSettings(options.config, settings);
}

// Runs in a process as the service's account, whose files then belong to it.
ExitCode InChild(const std::string& account, const std::function<ExitCode()>& body) {
  std::cout.flush();
  const pid_t child = ::fork();
  if (child < 0) return Report(SystemError(ErrorCode::kInternal, "Cannot start a process", errno));
  if (child == 0) {
    const Status became = BecomeAccount(account);
    const ExitCode code = became ? body() : Report(became.error());
    std::cout.flush();
    ::_exit(static_cast<int>(code));
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? static_cast<ExitCode>(WEXITSTATUS(status)) : ExitCode::kFailed;
}

// The lock is released again, because a question for a password follows and a daemon may start meanwhile.
bool HasRunningDaemon(const daemon::Config& config) {
  const Result<DataLock> lock = DataLock::Share(config.data_directory);
  return !lock && lock.error().code() == ErrorCode::kBusy;
}

// Adds the administrator unless the user exists: to the store itself, or through the daemon when it runs.
ExitCode AddAdministrator(const GlobalOptions& global, const SetupOptions& options, const daemon::Config& config) {
  NewUserOptions user;
  user.name = options.admin;
  user.groups = {kAdministrators};
  user.password = options.password;
  AccountPaths paths;
  paths.data_directory = config.data_directory;
  if (config.store_directory != config.data_directory + "/store") paths.store_folder = config.store_directory;
  paths.account_file_path = config.account_file;
  if (config.accounts == "pam") {
    Say(global, fmt::format("Users come from PAM: put '{}' into the group '{}' of this machine.", options.admin,
                            config.administrators_group));
    return ExitCode::kOk;
  }
  AccountPaths reading = paths;
  reading.running_daemon = RunningDaemon::kAllow;
  const ExitCode exists = InChild(options.account, [&reading, &options] {
    const Result<LocalAccounts> local = OpenAccounts(reading, MissingStore::kRefuse);
    return local && local->accounts->FindUser(options.admin) ? ExitCode::kOk : ExitCode::kFailed;
  });
  if (exists == ExitCode::kOk) {
    Say(global, fmt::format("The user '{}' exists already.", options.admin));
    return ExitCode::kOk;
  }
  if (HasRunningDaemon(config)) {
    GlobalOptions local = global;
    local.socket = config.socket;
    return RunUserAdd(local, user);
  }
  return InChild(options.account, [&global, &paths, &user] { return RunLocalUserAdd(global, paths, user); });
}

bool RunsSystemd() { return ::access("/run/systemd/system", F_OK) == 0; }

bool RunProgram(std::vector<std::string> words) {
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  pid_t child = 0;
  if (::posix_spawnp(&child, arguments[0], nullptr, nullptr, arguments.data(), environ) != 0) return false;
  int status = 0;
  return ::waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Returns whether the service runs, as far as is known.
bool StartService(const GlobalOptions& global, const SetupOptions& options, bool has_changed) {
  const char* const command = has_changed ? "restart" : "start";
  const bool is_service = options.config == daemon::kServiceConfigFile;
  if (options.no_start || !is_service || !RunsSystemd()) {
    Say(global, is_service ? std::string("Not started. Run: systemctl enable --now vexad")
                           : fmt::format("Not started. Run: runuser -u {} -- vexad --config '{}'", options.account,
                                         options.config));
    return true;
  }
  if (RunProgram({"systemctl", "enable", "--quiet", "vexad"}) && RunProgram({"systemctl", command, "vexad"})) {
    Say(global, "The service vexad runs, and starts with the machine.");
    return true;
  }
  std::cerr
      << "vexa: The service vexad does not start. 'journalctl -u vexad -n 20' and 'vexad --check-config' say why\n";
  return false;
}

// Where the unit's drop-ins go; "" where the service is not systemd's.
std::string UnitsFolder(const SetupOptions& options) {
  const bool is_service = options.config == daemon::kServiceConfigFile;
  return options.units.empty() && is_service && RunsSystemd() ? "/etc/systemd/system" : options.units;
}

// The folders that the service writes, beside the ones of its packaged unit.
std::vector<std::string> OtherFolders(const daemon::Config& config) {
  std::vector<std::string> folders = config.image_roots;
  if (config.hypervisor == "embed") folders.push_back(config.hypervisor_root);
  std::erase_if(folders, [&config](const std::string& folder) {
    return folder == kGuestsFolder || folder.starts_with(config.data_directory + "/");
  });
  return folders;
}

// Gives the unit the rights that the configuration needs. Returns whether it changed.
Result<bool> OpenUnit(const GlobalOptions& global, const SetupOptions& options, const daemon::Config& config) {
  const std::string units = UnitsFolder(options);
  if (units.empty()) return false;
  const Result<UnitChange> change = WriteDropIns(units, DropInsFor(OtherFolders(config), config.hypervisor));
  if (!change) return change.error();
  for (const DropIn& kept : change->kept) {
    Say(global, fmt::format("'{}' stays as it is, because 'vexa setup' has not made it. The unit needs:", kept.name));
    std::istringstream lines(kept.text);
    for (std::string line; std::getline(lines, line);) {
      if (!line.starts_with('#') && !line.starts_with('[')) Say(global, "  " + line);
    }
  }
  // Without it, the next stop of the service would kill guests that still run below it.
  const std::string unneeded = config.hypervisor == "embed" ? "" : OwnEmbedDropIn(units);
  if (!unneeded.empty()) {
    Say(global,
        fmt::format("The unit keeps the rights that guests of \"embed\" need. When all of those are shut down, run: "
                    "rm '{}'; systemctl daemon-reload",
                    unneeded));
  }
  const bool is_service = options.config == daemon::kServiceConfigFile;
  if (change->has_changed && is_service && RunsSystemd() && !RunProgram({"systemctl", "daemon-reload"})) {
    return Error(ErrorCode::kUnavailable, "'systemctl daemon-reload' failed");
  }
  return change->has_changed;
}

Status CheckHypervisor(const std::string& hypervisor) {
  if (hypervisor.find(":///embed") == std::string::npos) return {};
  return Error(ErrorCode::kInvalid,
               fmt::format("'{}' is the driver of guests below the daemon, which sets it up by itself. Run: vexa setup "
                           "--hypervisor embed",
                           hypervisor));
}

Status CheckMachine(const SetupOptions& options) {
  if (::geteuid() != 0) return Error(ErrorCode::kDenied, "Only root can set a host up. Run: sudo vexa setup");
  if (::getpwnam(options.account.c_str())) return {};
  return Error(ErrorCode::kNotFound,
               fmt::format("There is no account '{0}' for the service. Install the package vexad, or run: useradd "
                           "--system {0}",
                           options.account));
}

Status MakeFolders(const SetupOptions& options, const daemon::Config& config) {
  if (Status given = GiveFolder(config.data_directory, options.account, kDataMode); !given) return given;
  std::error_code failed;
  if (config.hypervisor == "embed" && !std::filesystem::exists(config.hypervisor_root, failed)) {
    if (Status made = GiveFolder(config.hypervisor_root, options.account, kDataMode); !made) return made;
  }
  for (const std::string& root : config.image_roots) {
    if (std::filesystem::exists(root, failed)) continue;  // it may be another program's, too
    if (Status made = GiveFolder(root, options.account, kImagesMode); !made) return made;
  }
  return {};
}

}  // namespace

ExitCode RunSetup(const GlobalOptions& global, const SetupOptions& given) {
  if (const Status able = CheckMachine(given); !able) return Report(able.error());
  const Result<std::string> text = ReadFile(given.config, kMaxConfigBytes);
  if (!text && text.error().code() != ErrorCode::kNotFound) return Report(text.error());
  const SetupOptions options = Complete(given, text ? *text : "");
  if (std::cin.eof()) {
    std::cout << std::endl;
    return Report(Error(ErrorCode::kInvalid, "The questions were not answered, so nothing has changed"));
  }
  if (const Status possible = CheckHypervisor(options.hypervisor); !possible) return Report(possible.error());
  const Result<bool> changed = WriteConfig(options);
  if (!changed) return Report(changed.error());
  Say(global, *changed ? fmt::format("Wrote {}{}.", options.config,
                                     text ? fmt::format(" (its old text is in {}.bak)", options.config) : "")
                       : fmt::format("{} stays as it is.", options.config));
  const daemon::Config config = ReadConfig(options.config);
  if (const Status made = MakeFolders(options, config); !made) return Report(made.error());
  const Result<bool> opened = OpenUnit(global, options, config);
  if (!opened) return Report(opened.error());
  // A service that runs gets its new configuration also when this fails: the next run would find nothing to change.
  const ExitCode added = options.admin.empty() ? ExitCode::kOk : AddAdministrator(global, options, config);
  const bool runs = StartService(global, options, *changed || *opened);
  SetupMachine machine;
  machine.account = options.account;
  machine.hypervisor = config.hypervisor;
  machine.images = config.image_roots.front();
  if (config.hypervisor == "embed") machine.qemu_account = options.account;  // QEMU is a child of the daemon
  Say(global, "What works:");
  for (const SetupFinding& finding : FindWhatWorks(machine)) {
    if (!global.quiet) std::cout << ToLine(finding) << std::endl;
  }
  if (added != ExitCode::kOk) return added;
  return runs ? ExitCode::kOk : ExitCode::kFailed;
}

}  // namespace vexa::cli
