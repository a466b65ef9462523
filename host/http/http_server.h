// The HTTP/1.1 server: sockets, framing, limits, deadlines. It does not know what a request means.
//
// Written by hand around Boost.Beast's parser: a request is refused by its header before any of its body is read, the
// header is checked by rules stricter than the parser's (http_rules.h), and limits count connections of all threads.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/base/certificate_times.h"
#include "host/base/result.h"

namespace vexa::http {

// The other end of a connection.
struct Peer {
  enum class Kind { kTcp, kUnix };
  Kind kind = Kind::kTcp;
  std::string address;  // numeric IP address; empty for a Unix socket
  uid_t uid = 0;        // Unix socket only: the peer's user id, from the kernel (SO_PEERCRED, unix(7))
  bool tls = false;
  // Whether the listener serves only clients with a certificate that its authority signed. The client's: its common
  // name, empty unless there is exactly one, and its validity, which may have ended since the handshake.
  bool is_certified = false;
  std::string certificate_name;
  CertificateTimes certificate_times;
};

// On whose behalf a connection is used. When room is short, strangers' connections are closed first.
struct Owner {
  enum class Kind { kStranger, kUser, kHost };
  Kind kind = Kind::kStranger;
  std::string name;  // of the user or host
  // Whether the connection still counts for this owner, for example because the login has not ended. Called on I/O
  // threads every few seconds; must not block. Optional.
  std::function<bool()> is_current{};
};

struct HttpRequest {
  std::string id;      // 16 hex digits, new for every request; on_header may replace it with another of this form
  std::string method;  // "GET", "POST", …
  std::string target;  // a path and its query: starts with "/", no control characters, no fragment
  // Header fields, "" when absent. Taken before the body is read, so that trailers cannot change them.
  std::string accept;
  std::string content_type;
  std::string content_range;
  std::string authorization;
  std::string cookie;
  std::string csrf_token;  // X-Vexa-CSRF
  std::string origin;
  // For requests between hosts, but any client can send them.
  std::string acts_for;           // X-Vexa-Acts-For
  std::string caller_request_id;  // X-Vexa-Request-Id
  std::string host;               // Host: the name or address, and the port, by which the client knows this server
  // The protocol that the connection may change to, when the request asks for one that the server has and meets its
  // rules: kWebSocket or kRawTunnel. Otherwise empty.
  std::string upgrade;
  std::string websocket_key;
  std::string body;
  // What the header says about the body: its length, 0 without one, the largest number when it comes in chunks.
  std::size_t announced_body_bytes = 0;
  // on_header may lower this: a longer body is refused with 413 before it is in memory.
  std::size_t body_limit = std::numeric_limits<std::size_t>::max();
  Peer peer;
  std::shared_ptr<void> context;  // what on_header passes on to on_request
};

// What requests ask for in the field Upgrade.
inline constexpr std::string_view kWebSocket = "websocket";    // RFC 6455, version 13
inline constexpr std::string_view kRawTunnel = "vexa-tunnel";  // the bytes as they are

struct Tunnel;

struct HttpResponse {
  int status = 200;
  std::string content_type = "application/json";
  std::string body;
  // Instead of `body`: a text that many responses share, so that connections that do not read it take no memory.
  std::shared_ptr<const std::string> shared_body;
  std::vector<std::pair<std::string, std::string>> headers;  // additional fields; no CR or LF in either part
  bool closes_connection = false;                            // this response is the last one
  // When set: whom the connection counts for from now on. A connection is a stranger's until then.
  std::optional<Owner> owner;
  // When set: the connection leaves HTTP for the protocol that the request asked for (HttpRequest::upgrade), with the
  // status 101; the rest of this response is not sent. A request that asked for none gets 500.
  std::shared_ptr<Tunnel> tunnel;

  std::string_view BodyText() const { return shared_body ? std::string_view(*shared_body) : body; }
};

// Sends the one response of a request. Copyable; every copy belongs to the same request.
// Threads: any. Calls after the first do nothing. When the last copy is destroyed without a call, the client gets a
// 500. Sending after the client has left, or after the server is gone, is harmless.
class Responder {
 public:
  class Impl;
  explicit Responder(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}
  void Send(HttpResponse response) const;

