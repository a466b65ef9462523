#include "host/daemon/config.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <system_error>

#include "host/base/sanitize_for_log.h"
#include "host/daemon/config_refusal.h"
#include "host/daemon/configured_paths.h"

namespace vexa::daemon {
namespace {

constexpr std::size_t kMaxErrorLine = 4096;

constexpr const char* kFooter = R"(
The configuration file has the same settings without the dashes, one "name = value" a line, for example:
  data = "/var/lib/vexa"
  listen = "127.0.0.1:8642"
  socket = "/run/vexad/vexad.sock"
Flags go before the file.

SIGTERM and SIGINT stop the daemon: requests that have begun finish, for at most stop-timeout seconds; a second signal
ends it immediately.)";

// Refuses relative folders: the daemon and the commands read the same file from different working directories.
class FileFormat : public CLI::ConfigTOML {
 public:
  std::vector<CLI::ConfigItem> from_config(std::istream& input) const override {
    std::vector<CLI::ConfigItem> settings = CLI::ConfigTOML::from_config(input);
    for (const CLI::ConfigItem& item : settings) {
      const bool is_path = item.name == "data" || item.name == "store" || item.name == "account-file";
      if (!is_path || !item.parents.empty() || item.inputs.empty()) continue;
      const std::string& value = item.inputs.front();
      if (!value.empty() && value.front() != '/') {
        throw CLI::ValidationError(item.name, fmt::format("'{}' is not an absolute path", value));
      }
    }
    return settings;
  }
};

// CLI11 has no durations; these are read as whole seconds.
void AddSeconds(CLI::App& app, const char* name, std::chrono::seconds& value, const char* help) {
  app.add_option_function<int>(
         name, [&value](int seconds) { value = std::chrono::seconds(seconds); }, help)
      ->check(CLI::Range(1, 31'536'000))
      ->default_str(std::to_string(value.count()));
}

void AddDataOptions(CLI::App& app, Config& config) {
  app.option_defaults()->group("Data");
  app.add_flag("--take-host-id", config.take_host_id,
               "Take over the data folder's host id at this start: its previous machine is off for good, or the host "
               "returns after its removal from the cluster")
      ->configurable(false);
  app.add_flag("--new-store", config.new_store,
               "Make an empty database at this start in place of one that is gone for good; refused where there is one")
      ->configurable(false);
  app.add_option("--data", config.data_directory, "The folder of the database, accounts and sessions");
  app.add_option("--store", config.store_directory,
                 "The folder of the database, unless it is in the data folder; hosts on one machine may share one");
}

void AddAccountOptions(CLI::App& app, Config& config) {
  app.option_defaults()->group("Accounts");
  app.add_option(
         "--accounts", config.accounts,
         "Where users and passwords are kept: \"store\", the store of the cluster, or \"pam\", the machine's PAM and "
         "NSS; \"file\" means \"store\"")
      ->check(CLI::IsMember({"store", "pam", "file"}));
  app.add_option(
      "--account-file", config.account_file,
      "An account file of an older version, migrated into the store (default: accounts.json in the data folder)");
  app.add_option("--pam-service", config.pam_service, "The PAM service's name");
  app.add_option("--auth-socket", config.auth_socket,
                 "The socket of vexa-auth, which checks passwords (pam); while it does not exist, and with an empty "
                 "value, the daemon checks them itself");
  app.add_option("--administrators-group", config.administrators_group, "The system group of administrators (pam)");
  AddSeconds(app, "--session-idle", config.sessions.idle, "Seconds without a request after which a login ends");
  AddSeconds(app, "--session-lifetime", config.sessions.absolute, "Seconds after which a login ends in any case");
}

void AddNetworkOptions(CLI::App& app, Config& config) {
  app.option_defaults()->group("Network");
  app.add_option("--listen", config.listen,
                 "Addresses to listen on for users, \"address:port\"; \"none\" for no network listener");
  app.add_option("--socket", config.socket, "The Unix socket; an empty value for none");
  app.add_option("--allowed-origins", config.allowed_origins,
                 "Origins such as https://nas.example whose pages may call from browsers; none otherwise");
  app.add_option("--tls-certificate", config.tls_certificate, "The certificate chain (PEM) for those listeners");
  app.add_option("--tls-key", config.tls_key, "Its private key (PEM), readable by the daemon's user only");
  app.add_option("--max-connections", config.max_connections, "Open connections in total")
      ->check(CLI::Range(1, 1'000'000));
  app.add_option("--max-connections-per-peer", config.max_connections_per_peer,
                 "Open connections of one address or user")
      ->check(CLI::Range(1, 1'000'000));
  app.add_option("--max-consoles", config.max_consoles,
                 "Open consoles of guests of all users together; and as many for all other hosts")
      ->check(CLI::Range(1, 100'000));
  app.add_option("--max-consoles-per-user", config.max_consoles_per_user, "Open consoles of one user")
      ->check(CLI::Range(1, 100'000));
  AddSeconds(app, "--console-idle", config.console_idle, "Seconds without a byte after which a console ends");
}

void AddClusterOptions(CLI::App& app, Config& config) {
  app.option_defaults()->group("Cluster");
  app.add_option("--cluster-listen", config.cluster_listen,
                 "Where other hosts of the cluster call this one, \"address:port\"; users are not served there. Needs "
                 "the three settings below");
  app.add_option("--cluster-certificate", config.cluster_certificate,
                 "This host's certificate among the hosts (PEM), from 'vexa cluster certificate'");
  app.add_option("--cluster-key", config.cluster_key, "Its private key (PEM), readable by the daemon's user only");
  app.add_option("--cluster-authority", config.cluster_authority,
                 "The authority (PEM) that signs the certificates of all hosts");
  app.add_option("--cluster-address", config.cluster_address,
                 "The address under which other hosts reach this one, \"address:port\", if it differs from "
                 "cluster-listen");
  app.add_option("--authority-key", config.authority_key,
                 "The authority's private key (PEM), readable by the daemon's user only: hosts can then renew their "
                 "certificates through this one");
  app.add_option("--client-authority", config.client_authority, "The name of cluster-authority in older versions");
}

void AddGuestOptions(CLI::App& app, Config& config) {
  app.option_defaults()->group("Guests");
  app.add_option(
      "--hypervisor", config.hypervisor,
      "What runs guests: \"test\" (libvirt's test driver: nothing runs), \"embed\" (QEMU below this process), a "
      "libvirt URI such as qemu:///system, or \"none\"");
  app.add_option("--hypervisor-root", config.hypervisor_root,
                 "The folder of embedded guests' state, an absolute path (default: embed in the data folder)");
  app.add_option("--image-roots", config.image_roots,
                 "Folders, absolute paths, with guests' disks: a guest's deletion removes no file elsewhere (default: "
                 "images in the data folder)");
  app.add_option("--repository-warning", config.repository_warning,
                 "Show a repository with a warning from this percentage of its file system in use; 0: never")
      ->check(CLI::Range(0, 100));
  app.add_option("--repository-full", config.repository_full,
                 "Treat a repository as full from this percentage, and do not start its guests; 0: never")
      ->check(CLI::Range(0, 100));
  app.add_option("--repository-headroom", config.repository_headroom,
                 "A file system with more free GiB than this never counts as short of space or full; 0: use only the "
                 "percentages")
      ->check(CLI::Range(0, 1'048'576));
  app.add_option("--upload-count", config.upload_count, "The largest number of uploads of images in progress")
      ->check(CLI::Range(0, 64));
  app.add_option("--upload-size", config.upload_size, "The largest image, in GiB, that can be uploaded")
      ->check(CLI::Range(1, 1'048'576));
  app.add_option("--upload-total", config.upload_total, "GiB of all uploads in progress together")
      ->check(CLI::Range(1, 1'048'576));
  app.add_option("--upload-reserve", config.upload_reserve, "MiB of a file system that uploads leave free")
      ->check(CLI::Range(0, 1'048'576));
  app.add_option("--vcpus-per-cpu", config.vcpus_per_cpu,
                 "The maximum number of running guests' virtual CPUs per logical processor")
      ->check(CLI::Range(1, 64));
}

void AddWorkOptions(CLI::App& app, Config& config) {
  app.option_defaults()->group("Work");
  app.add_option("--io-threads", config.io_threads, "Threads for network I/O")->check(CLI::Range(1, 64));
  app.add_option("--long-threads", config.long_threads, "Maximum number of threads for long calls")
      ->check(CLI::Range(1, 16'384));
  app.add_option("--calls-per-user", config.calls_per_user,
                 "Maximum number of concurrent long calls per user, and of long and of quick calls per user of another "
                 "host")
      ->check(CLI::Range(1, 16'384));
  app.add_option(
         "--calls-per-host", config.calls_per_host,
         "Maximum number of concurrent long calls per other host, and of quick ones, for all its users together; "
         "less than long-threads, and half of it at most unless set")
      ->check(CLI::Range(1, 16'384));
  static const std::map<std::string, LogTarget> targets{
      {"syslog", LogTarget::kSyslog}, {"stderr", LogTarget::kStderr}, {"both", LogTarget::kBoth}};
  app.add_option("--log", config.log, "Where log lines go")
      ->transform(CLI::CheckedTransformer(targets).description("{syslog,stderr,both}"));
  AddSeconds(app, "--stop-timeout", config.stop_timeout, "Seconds that requests have to finish when the daemon stops");
}

}  // namespace

void AddSettings(CLI::App& app, CommandLine& command) {
  Config& config = command.config;
  app.option_defaults()->always_capture_default();
  app.add_flag_callback(
         "--check-config", [&command] { command.action = CommandLine::Action::kCheckConfig; },
         "Report everything that would keep the daemon from starting or serving, one line each, and exit: 0 when there "
         "is nothing, 2 otherwise. Changes nothing, and can run beside the daemon")
      ->configurable(false);
  app.add_option("--check-as", command.check_as,
                 "With --check-config, as root: check what this account can read and write. The default is the account "
                 "of the service for the service's own configuration file, and root otherwise")
      ->configurable(false);
  // Each function begins with the group of its settings in the help.
  AddDataOptions(app, config);
  AddAccountOptions(app, config);
  AddNetworkOptions(app, config);
  AddClusterOptions(app, config);
  AddGuestOptions(app, config);
  AddWorkOptions(app, config);
}

namespace {

void AddConfigurationFile(CLI::App& app) {
  app.config_formatter(std::make_shared<FileFormat>());
  app.set_config("--config", kServiceConfigFile, "The configuration file")->check([](const std::string& path) {
    return path == kServiceConfigFile ? std::string() : CLI::ExistingFile(path);
  });
  app.allow_config_extras(CLI::config_extras_mode::error);
}

Error CannotRead(ErrorCode code, const std::string& file, const std::string& why) {
  return Error(code, fmt::format("Cannot read the configuration file '{}'", file), why);
}

// The parser quotes what it cannot read. Returns the exit status.
int PrintParseResult(const CLI::App& app, const CLI::ParseError& error) {
  std::ostringstream errors;
  const int status = app.exit(error, std::cout, errors);
  std::istringstream lines(errors.str());
  for (std::string line; std::getline(lines, line);) std::cerr << SanitizeForLog(line, kMaxErrorLine) << '\n';
  return status == 0 ? 0 : 2;
}

void CompleteConfig(Config& config, bool has_calls_per_host) {
  if (config.listen == std::vector<std::string>{"none"}) config.listen.clear();
  if (!has_calls_per_host) config.calls_per_host = std::clamp(config.long_threads / 2, 1, config.calls_per_host);
  if (config.account_file.empty()) config.account_file = config.data_directory + "/accounts.json";
  if (config.store_directory.empty()) config.store_directory = config.data_directory + "/store";
  std::error_code ignored;  // an empty path is refused later
  const std::string data = std::filesystem::absolute(config.data_directory, ignored).lexically_normal();
  if (config.hypervisor_root.empty()) config.hypervisor_root = data + "/embed";
  if (config.image_roots.empty()) config.image_roots = {data + "/images"};
}

// Whether the arguments name neither another file nor other folders.
bool IsServiceFile(const std::vector<std::string>& arguments) {
  std::error_code failed;
  if (!std::filesystem::exists(kServiceConfigFile, failed)) return false;
  return std::none_of(arguments.begin(), arguments.end(), [](const std::string& argument) {
    return argument.starts_with("--config") || argument.starts_with("--data") || argument.starts_with("--store");
  });
}

// Prints what is wrong with the settings that cannot be read, and what `check` finds in the others.
CommandLine Refuse(ConfigRefusal refusal, const ConfigCheck& check) {
  CommandLine& usable = refusal.usable;
  CompleteConfig(usable.config, refusal.doubtful.contains("calls-per-host") || refusal.has_calls_per_host);
  ConfigProblems problems = std::move(refusal.problems);
  for (ConfigProblem& problem : check ? check(usable) : CheckConfig(usable.config)) {
    if (!refusal.doubtful.contains(problem.setting)) problems.push_back(std::move(problem));
  }
  PrintProblems(problems);
  usable.action = CommandLine::Action::kExit;
  usable.exit_status = 2;
  return std::move(usable);
}

}  // namespace

CommandLine ParseCommandLine(int argc, const char* const* argv, const ConfigCheck& check) {
  CommandLine result;
  CLI::App app("vexad: makes this machine a host of a virtualization cluster.", "vexad");
  app.footer(kFooter);
  app.set_version_flag("--version", VEXA_VERSION);
  AddConfigurationFile(app);
  AddSettings(app, result);
  const std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
  std::optional<ConfigRefusal> refusal = FindUnreadableFile(arguments, kServiceConfigFile);
  try {
    if (!refusal) app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() != 0) refusal = ExplainRefusal(arguments, kServiceConfigFile);
    if (!refusal || refusal->problems.empty()) {
      result.action = CommandLine::Action::kExit;
      result.exit_status = PrintParseResult(app, error);
      return result;
    }
  }
  if (refusal) {
    refusal->usable.is_service_file = IsServiceFile(arguments);
    return Refuse(std::move(*refusal), check);
  }
  CompleteConfig(result.config, app.count("--calls-per-host") > 0);
  result.is_service_file = IsServiceFile(arguments);
  return result;
}

Result<ConfiguredPaths> ReadConfiguredPaths(const std::string& path) {
  const std::string file = path.empty() ? kServiceConfigFile : path;
  std::error_code failed;
  if (path.empty() && !std::filesystem::exists(file, failed) && !failed) {
    return ConfiguredPaths{Config().data_directory, "", "", std::nullopt};
  }
  if (!std::ifstream(file)) {
    return CannotRead(errno == ENOENT ? ErrorCode::kNotFound : ErrorCode::kDenied, file,
                      std::generic_category().message(errno));
  }
  CommandLine command;
  const Config& config = command.config;
  CLI::App app;
  AddConfigurationFile(app);
  AddSettings(app, command);
  try {
    app.parse(std::vector<std::string>{file, "--config"});  // CLI11 takes a vector from its end
  } catch (const CLI::ParseError& error) {
    return CannotRead(ErrorCode::kInvalid, file, error.what());
  }
  if (config.data_directory.empty())
    return CannotRead(ErrorCode::kInvalid, file, "'data' is empty. Set it to a folder");
  ConfiguredPaths paths{config.data_directory, config.store_directory, config.account_file, std::nullopt};
  if (app.count("--accounts") > 0) paths.accounts = config.accounts;
  return paths;
}

}  // namespace vexa::daemon
