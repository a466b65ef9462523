// The daemon's configuration: a file, and flags that override it.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/daemon/config_problem.h"
#include "host/daemon/log_line.h"
#include "host/http/http_server.h"
#include "host/session/sessions.h"

namespace vexa::daemon {

// The configuration file of the service.
inline constexpr const char* kServiceConfigFile = "/etc/vexa/vexad.conf";

struct Config {
  std::string data_directory = "/var/lib/vexa";
  std::string store_directory;  // empty: "store" in the data folder; hosts on one machine share one
  std::vector<std::string> listen{"127.0.0.1:8642"};  // "address:port"; IPv6 as "[address]:port"
  std::string socket = "/run/vexad/vexad.sock";       // empty: none
  std::vector<std::string> allowed_origins;           // other origins whose pages may call from browsers
  std::string tls_certificate;                        // for the listeners of users
  std::string tls_key;
  std::string cluster_listen;       // "address:port" for other hosts only; empty: no cluster
  std::string cluster_address;      // where other hosts reach this one, numeric; empty: cluster_listen
  std::string cluster_certificate;  // this host's own among hosts; empty: tls_certificate and tls_key, as before
  std::string cluster_key;
  std::string cluster_authority;   // signs the certificates of all hosts; empty: client_authority
  std::string client_authority;    // its name in older versions
  std::string authority_key;       // the authority's key, to renew the certificates of hosts; empty: not here
  std::string accounts = "store";  // "store" or "pam"; "file" means "store"
  std::string account_file;        // migrated into the store; empty: accounts.json in the data folder
  std::string pam_service = "vexad";
  std::string auth_socket = "/run/vexa-auth/socket";    // of vexa-auth; empty: this process checks passwords itself
  std::string administrators_group = "administrators";  // "pam" only
  std::string hypervisor = "test";       // "test", "embed", a libvirt URI, or "none": this host does not run guests
  std::string hypervisor_root;           // for embed; empty: "embed" in the data folder
  std::vector<std::string> image_roots;  // folders with guests' disks; empty: "images" in the data folder
  unsigned repository_warning = 90;      // used percentage of a repository's file system; 0: no warning
  unsigned repository_full = 98;         // the same for a full repository, whose guests are not started
  unsigned repository_headroom = 100;    // GiB; with more free space, neither of the two applies
  unsigned upload_count = 8;             // uploads of images in progress
  unsigned upload_size = 64;             // GiB; of one upload
  unsigned upload_total = 256;           // GiB; of all uploads in progress
  unsigned upload_reserve = 1024;        // MiB; what uploads leave free on a file system
  unsigned vcpus_per_cpu = 8;            // virtual CPUs of guests per logical CPU of the host
  int io_threads = 2;
  std::size_t max_connections = 10'000;
  std::size_t max_connections_per_peer = 6'000;
  std::size_t max_consoles = 256;
  std::size_t max_consoles_per_user = 16;
  std::chrono::seconds console_idle{1'800};
  int long_threads = 1024;
  // Waiting and running: long calls of one user; long calls of one host on behalf of one user, and quick ones.
  int calls_per_user = 64;
  // Likewise, of one host on behalf of all its users. ParseCommandLine lowers it with long_threads unless it is set.
  int calls_per_host = 512;
  session::SessionOptions sessions;
  std::chrono::seconds stop_timeout{30};
  LogTarget log = LogTarget::kSyslog;
  std::function<void()> on_claim_lost{};  // called once, when this daemon must stop acting as its host
  bool new_store = false;                 // this start makes an empty store, although the host has used one
  bool take_host_id = false;              // this start takes the host id over: its previous machine is off for good
};

// What the command line requests.
struct CommandLine {
  enum class Action { kRun, kCheckConfig, kExit };
  Action action = Action::kRun;
  int exit_status = 0;  // kExit only: help, version, or a usage error that has been printed
  Config config;
  std::string check_as;          // the account as which to check; empty: see --check-as
  bool is_service_file = false;  // the configuration is that of the service, without flags that change folders
};

// Everything that a single setting cannot show: unparsable addresses, contradictory TLS settings, a network listener
// beyond loopback without TLS, a host that may take all threads. Empty: it can be used.
ConfigProblems CheckConfig(const Config& config);

// What else to check when the command line or the file is refused.
using ConfigCheck = std::function<ConfigProblems(const CommandLine& usable)>;

// Reads flags and the configuration file that they name. Unknown settings and values out of range are usage errors: all
// of them are printed, and what `check` finds in the other settings; without it, what CheckConfig finds.
CommandLine ParseCommandLine(int argc, const char* const* argv, const ConfigCheck& check = nullptr);

// Prints a line for each problem to stderr.
void PrintProblems(const ConfigProblems& problems);

// The files by which this host and the others recognize each other.
struct ClusterFiles {
  std::string certificate;
  std::string key;
  std::string authority;
};
ClusterFiles ClusterFilesOf(const Config& config);

// What to change in a checked configuration that was written for an older version: sentences for the log.
std::vector<std::string> OutdatedSettings(const Config& config);

// The listeners of a checked configuration: the Unix socket, those of `listen`, that of `cluster_listen`.
Result<std::vector<http::ListenerOptions>> ListenersOf(const Config& config);

}  // namespace vexa::daemon
