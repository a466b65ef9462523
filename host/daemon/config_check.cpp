// What a configuration means: its listeners, certificates among hosts, and whether it is valid.
#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <system_error>
#include <utility>

#include "host/api/allowed_origins.h"
#include "host/daemon/config.h"

namespace vexa::daemon {
namespace {

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

Status CheckConfig(const Config& config) {
  if (config.data_directory.empty()) return Error(ErrorCode::kInvalid, "'data' is empty. Set it to a folder");
  if (Status guests = CheckGuests(config); !guests) return guests;
  if (config.calls_per_host >= config.long_threads && config.long_threads > 1) {
    return Error(ErrorCode::kInvalid,
                 fmt::format("'calls-per-host' ({}) must be less than 'long-threads' ({}), or one host could take all "
                             "threads from the others",
                             config.calls_per_host, config.long_threads));
  }
  for (const std::string& origin : config.allowed_origins) {
    if (api::IsOrigin(origin)) continue;
    return Error(ErrorCode::kInvalid,
                 fmt::format("'{}' in 'allowed-origins' is not an origin. Use the form https://nas.example or "
                             "http://127.0.0.1:3000, in lower case and without a path",
                             origin));
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
