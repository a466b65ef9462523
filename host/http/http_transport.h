// Moves bytes through a connected, non-blocking socket, with or without TLS. Waiting for readiness happens elsewhere.
#pragma once

#include <openssl/ssl.h>

#include <cstddef>
#include <memory>
#include <string_view>

namespace vexa::http {

enum class IoState {
  kDone,       // some bytes were transferred; for the handshake: it is finished
  kWantRead,   // retry when the socket is readable
  kWantWrite,  // retry when the socket is writable
  kEnd,        // the peer will send nothing more
  kFailed,     // no longer usable
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
  // Also true without TLS.
  bool is_established() const { return ssl_ == nullptr || handshake_done_; }
  IoResult Read(char* buffer, std::size_t size);
  // Sends from `header`, then from `body`. After kWant… the caller must pass the same bytes again.
  IoResult Write(std::string_view header, std::string_view body);
  // Whether TLS has bytes from the socket that Read() has not returned yet. There is no readiness event for them.
  bool HasPending() const { return ssl_ != nullptr && SSL_has_pending(ssl_.get()) == 1; }
  // Signals the peer that nothing follows.
  void ShutdownWrite();
  // Reads from the socket without decrypting, and discards what it read.
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

}  // namespace vexa::http
