// What a connection carries after it has left HTTP: the bytes of a stream that something else has opened.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>

#include "host/base/descriptor.h"
#include "host/http/http_transport.h"

namespace vexa::http {

// The other end of a tunnel. Threads: one at a time.
class TunnelEnd {
 public:
  virtual ~TunnelEnd() = default;
  // A non-blocking descriptor that becomes readable and writable with the stream. It stays this object's.
  virtual int fd() const = 0;
  // kWantRead, kWantWrite: call again when the descriptor is readable or writable.
  virtual IoResult Read(char* buffer, std::size_t size) = 0;
  // Sends the beginning of `bytes`; after kWant… the caller passes the same bytes again.
  virtual IoResult Write(std::string_view bytes) = 0;
};

// Takes a connected stream socket, which becomes non-blocking.
std::unique_ptr<TunnelEnd> MakeSocketEnd(Descriptor socket);

// One buffer each way is all that a tunnel holds: what one side does not take is not read from the other.
inline constexpr std::size_t kTunnelBufferBytes = std::size_t{64} * 1024;
// Longer messages of a WebSocket client end the connection, before they are read.
inline constexpr std::size_t kMaxMessageBytes = std::size_t{1} << 20;

// Handed to HttpResponse::tunnel, once. The connection owns it from then on and destroys it when it ends, on an I/O
// thread or on that of HttpServer::Stop().
struct Tunnel {
  std::unique_ptr<TunnelEnd> end;
  // Asked about twice a second on an I/O thread; must not block. False ends the tunnel. Optional.
  std::function<bool()> may_continue;
  std::chrono::milliseconds idle = std::chrono::minutes(30);  // without a byte in either direction
  // A client that takes nothing, or answers no ping; an end that takes nothing.
  std::chrono::milliseconds stalled = std::chrono::minutes(1);
  std::shared_ptr<void> lease;  // destroyed with the tunnel
};

}  // namespace vexa::http
