// Accepts connections from one listening socket and hands them to the I/O threads in turn.
#pragma once

#include <functional>

#include "host/http/http_listen.h"
#include "host/http/http_shared.h"

namespace vexa::http {

// Threads: only that of `context`, except for the constructor.
class Acceptor : public std::enable_shared_from_this<Acceptor> {
 public:
  Acceptor(boost::asio::io_context& context, ServerShared& server, ListeningSocket listening, TlsContext tls,
           std::function<void(AcceptedConnection&&)> hand_over);

  void Start();
  // For the connections that are accepted from now on.
  void ReplaceTls(TlsContext tls) { tls_ = std::move(tls); }
  // Frees the address and removes a Unix socket's file.
  void Close();

 private:
  void Arm();
  void RetryLater();
  void AcceptSome();

  ServerShared& server_;
  std::unique_ptr<ListeningSocket> listening_;
  TlsContext tls_;
  std::function<void(AcceptedConnection&&)> hand_over_;
  StreamSocket socket_;
  Timer retry_timer_;
};

}  // namespace vexa::http
