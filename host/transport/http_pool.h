// Requests over HTTP to many hosts at once.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/transport/tls_material.h"

namespace vexa::transport {

// A host that cannot be connected to within this time counts as unreachable.
inline constexpr std::chrono::milliseconds kConnectTimeout{5'000};

struct HttpCall {
  std::string host_id;              // what IsHostId accepts; the name in the host's certificate
  std::string address;              // where it listens: a numeric address and a port, "127.0.0.1:8643" or "[::1]:8643"
  std::string path;                 // with the query
  std::vector<std::string> fields;  // further lines of the header, without line ends
  std::shared_ptr<const std::string> body;  // JSON text, not empty
  std::chrono::steady_clock::time_point deadline;
  std::chrono::milliseconds connect_timeout = kConnectTimeout;
};

struct HttpOutcome {
  enum class Connection {
    kMade,      // with TLS where that is asked for
    kFailed,    // refused, unreachable, not trusted, or not in time
    kNotTried,  // the call ended before
  };
  Connection connection = Connection::kNotTried;
  std::string failure;  // why there is no reply; empty when there is one
  std::string body;     // the reply, whatever its HTTP status
};

// One thread serves all calls; it starts with the first. Connections are kept for the next call to the same host.
// HTTP/1.1 over TLS 1.3 with certificates on both sides: a host must show one that the cluster's authority signed for
// its id. No redirects, no proxies. A request that may have reached its host is never sent twice. At
// most the call's connect_timeout to connect, and at most kMaxReplyBytes of reply. After fork(2) the calls of the child
// fail at once. Threads: any, at the same time.
class HttpPool {
 public:
  // Runs on the pool's thread, or on the caller's when the call cannot begin; must not block or throw.
  using Done = std::function<void(HttpOutcome)>;

  // Without `tls` it speaks plain HTTP: for tests.
  explicit HttpPool(std::optional<TlsMaterial> tls);
  // Calls under way end as failures first. In a forked child it leaves everything as it is.
  ~HttpPool();
  HttpPool(const HttpPool&) = delete;
  HttpPool& operator=(const HttpPool&) = delete;

  void Start(HttpCall call, Done done);

  // Calls under way end as failures, and further ones fail at once. Does not wait.
  void Stop();

 private:
  class Impl;
  Impl* impl_;
};

}  // namespace vexa::transport
