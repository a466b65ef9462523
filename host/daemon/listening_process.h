// Which process listens on an address, as far as /proc shows it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace vexa::daemon {

struct ListeningProcess {
  pid_t pid = 0;     // 0: of another account, whose open files this one may not see
  std::string name;  // "" when the pid is unknown
  uid_t user = 0;    // the owner of the socket

  // "process 12 (nginx)", or "a process of 'root'".
  std::string Text() const;
};

// The process that listens on this TCP port, on any address. Not set when the port is free.
std::optional<ListeningProcess> FindTcpListener(std::uint16_t port);

// The process that listens on the Unix socket `path`, without connecting to it.
std::optional<ListeningProcess> FindUnixListener(const std::string& path);

// Whether the process has the file open.
bool HasOpen(pid_t pid, const std::string& path);

}  // namespace vexa::daemon
