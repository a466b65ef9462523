// The client's side of a tunnel: bytes in the protocol that the connection has changed to. Hides Boost.Beast, so that
// few files have to compile it.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "host/http/http_shared.h"
#include "host/http/http_transport.h"

namespace vexa::http {

// Why a tunnel ends, as a client learns.
enum class TunnelClose {
  kEnded,       // the other end has ended it: 1000 in a WebSocket
  kGoingAway,   // the server stops: 1001
  kNotAllowed,  // may_continue, or an idle tunnel: 1008
};

// One operation of each kind at a time. Callbacks run on the I/O thread after the call.
// Threads: the connection's I/O thread.
class ClientSide {
 public:
  using Read = std::function<void(bool is_open, std::size_t bytes)>;
  using Done = std::function<void(bool is_open)>;

  virtual ~ClientSide() = default;
  // Sends the response that changes the protocol.
  virtual void Accept(Done done) = 0;
  virtual void AsyncRead(char* buffer, std::size_t size, Read read) = 0;
  virtual void AsyncWrite(std::string_view bytes, Done done) = 0;
  // Lets the client know that the tunnel ends. `done` may be called within the call, or never: the read under way may
  // notice the end instead.
  virtual void AsyncClose(TunnelClose why, Done done) = 0;
};

struct ClientSideParts {
  std::shared_ptr<void> owner;  // of socket and transport
  StreamSocket& socket;
  Transport& transport;
  std::string received;    // already read, before the rest
  std::string request_id;  // for the response
  std::string websocket_key;
  std::chrono::milliseconds stalled;
};

std::unique_ptr<ClientSide> MakeWebSocketSide(ClientSideParts parts);
std::unique_ptr<ClientSide> MakeRawSide(ClientSideParts parts);

}  // namespace vexa::http