 private:
  std::shared_ptr<Impl> impl_;
};

struct ListenerOptions {
  enum class Kind { kTcp, kUnix };
  Kind kind = Kind::kTcp;
  std::string address = "127.0.0.1";  // numeric IPv4 or IPv6; an IPv6 listener accepts IPv6 only
  std::uint16_t port = 0;             // 0: any free port, see HttpServer::port
  std::string path;    // Unix socket; a stale one is replaced, a live one is kBusy, anything else kConflict
  mode_t mode = 0666;  // of the Unix socket: which users may connect at all; the daemon decides what a client may do
  // TLS is used when the first two are set. Private keys that others may read are refused.
  std::string certificate_file;
  std::string key_file;
  // When set, the listener speaks TLS 1.3 only, and the handshake fails unless the client presents a certificate that
  // this authority signed. Otherwise no client is asked for a certificate.
  std::string client_authority_file;
};

// Times are the longest that a client may take. A request that exceeds a limit gets the response of make_error: 408,
// 413, 414 or 431; a connection above the limits gets 503 when no stranger's can be closed for it. Other connections
// that take too long are closed.
struct ServerLimits {
  std::size_t header_bytes = 16 * 1024;
  std::size_t body_bytes = 1024 * 1024;
  std::size_t connections = 10'000;
  std::size_t connections_per_peer = 6'000;   // of one network (PeerNetwork) or user id
  std::size_t connections_per_owner = 2'000;  // of one user or host
  // Bytes of unfinished requests and unread responses. Above them, the oldest connection that holds some of the peer's
  // goes: an unfinished body gets 503, any other connection is closed. A peer's only one that holds any stays, unless
  // it is a stranger's and all strangers together hold too much.
  std::size_t held_bytes_per_owner = std::size_t{32} << 20;     // of one network, user or host
  std::size_t held_bytes_of_strangers = std::size_t{64} << 20;  // of all strangers; takes from the largest network
  std::chrono::milliseconds handshake{5'000};
  std::chrono::milliseconds header{10'000};
  std::chrono::milliseconds body{30'000};
  std::chrono::milliseconds write{30'000};
  std::chrono::milliseconds idle{300'000};  // between requests
};

struct ServerOptions {
  std::vector<ListenerOptions> listeners;
  ServerLimits limits;
  int io_threads = 2;

  // Called on an I/O thread after the header, before the body. A returned response refuses the request. Must not block.
  // Optional.
  std::function<std::optional<HttpResponse>(HttpRequest&)> on_header;
  // Called on an I/O thread with the whole request. Must not block: hand longer work to a lane.
  std::function<void(HttpRequest&&, Responder)> on_request;
  // Makes the response when the server itself refuses a request: 400, 408, 413, 414, 417, 431, 500, 501, 503, 505.
  std::function<HttpResponse(int status, const std::string& request_id)> make_error;
};

struct ServerStats {
  std::size_t connections = 0;  // open now
  std::uint64_t connections_accepted = 0;
  std::uint64_t connections_refused = 0;  // over a limit
  std::uint64_t connections_evicted = 0;  // closed, or their request ended, because room or memory was short
  std::uint64_t requests = 0;
  std::uint64_t refused_by_server = 0;  // answered with make_error
};

// Threads: construct and destroy on one; any for the rest.
class HttpServer {
 public:
  // Binds and listens. Errors name the address and the reason.
  static Result<std::unique_ptr<HttpServer>> Start(ServerOptions options);
  // Same as Stop(0 s).
  ~HttpServer();

  // The port that listener `index` was bound to.
  std::uint16_t port(std::size_t index) const;

  // Makes listener `index` use the certificate and the key in these files for new connections; existing ones
  // continue. Errors: those of the start, and nothing has changed then; kUnavailable once the server is stopping.
  Status ReplaceCertificate(std::size_t index, const std::string& certificate_file, const std::string& key_file);

  // Closes the listeners and idle connections, and lets requests in progress finish (with "Connection: close" in
  // their responses) for at most `deadline`; then closes the rest. True when nothing had to be cut off. Removes
  // Unix sockets. Do not call it from the callbacks in ServerOptions: it waits for the threads that run them.
  bool Stop(std::chrono::milliseconds deadline);

  ServerStats stats() const;

  // Whether every I/O thread handles an event within `timeout`. Call it neither after Stop() nor from the callbacks.
  bool AreThreadsResponding(std::chrono::milliseconds timeout);

 private:
  class Impl;
  explicit HttpServer(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::http
