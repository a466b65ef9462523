// Listening sockets.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "host/base/result.h"
#include "host/http/http_server.h"

namespace vexa::http {

// A listening, non-blocking socket. The destructor closes it and removes a Unix socket's file.
class ListeningSocket {
 public:
  // Errors: kInvalid (not an address or path), kBusy (another process is listening there), kConflict (the path exists
  // and is not a socket), kDenied, kInternal. Each names the address. An IPv6 listener accepts IPv6 only.
  static Result<ListeningSocket> Open(const ListenerOptions& options);

  ListeningSocket(ListeningSocket&& other) noexcept;
  ListeningSocket& operator=(ListeningSocket&&) = delete;
  ~ListeningSocket();

  int fd() const { return fd_; }
  std::uint16_t port() const { return port_; }
  // Gives the descriptor to the caller. This object still removes the file.
  int Release();

 private:
  ListeningSocket() = default;
  static Result<ListeningSocket> OpenTcp(const ListenerOptions& options);
  static Result<ListeningSocket> OpenUnix(const ListenerOptions& options);

  int fd_ = -1;
  std::uint16_t port_ = 0;
  std::string path_;  // of the file to remove, if it is still the one that was created
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace vexa::http
