// What a configuration means: its listeners, certificates among hosts, and whether it is valid.
#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <iostream>
#include <set>
#include <system_error>
#include <utility>

#include "host/base/origin.h"
#include "host/base/sanitize_for_log.h"
#include "host/daemon/config.h"

namespace vexa::daemon {
namespace {

struct Address {
  std::string host;
  std::uint16_t port = 0;
};

// How an address is written, for sentences.
constexpr const char* kAddressHelp = "Use a numeric address and a port, such as 127.0.0.1:8642 or [::1]:8642";

Result<Address> ParseAddress(const std::string& text) {
  const Error refused(ErrorCode::kInvalid, fmt::format("'{}' is not an address to listen on", text), kAddressHelp);
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

void CheckCluster(const Config& config, ConfigProblems& problems) {
  if (config.cluster_certificate.empty() != config.cluster_key.empty()) {
    // Reported for the one that is missing: its name may have been mistyped.
    problems.push_back({config.cluster_key.empty() ? "cluster-key" : "cluster-certificate", "",
                        "'cluster-certificate' and 'cluster-key' go together", "Set both or none"});
  }
  if (config.cluster_listen.empty()) {
    const std::pair<const char*, const std::string&> rows[] = {{"cluster-address", config.cluster_address},
                                                               {"cluster-certificate", config.cluster_certificate},
                                                               {"cluster-authority", config.cluster_authority},
                                                               {"authority-key", config.authority_key}};
    for (const auto& [name, value] : rows) {
      if (value.empty()) continue;
      problems.push_back({name, value, fmt::format("'{}' needs 'cluster-listen'", name),
                          "Set 'cluster-listen' to the address and port where other hosts call this one, or remove "
                          "this setting"});
    }
    return;
  }
  const ClusterFiles files = ClusterFilesOf(config);
  if (files.certificate.empty() || files.authority.empty()) {
    problems.push_back({"cluster-listen", config.cluster_listen,
                        "'cluster-listen' needs 'cluster-certificate', 'cluster-key' and 'cluster-authority'",
                        "Hosts know each other by their certificates; see 'vexa cluster --help'"});
  }
  const bool has_own_address = !config.cluster_address.empty();
  const Result<Address> listen = ParseAddress(config.cluster_listen);
  if (!listen) {
    problems.push_back({"cluster-listen", config.cluster_listen, listen.error().message(), listen.error().cause()});
    if (!has_own_address) return;
  }
  const Result<Address> address = has_own_address ? ParseAddress(config.cluster_address) : listen;
  if (!address) {
    problems.push_back({"cluster-address", config.cluster_address, address.error().message(), address.error().cause()});
    return;
  }
  if (IsWildcard(address->host) || (has_own_address && address->port == 0)) {
    const std::string& text = has_own_address ? config.cluster_address : config.cluster_listen;
    problems.push_back({has_own_address ? "cluster-address" : "cluster-listen", text,
                        fmt::format("Other hosts cannot connect to '{}'", text),
                        "Set 'cluster-address' to an address and a port of this host"});
  }
}

void CheckGuests(const Config& config, ConfigProblems& problems) {
  if (config.hypervisor.empty()) {
    problems.push_back(
        {"hypervisor", "", "'hypervisor' is empty", "Set \"test\", \"embed\", \"none\" or a libvirt URI"});
  }
  const bool has_both = config.repository_warning != 0 && config.repository_full != 0;
  if (has_both && config.repository_warning > config.repository_full) {
    problems.push_back({"repository-warning", std::to_string(config.repository_warning),
                        fmt::format("'repository-warning' is above 'repository-full' ({})", config.repository_full),
                        "Set it to a lower percentage"});
  }
  const auto check = [&problems](const char* name, const std::string& folder) {
    if (folder.starts_with('/') && folder.find('\0') == std::string::npos) return;
    problems.push_back({name, folder, fmt::format("'{}' is not an absolute path", folder), "Begin it with '/'"});
  };
  for (const std::string& folder : config.image_roots) check("image-roots", folder);
  if (config.hypervisor == "embed") check("hypervisor-root", config.hypervisor_root);
}

void CheckUserTls(const Config& config, ConfigProblems& problems) {
  if (config.tls_certificate.empty() != config.tls_key.empty()) {
    problems.push_back({config.tls_key.empty() ? "tls-key" : "tls-certificate", "",
                        "'tls-certificate' and 'tls-key' go together", "Set both or none"});
  }
  if (!config.client_authority.empty() && config.tls_certificate.empty()) {
    problems.push_back({"client-authority", config.client_authority,
                        "'client-authority' needs 'tls-certificate' and 'tls-key'",
                        "Set them, or remove this setting"});
  }
}

void CheckUserListeners(const Config& config, ConfigProblems& problems) {
  if (config.socket.empty() && config.listen.empty() && config.cluster_listen.empty()) {
    problems.push_back({"listen", "none", "There is nothing to listen on", "Set 'socket' or 'listen'"});
  }
  std::set<std::string> seen;
  if (!config.cluster_listen.empty() && !config.cluster_listen.ends_with(":0")) seen.insert(config.cluster_listen);
  for (const std::string& text : config.listen) {
    const Result<Address> address = ParseAddress(text);
    if (!address) {
      problems.push_back({"listen", text, address.error().message(), address.error().cause()});
      continue;
    }
    if (address->port != 0 && !seen.insert(text).second) {
      problems.push_back({"listen", text, fmt::format("'{}' is named twice, in 'listen' or 'cluster-listen'", text),
                          "Give each its own port"});
    }
    if (!IsLoopback(address->host) && config.tls_certificate.empty()) {
      problems.push_back({"listen", text, fmt::format("'{}' can be reached by other machines", address->host),
                          "Set 'tls-certificate' and 'tls-key', so that passwords are not sent in the clear"});
    }
  }
}

}  // namespace

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

ConfigProblems CheckConfig(const Config& config) {
  ConfigProblems problems;
  if (config.data_directory.empty()) problems.push_back({"data", "", "'data' is empty", "Set it to a folder"});
  CheckGuests(config, problems);
  if (config.calls_per_host >= config.long_threads && config.long_threads > 1) {
    problems.push_back({"calls-per-host", std::to_string(config.calls_per_host),
                        fmt::format("'calls-per-host' ({}) must be less than 'long-threads' ({}), or one host could "
                                    "take all threads from the others",
                                    config.calls_per_host, config.long_threads),
                        "Lower 'calls-per-host', or leave it out"});
  }
  for (const std::string& origin : config.allowed_origins) {
    if (IsOrigin(origin)) continue;
    problems.push_back({"allowed-origins", origin, fmt::format("'{}' is not an origin", origin),
                        "Use the form https://nas.example or http://127.0.0.1:3000, in lower case and without a path"});
  }
  CheckUserTls(config, problems);
  CheckCluster(config, problems);
  CheckUserListeners(config, problems);
  return problems;
}

std::string ToLine(const ConfigProblem& problem) {
  constexpr std::size_t kMaxLine = 4096;
  return SanitizeForLog(fmt::format("{} = \"{}\": {}. {}{}", problem.setting, problem.value, problem.problem,
                                    problem.help, problem.help.ends_with('?') ? "" : "."),
                        kMaxLine);
}

void PrintProblems(const ConfigProblems& problems) {
  for (const ConfigProblem& problem : problems) std::cerr << "vexad: " << ToLine(problem) << '\n';
}

}  // namespace vexa::daemon
