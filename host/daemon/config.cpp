#include "host/daemon/config.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <system_error>

#include "host/base/sanitize_for_log.h"
#include "host/daemon/configured_paths.h"

namespace vexa::daemon {
namespace {

constexpr const char* kDefaultFile = "/etc/vexa/vexad.conf";
constexpr std::size_t kMaxErrorLine = 4096;

constexpr const char* kFooter = R"(
The configuration file has the same settings without the dashes, one "name = value" a line, for example:
  data = "/var/lib/vexa"
  listen = "127.0.0.1:8642"
  socket = "/run/vexad/vexad.sock"
Flags go before the file.

SIGTERM and SIGINT stop the daemon: requests that have begun finish, for at most stop-timeout seconds; a second signal
ends it immediately.)";

struct Address {
  std::string host;
  std::uint16_t port = 0;
};

Result<Address> ParseAddress(const std::string& text) {
  const Error refused(ErrorCode::kInvalid,
                      fmt::format("'{}' is not an address to listen on. Use a numeric address and a port, such as "
                                  "127.0.0.1:8642 or [::1]:8642",
                                  text));
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos) return refused;
  std::string host = text.substr(0, colon);
  const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  if (bracketed) host = host.substr(1, host.size() - 2);
  unsigned char buffer[sizeof(in6_addr)];
  if (::inet_pton(bracketed ? AF_INET6 : AF_INET, host.c_str(), buffer) != 1) return refused;
  Address address{host, 0};
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data() + colon + 1, end, address.port);
  if (error != std::errc() || stop != end) return refused;
  return address;
}

bool IsWildcard(const std::string& host) {
  unsigned char buffer[sizeof(in6_addr)]{};
  const std::size_t size = host.find(':') == std::string::npos ? sizeof(in_addr) : sizeof(in6_addr);
  if (::inet_pton(size == sizeof(in_addr) ? AF_INET : AF_INET6, host.c_str(), buffer) != 1) return false;
  return std::all_of(buffer, buffer + size, [](unsigned char byte) { return byte == 0; });
}

bool IsLoopback(const std::string& host) { return host == "::1" || host.starts_with("127."); }

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
  app.add_option("--administrators-group", config.administrators_group, "The system group of administrators (pam)");
  AddSeconds(app, "--session-idle", config.sessions.idle, "Seconds without a request after which a login ends");
  AddSeconds(app, "--session-lifetime", config.sessions.absolute, "Seconds after which a login ends in any case");
}

void AddNetworkOptions(CLI::App& app, Config& config) {
  app.option_defaults()->group("Network");
  app.add_option("--listen", config.listen,
                 "Addresses to listen on for users, \"address:port\"; \"none\" for no network listener");
  app.add_option("--socket", config.socket, "The Unix socket; an empty value for none");
  app.add_option("--tls-certificate", config.tls_certificate, "The certificate chain (PEM) for those listeners");
  app.add_option("--tls-key", config.tls_key, "Its private key (PEM), readable by the daemon's user only");
  app.add_option("--max-connections", config.max_connections, "Open connections in total")
      ->check(CLI::Range(1, 1'000'000));
  app.add_option("--max-connections-per-peer", config.max_connections_per_peer,
                 "Open connections of one address or user")
      ->check(CLI::Range(1, 1'000'000));
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

void AddSettings(CLI::App& app, Config& config, bool& check_config) {
  app.option_defaults()->always_capture_default();
  app.config_formatter(std::make_shared<FileFormat>());
  app.set_config("--config", kDefaultFile, "The configuration file")->check([](const std::string& path) {
    return path == kDefaultFile ? std::string() : CLI::ExistingFile(path);
  });
  app.allow_config_extras(CLI::config_extras_mode::error);
  app.add_flag("--check-config", check_config, "Check the configuration, report errors, and exit")->configurable(false);
  // Each function begins with the group of its settings in the help.
  AddDataOptions(app, config);
  AddAccountOptions(app, config);
  AddNetworkOptions(app, config);
  AddClusterOptions(app, config);
  AddGuestOptions(app, config);
  AddWorkOptions(app, config);
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

}  // namespace

CommandLine ParseCommandLine(int argc, const char* const* argv) {
  CommandLine result;
  Config& config = result.config;
  bool check_config = false;
  CLI::App app("vexad: makes this machine a host of a virtualization cluster.", "vexad");
  app.footer(kFooter);
  app.set_version_flag("--version", VEXA_VERSION);
  AddSettings(app, config, check_config);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    result.action = CommandLine::Action::kExit;
    result.exit_status = PrintParseResult(app, error);
    return result;
  }
  if (config.listen == std::vector<std::string>{"none"}) config.listen.clear();
  if (app.count("--calls-per-host") == 0) {
    config.calls_per_host = std::clamp(config.long_threads / 2, 1, config.calls_per_host);
  }
  if (config.account_file.empty()) config.account_file = config.data_directory + "/accounts.json";
  if (config.store_directory.empty()) config.store_directory = config.data_directory + "/store";
  std::error_code ignored;  // an empty path is refused later
  const std::string data = std::filesystem::absolute(config.data_directory, ignored).lexically_normal();
  if (config.hypervisor_root.empty()) config.hypervisor_root = data + "/embed";
  if (config.image_roots.empty()) config.image_roots = {data + "/images"};
  if (check_config) result.action = CommandLine::Action::kCheckConfig;
  return result;
}

