// A connection to another host that has left HTTP: bytes in both directions, over the same TLS as requests.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/transport/tls_material.h"

namespace vexa::transport {

// Threads: one at a time.
class HostStream {
 public:
  enum class State { kDone, kBlocked, kEnd, kFailed };
  struct Outcome {
    State state;
    std::size_t bytes = 0;
  };

  virtual ~HostStream() = default;
  // A non-blocking socket to wait on; it stays this object's.
  virtual int fd() const = 0;
  // kBlocked: call again when the socket is readable, or writable.
  virtual Outcome Read(char* buffer, std::size_t size) = 0;
  virtual Outcome Write(std::string_view bytes) = 0;
};

struct StreamRequest {
  std::string host_id;
  std::string address;                        // a numeric address and a port
  std::string path;                           // including the query
  std::vector<std::string> fields;            // additional header fields, "Name: value" without line ends
  std::shared_ptr<const TlsMaterial> tls;     // null: plain, for tests
  std::chrono::milliseconds timeout{15'000};  // to connect, and for the response
};

// What the host has replied: a stream, or the body of its refusal.
struct StreamReply {
  std::unique_ptr<HostStream> stream;  // null: refused
  std::string body;
};

// Asks the host to change the connection to "vexa-tunnel". The host must present a certificate that the cluster's
// authority signed for its id, over TLS 1.3. kUnavailable, with the reason: no connection, or no reply in time.
Result<StreamReply> OpenHostStream(const StreamRequest& request);

}  // namespace vexa::transport
