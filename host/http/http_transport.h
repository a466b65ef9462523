// Bytes in and out of a connected, non-blocking socket, with or without TLS. Readiness is awaited elsewhere.
#pragma once

#include <openssl/ssl.h>

#include <cstddef>
#include <memory>
#include <string_view>

namespace vexa::daemon {

enum class IoState {
  kDone,       // some bytes went through; for the handshake: it is finished
  kWantRead,   // try again when the socket can be read
  kWantWrite,  // try again when it can be written
  kEnd,        // the peer will send nothing more
  kFailed,     // of no further use
};

struct IoResult {
  IoState state;
  std::size_t bytes = 0;
};

// Threads: one at a time. SIGPIPE must be blocked or ignored. The descriptor belongs to the caller.
class Transport {
 public:
  // `context` null: no TLS.
  Transport(int fd, SSL_CTX* context);

  bool tls() const { return ssl_ != nullptr; }
  SSL* ssl() const { return ssl_.get(); }

  IoResult Handshake();
  IoResult Read(char* buffer, std::size_t size);
  // Sends from `head`, then from `body`. After kWant… the same bytes must come again.
  IoResult Write(std::string_view head, std::string_view body);
  // Bytes that have left the socket but were not read yet; no readiness will tell of them.
  bool HasPending() const { return ssl_ != nullptr && SSL_has_pending(ssl_.get()) == 1; }
  // Tells the peer that nothing follows.
  void ShutdownWrite();
  // Reads past TLS and throws away.
  IoResult Discard(char* buffer, std::size_t size);

 private:
  struct FreeSsl {
    void operator()(SSL* ssl) const { SSL_free(ssl); }
  };
  IoResult FromTls(int result);

  int fd_;
  std::unique_ptr<SSL, FreeSsl> ssl_;
  bool handshake_done_ = false;
};

}  // namespace vexa::daemon
