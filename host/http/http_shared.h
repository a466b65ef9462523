// State shared by all I/O threads of a server.
#pragma once

#include <atomic>
#include <boost/asio/basic_stream_socket.hpp>
#include <boost/asio/basic_waitable_timer.hpp>
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <cstdint>
#include <memory>

#include "host/http/http_connections.h"
#include "host/http/http_server.h"
#include "host/http/http_tls.h"

namespace vexa::http {

// Bound to a context's executor directly: each context has one thread, so there is nothing to serialise and nothing to
// look up at run time. One socket type for TCP and Unix.
using Executor = boost::asio::io_context::executor_type;
using StreamSocket = boost::asio::basic_stream_socket<boost::asio::generic::stream_protocol, Executor>;
using Timer = boost::asio::basic_waitable_timer<std::chrono::steady_clock,
                                                boost::asio::wait_traits<std::chrono::steady_clock>, Executor>;

// Threads: any; `options` does not change once the server runs.
struct ServerShared {
  explicit ServerShared(ServerOptions server_options);

  ServerOptions options;
  std::shared_ptr<ConnectionTable> connections;
  std::atomic<std::uint64_t> accepted = 0;
  std::atomic<std::uint64_t> refused_connections = 0;
  std::atomic<std::uint64_t> requests = 0;
  std::atomic<std::uint64_t> refused_by_server = 0;

  // Calls options.make_error; a plain response when that is missing, throws or does not return an error status.
  HttpResponse MakeError(int status, const std::string& request_id);
};

// A connection between the acceptor and its I/O thread.
struct AcceptedConnection {
  AcceptedConnection() = default;
  AcceptedConnection(AcceptedConnection&& other) noexcept;
  AcceptedConnection& operator=(AcceptedConnection&&) = delete;
  ~AcceptedConnection();  // closes the descriptor unless it was released
  int Release();

  int fd = -1;
  int family = 0;
  Peer peer;
  TlsContext tls;
  std::unique_ptr<ConnectionPlace> place;  // null: over a limit, to be refused
};

}  // namespace vexa::http
