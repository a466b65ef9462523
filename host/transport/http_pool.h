// Sends HTTP requests to many hosts concurrently.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/transport/tls_material.h"

namespace vexa::transport {

// A host that does not accept a connection within this time counts as unreachable.
inline constexpr std::chrono::milliseconds kConnectTimeout{5'000};

struct HttpCall {
  std::string host_id;              // satisfies IsHostId(); the name in the host's certificate
  std::string address;              // where it listens: a numeric address and a port, "127.0.0.1:8643" or "[::1]:8643"
  std::string path;                 // including the query
  std::vector<std::string> fields;  // additional header fields, "Name: value" without line ends
  std::shared_ptr<const std::string> body;  // JSON text, not empty
  std::chrono::steady_clock::time_point deadline;
  std::chrono::milliseconds connect_timeout = kConnectTimeout;
};

struct HttpOutcome {
  enum class Connection {
    kMade,      // including TLS if it is used
    kFailed,    // refused, unreachable, not trusted, or not in time
    kNotTried,  // the call ended before that
  };
  Connection connection = Connection::kNotTried;
  std::string failure;  // why there is no reply; empty when there is one
  std::string body;     // the reply, regardless of its HTTP status
};

// One thread serves all calls; the first call starts it. Connections are kept for the next call to the same host.
// HTTP/1.1 over TLS 1.3 with certificates on both sides: a host must present one that the cluster's authority signed
// for its id. No redirects, no proxies. A request that may have reached its host is never sent twice. Limits: the
// call's connect_timeout to connect, and kMaxReplyBytes of reply.
// Threads: any, at the same time.
class HttpPool {
 public:
  // Runs on the pool's thread, or on the caller's when the call cannot start; must not block or throw.
  using Done = std::function<void(HttpOutcome)>;

  // Without `tls` it uses plain HTTP: for tests.
  explicit HttpPool(std::shared_ptr<const TlsMaterial> tls);
  // Fails the calls under way first.
  ~HttpPool();
  HttpPool(const HttpPool&) = delete;
  HttpPool& operator=(const HttpPool&) = delete;

  void Start(HttpCall call, Done done);

  // For the connections of later calls. Connections with the previous certificate are not used for them.
  void ReplaceTls(std::shared_ptr<const TlsMaterial> tls);

  // Fails the calls under way; later ones fail immediately. Does not wait.
  void Stop();

 private:
  class Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::transport
