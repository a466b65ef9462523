#include "host/daemon/config.h"

#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <system_error>

#include "host/daemon/configured_places.h"

namespace vexa::daemon {
namespace {

constexpr const char* kDefaultFile = "/etc/vexa/vexad.conf";

constexpr const char* kFooter = R"(
The configuration file holds the same settings without the dashes, one "name = value" a line, for example:
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
                      "'" + text +
                          "' is not an address to listen on. Use a numeric address and a port, such as "
                          "127.0.0.1:8642 or [::1]:8642");
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

// A file is read from wherever the daemon and the commands are started: a relative folder would be another one each
// time.
class FileFormat : public CLI::ConfigTOML {
 public:
  std::vector<CLI::ConfigItem> from_config(std::istream& input) const override {
    std::vector<CLI::ConfigItem> settings = CLI::ConfigTOML::from_config(input);
    for (const CLI::ConfigItem& item : settings) {
      const bool is_place = item.name == "data" || item.name == "store" || item.name == "account-file";
      if (!is_place || !item.parents.empty() || item.inputs.empty()) continue;
      const std::string& value = item.inputs.front();
      if (!value.empty() && value.front() != '/') {
        throw CLI::ValidationError(item.name, "'" + value + "' is not an absolute path");
      }
    }
    return settings;
  }
};

void AddOptions(CLI::App& app, Config& config, bool& check_config) {
  app.config_formatter(std::make_shared<FileFormat>());
  app.set_config("--config", kDefaultFile, "The configuration file")->check([](const std::string& path) {
    return path == kDefaultFile ? std::string() : CLI::ExistingFile(path);
  });
  app.allow_config_extras(CLI::config_extras_mode::error);
  app.add_flag("--check-config", check_config, "Check the configuration, report errors, and exit")->configurable(false);

  app.add_flag("--take-host-id", config.take_host_id,
               "For one start: this machine has replaced the one that had the host id of the data folder, which is off "
               "for good; or this host comes back after it was removed from the cluster")
      ->configurable(false)
      ->group("Data");
  app.add_option("--data", config.data_directory, "The folder of the database, accounts and sessions")->group("Data");
  app.add_option("--store", config.store_directory,
                 "The folder of the database, when it is not in the data folder; hosts of one machine may share one")
      ->group("Data");
  app.add_option(
         "--accounts", config.accounts,
         "Who knows users and passwords: \"store\", the store of the cluster, or \"pam\", the machine's PAM and "
         "NSS; \"file\" means \"store\"")
      ->check(CLI::IsMember({"store", "pam", "file"}))
      ->group("Accounts");
  app.add_option(
         "--account-file", config.account_file,
         "An account file of an older version, migrated into the store (default: accounts.json in the data folder)")
      ->group("Accounts");
  app.add_option("--pam-service", config.pam_service, "The PAM service's name")->group("Accounts");
  app.add_option("--administrators-group", config.administrators_group, "The system group of administrators (pam)")
      ->group("Accounts");

  app.add_option("--listen", config.listen,
                 "Addresses to listen on, \"address:port\"; \"none\" for no network listener")
      ->group("Network");
  app.add_option("--socket", config.socket, "The Unix socket; an empty text for none")->group("Network");
  app.add_option("--tls-certificate", config.tls_certificate, "The certificate chain (PEM) of the network listeners")
      ->group("Network");
  app.add_option("--tls-key", config.tls_key, "Its private key (PEM), readable by the daemon's user only")
      ->group("Network");
  app.add_option("--client-authority", config.client_authority,
                 "The authority (PEM) that signs other hosts' certificates")
      ->group("Network");
  app.add_option("--cluster-listen", config.cluster_listen,
                 "Where other hosts of the cluster call this one, \"address:port\"; needs the three settings above")
      ->group("Network");
  app.add_option("--cluster-address", config.cluster_address,
                 "Where they find it, \"address:port\", when it is not what cluster-listen says")
      ->group("Network");
  app.add_option("--max-connections", config.max_connections, "Open connections in total")
      ->check(CLI::Range(1, 1'000'000))
      ->group("Network");
  app.add_option("--max-connections-per-peer", config.max_connections_per_peer,
                 "Open connections of one address or user")
      ->check(CLI::Range(1, 1'000'000))
      ->group("Network");

  app.add_option(
         "--hypervisor", config.hypervisor,
         "What runs guests: \"test\" (libvirt's test driver: nothing runs), \"embed\" (QEMU below this process), a "
         "libvirt URI such as qemu:///system, or \"none\"")
      ->group("Guests");
  app.add_option("--hypervisor-root", config.hypervisor_root,
                 "The folder of embedded guests' state, an absolute path (default: embed in the data folder)")
      ->group("Guests");
  app.add_option("--image-roots", config.image_roots,
                 "Folders, absolute paths, with guests' disks: a guest's deletion removes no file elsewhere (default: "
                 "images in the data folder)")
      ->group("Guests");
  app.add_option(
         "--repository-warning", config.repository_warning,
         "Percent of a repository's file system that is used from which it is shown with a warning; 0 for never")
      ->check(CLI::Range(0, 100))
      ->group("Guests");
  app.add_option("--repository-full", config.repository_full,
                 "Percent of it from which the repository is full and its guests are not started; 0 for never")
      ->check(CLI::Range(0, 100))
      ->group("Guests");
  app.add_option(
         "--repository-headroom", config.repository_headroom,
         "A file system with more free GiB than this never counts as short of space or full; 0: only percentages "
         "alone")
      ->check(CLI::Range(0, 1'048'576))
      ->group("Guests");
  app.add_option("--vcpus-per-cpu", config.vcpus_per_cpu,
                 "How many virtual CPUs of running guests a logical processor may serve")
      ->check(CLI::Range(1, 64))
      ->group("Guests");

  app.add_option("--io-threads", config.io_threads, "Threads for sockets")->check(CLI::Range(1, 64))->group("Work");
  app.add_option("--long-threads", config.long_threads, "Threads for calls that may wait long, at most")
      ->check(CLI::Range(1, 16'384))
      ->group("Work");
  app.add_option("--calls-per-user", config.calls_per_user, "Calls of one user that may wait long, at a time")
      ->check(CLI::Range(1, 16'384))
      ->group("Work");
  static const std::map<std::string, LogTarget> targets{
      {"syslog", LogTarget::kSyslog}, {"stderr", LogTarget::kStderr}, {"both", LogTarget::kBoth}};
  app.add_option("--log", config.log, "Where log lines go")
      ->transform(CLI::CheckedTransformer(targets).description("{syslog,stderr,both}"))
      ->group("Work");
}

// CLI11 has no durations; these are read as whole seconds.
void AddSeconds(CLI::App& app, const char* name, std::chrono::seconds& value, const char* help, const char* group) {
  app.add_option_function<int>(
         name, [&value](int seconds) { value = std::chrono::seconds(seconds); }, help)
      ->check(CLI::Range(1, 31'536'000))
      ->default_str(std::to_string(value.count()))
      ->group(group);
}

void AddSettings(CLI::App& app, Config& config, bool& check_config) {
  app.option_defaults()->always_capture_default();
  AddOptions(app, config, check_config);
  AddSeconds(app, "--session-idle", config.sessions.idle, "Seconds without a request after which a login ends",
             "Accounts");
  AddSeconds(app, "--session-lifetime", config.sessions.absolute, "Seconds after which a login ends in any case",
             "Accounts");
  AddSeconds(app, "--stop-timeout", config.stop_timeout, "Seconds that requests have to finish when the daemon stops",
             "Work");
}

Error CannotRead(ErrorCode code, const std::string& file, const std::string& why) {
  return Error(code, "Cannot read the configuration file '" + file + "'", why);
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
    const int status = app.exit(error);
    result.exit_status = status == 0 ? 0 : 2;
    return result;
  }
  if (config.listen == std::vector<std::string>{"none"}) config.listen.clear();
  if (config.account_file.empty()) config.account_file = config.data_directory + "/accounts.json";
  if (config.store_directory.empty()) config.store_directory = config.data_directory + "/store";
  std::error_code no_path;  // an empty one is refused later
  const std::string data = std::filesystem::absolute(config.data_directory, no_path).lexically_normal();
  if (config.hypervisor_root.empty()) config.hypervisor_root = data + "/embed";
  if (config.image_roots.empty()) config.image_roots = {data + "/images"};
  if (check_config) result.action = CommandLine::Action::kCheckConfig;
  return result;
}

Result<ConfiguredPlaces> ReadConfiguredPlaces(const std::string& path) {
  const std::string file = path.empty() ? kDefaultFile : path;
  std::error_code failed;
  if (path.empty() && !std::filesystem::exists(file, failed) && !failed) {
    return ConfiguredPlaces{Config().data_directory, "", "", std::nullopt};
  }
  if (!std::ifstream(file)) {
    return CannotRead(errno == ENOENT ? ErrorCode::kNotFound : ErrorCode::kDenied, file, std::strerror(errno));
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
  if (config.data_directory.empty()) return CannotRead(ErrorCode::kInvalid, file, "'data' names no folder");
  ConfiguredPlaces places{config.data_directory, config.store_directory, config.account_file, std::nullopt};
  if (app.count("--accounts") > 0) places.accounts = config.accounts;
  return places;
}

Result<std::vector<ListenerOptions>> ListenersOf(const Config& config) {
  std::vector<ListenerOptions> listeners;
  if (!config.socket.empty()) {
    ListenerOptions listener;
    listener.kind = ListenerOptions::Kind::kUnix;
    listener.path = config.socket;
    listeners.push_back(std::move(listener));
  }
  std::vector<std::string> addresses = config.listen;
  if (!config.cluster_listen.empty()) addresses.push_back(config.cluster_listen);
  for (const std::string& text : addresses) {
    const Result<Address> address = ParseAddress(text);
    if (!address) return address.error();
    ListenerOptions listener;
    listener.address = address->host;
    listener.port = address->port;
    listener.certificate_file = config.tls_certificate;
    listener.key_file = config.tls_key;
    listener.client_authority_file = config.client_authority;
    listeners.push_back(std::move(listener));
  }
  return listeners;
}

namespace {

Status CheckCluster(const Config& config) {
  if (config.cluster_listen.empty()) {
    if (config.cluster_address.empty()) return {};
    return Error(ErrorCode::kInvalid, "'cluster-address' needs 'cluster-listen'");
  }
  if (config.client_authority.empty()) {
    return Error(ErrorCode::kInvalid,
                 "'cluster-listen' needs 'tls-certificate', 'tls-key' and 'client-authority': hosts know each other by "
                 "their certificates; see 'vexa cluster --help'");
  }
  const bool own = !config.cluster_address.empty();
  const Result<Address> address = ParseAddress(own ? config.cluster_address : config.cluster_listen);
  if (!address) return address.error();
  if (IsWildcard(address->host) || (own && address->port == 0)) {
    return Error(ErrorCode::kInvalid, "Other hosts cannot connect to '" +
                                          (own ? config.cluster_address : config.cluster_listen) +
                                          "': set 'cluster-address' to an address and a port of this host");
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
    return Error(ErrorCode::kInvalid,
                 "'" + folder + "' is not an absolute path, which 'image-roots' and 'hypervisor-root' require");
  }
  return {};
}

}  // namespace

Status CheckConfig(const Config& config) {
  if (config.data_directory.empty()) return Error(ErrorCode::kInvalid, "'data' names no folder");
  if (Status guests = CheckGuests(config); !guests) return guests;
  if (config.tls_certificate.empty() != config.tls_key.empty()) {
    return Error(ErrorCode::kInvalid, "'tls-certificate' and 'tls-key' go together: set both or none");
  }
  if (!config.client_authority.empty() && config.tls_certificate.empty()) {
    return Error(ErrorCode::kInvalid, "'client-authority' needs 'tls-certificate' and 'tls-key'");
  }
  if (Status cluster = CheckCluster(config); !cluster) return cluster;
  const Result<std::vector<ListenerOptions>> listeners = ListenersOf(config);
  if (!listeners) return listeners.error();
  if (listeners->empty()) return Error(ErrorCode::kInvalid, "There is nothing to listen on: set 'socket' or 'listen'");
  for (const ListenerOptions& listener : *listeners) {
    if (listener.kind == ListenerOptions::Kind::kTcp && !IsLoopback(listener.address) &&
        config.tls_certificate.empty()) {
      return Error(ErrorCode::kInvalid, "'" + listener.address +
                                            "' can be reached by other machines: set 'tls-certificate' and 'tls-key', "
                                            "so that passwords are not sent in the clear");
    }
  }
  return {};
}

}  // namespace vexa::daemon
