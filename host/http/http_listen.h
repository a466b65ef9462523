// Listening sockets.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "host/base/result.h"
#include "host/http/http_server.h"

namespace vexa::daemon {

// A listening, non-blocking socket. Closed, and a Unix socket's file removed, when destroyed.
class ListeningSocket {
 public:
  // Errors: kInvalid (not an address or path), kBusy (somebody listens there), kConflict (the path is something else
  // than a socket), kDenied, kInternal. Each names the address. An IPv6 listener takes IPv6 only.
  static Result<ListeningSocket> Open(const ListenerOptions& options);

  ListeningSocket(ListeningSocket&& other) noexcept;
  ListeningSocket& operator=(ListeningSocket&&) = delete;
  ~ListeningSocket();

  int fd() const { return fd_; }
  std::uint16_t port() const { return port_; }
  // The descriptor now belongs to the caller; the file still to this.
  int Release();

 private:
  ListeningSocket() = default;
  static Result<ListeningSocket> OpenTcp(const ListenerOptions& options);
  static Result<ListeningSocket> OpenUnix(const ListenerOptions& options);

  int fd_ = -1;
  std::uint16_t port_ = 0;
  std::string path_;  // of the file to remove, if it still is the one that was made
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace vexa::daemon
