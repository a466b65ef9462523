#include "host/daemon/notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace vexa::daemon {

void NotifyServiceManager(std::string_view state) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): no thread changes the environment.
  const char* path = std::getenv("NOTIFY_SOCKET");
  if (!path || (path[0] != '/' && path[0] != '@')) return;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::size_t length = std::strlen(path);
  if (length >= sizeof address.sun_path) return;
  std::memcpy(address.sun_path, path, length);
  if (path[0] == '@') address.sun_path[0] = '\0';  // the abstract namespace, unix(7)
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return;
  (void)::sendto(fd, state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
                 static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
  ::close(fd);
}

}  // namespace vexa::daemon