Result<ConfiguredPaths> ReadConfiguredPaths(const std::string& path) {
  const std::string file = path.empty() ? kDefaultFile : path;
  std::error_code failed;
  if (path.empty() && !std::filesystem::exists(file, failed) && !failed) {
    return ConfiguredPaths{Config().data_directory, "", "", std::nullopt};
  }
  if (!std::ifstream(file)) {
    return CannotRead(errno == ENOENT ? ErrorCode::kNotFound : ErrorCode::kDenied, file,
                      std::generic_category().message(errno));
  }
  Config config;
  bool check_config = false;
  CLI::App app;
  AddSettings(app, config, check_config);
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

Result<std::vector<http::ListenerOptions>> ListenersOf(const Config& config) {
  std::vector<http::ListenerOptions> listeners;
  if (!config.socket.empty()) {
    http::ListenerOptions listener;
    listener.kind = http::ListenerOptions::Kind::kUnix;
    listener.path = config.socket;
    listeners.push_back(std::move(listener));
  }
  const auto add = [&listeners](const std::string& text, const ClusterFiles& tls) -> Status {
    const Result<Address> address = ParseAddress(text);
    if (!address) return address.error();
    http::ListenerOptions listener;
    listener.address = address->host;
    listener.port = address->port;
    listener.certificate_file = tls.certificate;
    listener.key_file = tls.key;
    listener.client_authority_file = tls.authority;
    listeners.push_back(std::move(listener));
    return {};
  };
  for (const std::string& text : config.listen) {
    if (Status added = add(text, {config.tls_certificate, config.tls_key, ""}); !added) return added.error();
  }
  if (config.cluster_listen.empty()) return listeners;
  if (Status added = add(config.cluster_listen, ClusterFilesOf(config)); !added) return added.error();
  return listeners;
}

ClusterFiles ClusterFilesOf(const Config& config) {
  const bool has_own = !config.cluster_certificate.empty();
  return {has_own ? config.cluster_certificate : config.tls_certificate, has_own ? config.cluster_key : config.tls_key,
          config.cluster_authority.empty() ? config.client_authority : config.cluster_authority};
}

std::vector<std::string> OutdatedSettings(const Config& config) {
  std::vector<std::string> sentences;
  if (config.cluster_listen.empty()) {
    if (!config.client_authority.empty()) {
      sentences.emplace_back(
          "The setting client-authority has no effect without cluster-listen: listeners for users do not accept "
          "certificates. Remove it");
    }
    return sentences;
  }
  if (!config.client_authority.empty()) {
    sentences.emplace_back("The setting client-authority is named cluster-authority now. Rename it");
  }
  if (config.cluster_certificate.empty()) {
    sentences.emplace_back(
        "The certificate of tls-certificate and tls-key is used for users and for other hosts. Set "
        "cluster-certificate and cluster-key for the hosts; the other two are then for users only");
    if (config.listen.empty()) {
      sentences.push_back(fmt::format(
          "Users can no longer log in at '{}', which is for other hosts only. Set listen to an address for users",
          config.cluster_listen));
    }
  }
  return sentences;
}

namespace {

Status CheckCluster(const Config& config) {
  if (config.cluster_certificate.empty() != config.cluster_key.empty()) {
    return Error(ErrorCode::kInvalid, "'cluster-certificate' and 'cluster-key' go together: set both or none");
  }
  if (config.cluster_listen.empty()) {
    const std::pair<const char*, const std::string&> rows[] = {{"cluster-address", config.cluster_address},
                                                               {"cluster-certificate", config.cluster_certificate},
                                                               {"cluster-authority", config.cluster_authority},
                                                               {"authority-key", config.authority_key}};
    for (const auto& [name, value] : rows) {
      if (!value.empty()) return Error(ErrorCode::kInvalid, fmt::format("'{}' needs 'cluster-listen'", name));
    }
    return {};
  }
  const ClusterFiles files = ClusterFilesOf(config);
  if (files.certificate.empty() || files.authority.empty()) {
    return Error(ErrorCode::kInvalid,
                 "'cluster-listen' needs 'cluster-certificate', 'cluster-key' and 'cluster-authority': hosts know each "
                 "other by their certificates; see 'vexa cluster --help'");
  }
  const bool has_own_address = !config.cluster_address.empty();
  const Result<Address> address = ParseAddress(has_own_address ? config.cluster_address : config.cluster_listen);
  if (!address) return address.error();
  if (IsWildcard(address->host) || (has_own_address && address->port == 0)) {
    return Error(
        ErrorCode::kInvalid,
        fmt::format("Other hosts cannot connect to '{}'. Set 'cluster-address' to an address and a port of this host",
                    has_own_address ? config.cluster_address : config.cluster_listen));
  }
  return {};
}

}  // namespace

namespace {

Status CheckGuests(const Config& config) {
  if (config.hypervisor.empty()) {
    return Error(ErrorCode::kInvalid, "'hypervisor' is empty: set \"test\", \"embed\", \"none\" or a libvirt URI");
  }
  std::vector<std::string> folders = config.image_roots;
  if (config.hypervisor == "embed") folders.push_back(config.hypervisor_root);
  const bool has_both = config.repository_warning != 0 && config.repository_full != 0;
  if (has_both && config.repository_warning > config.repository_full) {
    return Error(ErrorCode::kInvalid, "'repository-warning' is above 'repository-full': set it to a lower percentage");
  }
  for (const std::string& folder : folders) {
    if (folder.starts_with('/') && folder.find('\0') == std::string::npos) continue;
    return Error(
        ErrorCode::kInvalid,
        fmt::format("'{}' is not an absolute path, which 'image-roots' and 'hypervisor-root' require", folder));
  }
  return {};
}

}  // namespace

Status CheckConfig(const Config& config) {
  if (config.data_directory.empty()) return Error(ErrorCode::kInvalid, "'data' is empty. Set it to a folder");
  if (Status guests = CheckGuests(config); !guests) return guests;
  if (config.calls_per_host >= config.long_threads && config.long_threads > 1) {
    return Error(ErrorCode::kInvalid,
                 fmt::format("'calls-per-host' ({}) must be less than 'long-threads' ({}), or one host could take all "
                             "threads from the others",
                             config.calls_per_host, config.long_threads));
  }
  if (config.tls_certificate.empty() != config.tls_key.empty()) {
    return Error(ErrorCode::kInvalid, "'tls-certificate' and 'tls-key' go together: set both or none");
  }
  if (!config.client_authority.empty() && config.tls_certificate.empty()) {
    return Error(ErrorCode::kInvalid, "'client-authority' needs 'tls-certificate' and 'tls-key'");
  }
  if (Status cluster = CheckCluster(config); !cluster) return cluster;
  const Result<std::vector<http::ListenerOptions>> listeners = ListenersOf(config);
  if (!listeners) return listeners.error();
  if (listeners->empty()) return Error(ErrorCode::kInvalid, "There is nothing to listen on: set 'socket' or 'listen'");
  for (const http::ListenerOptions& listener : *listeners) {
    if (listener.kind == http::ListenerOptions::Kind::kTcp && !IsLoopback(listener.address) &&
        listener.certificate_file.empty()) {
      return Error(ErrorCode::kInvalid, fmt::format("'{}' can be reached by other machines. Set 'tls-certificate' and "
                                                    "'tls-key', so that passwords are not sent in the clear",
                                                    listener.address));
    }
  }
  return {};
}

}  // namespace vexa::daemon
