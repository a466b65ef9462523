// Sends requests to hosts of the cluster. VexaCCC::Sender and MultiSender (webapi/platform/ccc_senders.h) use it.
#pragma once

#include <json/value.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/records/host_liveness.h"
#include "host/transport/host_stream.h"
#include "host/transport/local_call.h"
#include "host/transport/tls_material.h"
#include "webapi/platform/dr.h"

namespace vexa::transport {

inline constexpr std::chrono::milliseconds kDefaultTimeout{30'000};

// The member of host records with the address of a host.
inline constexpr const char* kClusterAddress = "cluster_address";

struct TransportOptions {
  enum class Remote {
    kTls,    // with `tls`
    kPlain,  // unencrypted, without authentication: for tests
    kNone,   // other hosts cannot be called
  };
  std::string host_id;  // of this host, which is called through `local_call`
  LocalCall local_call;
  // "address:port" of another host, numeric; nothing for an unknown host. Runs on the caller's thread.
  std::function<std::optional<std::string>(const std::string& host_id)> find_address;
  // Whether the host is alive according to its heartbeat. Runs on the caller's thread. Without this function, every
  // host counts as alive.
  std::function<records::HostLiveness(const std::string& host_id)> liveness;
  Remote remote = Remote::kNone;
  TlsFiles tls;
  // The time-out of a request that sets none, unless the method has a shorter one (method_rules.h).
  std::chrono::milliseconds default_timeout = kDefaultTimeout;
};

// Sends requests and waits for the replies. Never throws; every failure is a failed reply with the code 102.
// Threads: any, at the same time.
class Transport {
 public:
  // Errors: those of LoadTlsMaterial; kInvalid when the certificate is not this host's.
  static Result<std::shared_ptr<Transport>> Make(TransportOptions options);
  ~Transport();

  // Calls all hosts concurrently, on behalf of the calling thread's Origin (origin.h), and returns when each has
  // replied, failed or timed out. The replies are in the order of `host_ids`, which must not contain duplicates. No
  // snapshot of the store is held while waiting.
  std::vector<Json::Value> Call(const std::vector<std::string>& host_ids, const VexaDRCore::Request& request);

  // A stream from another host at `path`, which includes the query, on behalf of the calling thread's Origin. Blocks
  // for at most 15 s, without a snapshot of the store. kUnavailable, with the reason: the host cannot be reached.
  Result<StreamReply> OpenStream(const std::string& host_id, const std::string& path);

  // Uses the certificate in these files from now on; calls under way continue with the previous one. Errors: those of
  // Make, and kInvalid when other hosts cannot be called. After an error nothing has changed.
  Status ReplaceTls(const TlsFiles& files);

  // Fails the requests to other hosts that are under way; later ones fail immediately. Does not wait.
  void StopRemote();

 private:
  class Impl;
  explicit Transport(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

// The transport that VexaCCC::Sender and MultiSender use; without one, every request fails. When it is removed or
// replaced, calls under way keep the one that they began with. The end of the process removes it.
// Threads: any.
void InstallTransport(std::shared_ptr<Transport> transport);
void RemoveTransport();
std::shared_ptr<Transport> CurrentTransport();

}  // namespace vexa::transport
