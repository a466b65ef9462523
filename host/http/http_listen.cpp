#include "host/http/http_listen.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace vexa::http {
namespace {

constexpr int kBacklog = 4096;  // the kernel lowers it to net.core.somaxconn

struct Address {
  sockaddr_storage storage{};
  socklen_t size = 0;
  sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
};

ErrorCode CodeOf(int error_number) {
  switch (error_number) {
    case EADDRINUSE:
      return ErrorCode::kBusy;
    case EACCES:
    case EPERM:
    case EROFS:
      return ErrorCode::kDenied;
    case ENOENT:
      return ErrorCode::kNotFound;
    case EADDRNOTAVAIL:
      return ErrorCode::kInvalid;
    default:
      return ErrorCode::kInternal;
  }
}

Error ListenError(const std::string& name, int error_number) {
  return SystemError(CodeOf(error_number), fmt::format("Cannot listen on '{}'", name), error_number);
}

Result<Address> ParseTcp(const std::string& text, std::uint16_t port) {
  Address address;
  auto* const v4 = reinterpret_cast<sockaddr_in*>(&address.storage);
  auto* const v6 = reinterpret_cast<sockaddr_in6*>(&address.storage);
  if (::inet_pton(AF_INET, text.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(port);
    address.size = sizeof *v4;
  } else if (::inet_pton(AF_INET6, text.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(port);
    address.size = sizeof *v6;
  } else {
    return Error(ErrorCode::kInvalid, fmt::format("Cannot listen on '{}': it is not a numeric IP address", text));
  }
  return address;
}

Result<Address> ParseUnix(const std::string& path) {
  Address address;
  auto* const unix_address = reinterpret_cast<sockaddr_un*>(&address.storage);
  if (path.empty() || path.size() >= sizeof unix_address->sun_path || path.find('\0') != std::string::npos) {
    return Error(ErrorCode::kInvalid, fmt::format("Cannot listen on '{}': a socket's path has 1 to 107 bytes", path));
  }
  unix_address->sun_family = AF_UNIX;
  std::memcpy(unix_address->sun_path, path.c_str(), path.size() + 1);
  address.size = sizeof *unix_address;
  return address;
}

int NewSocket(int family) { return ::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0); }

// Removes the socket that a dead process left behind at `path`.
Status RemoveStaleSocket(const std::string& path, Address address) {
  struct stat file {};
  if (::lstat(path.c_str(), &file) != 0) return errno == ENOENT ? Status() : ListenError(path, errno);
  if (!S_ISSOCK(file.st_mode)) {
    return Error(ErrorCode::kConflict, fmt::format("Cannot listen on '{}': it exists and is not a socket", path));
  }
  const int probe = NewSocket(AF_UNIX);
  if (probe < 0) return ListenError(path, errno);
  const int error_number = ::connect(probe, address.get(), address.size) == 0 ? 0 : errno;
  ::close(probe);
  if (error_number == 0 || error_number == EAGAIN) {
    return Error(ErrorCode::kBusy, fmt::format("Cannot listen on '{}': another process is listening there", path));
  }
  if (error_number == ENOENT) return {};
  if (error_number != ECONNREFUSED) return ListenError(path, error_number);
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) return ListenError(path, errno);
  return {};
}

}  // namespace

Result<ListeningSocket> ListeningSocket::Open(const ListenerOptions& options) {
  return options.kind == ListenerOptions::Kind::kTcp ? OpenTcp(options) : OpenUnix(options);
}

Result<ListeningSocket> ListeningSocket::OpenTcp(const ListenerOptions& options) {
  const std::string name = fmt::format("{} port {}", options.address, options.port);
  Result<Address> address = ParseTcp(options.address, options.port);
  if (!address) return address.error();
  ListeningSocket socket;
  socket.fd_ = NewSocket(address->get()->sa_family);
  if (socket.fd_ < 0) return ListenError(name, errno);
  const int on = 1;
  ::setsockopt(socket.fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (address->get()->sa_family == AF_INET6) ::setsockopt(socket.fd_, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  if (::bind(socket.fd_, address->get(), address->size) != 0 || ::listen(socket.fd_, kBacklog) != 0) {
    return ListenError(name, errno);
  }
  if (::getsockname(socket.fd_, address->get(), &address->size) != 0) return ListenError(name, errno);
  socket.port_ =
      ntohs(address->get()->sa_family == AF_INET ? reinterpret_cast<sockaddr_in*>(&address->storage)->sin_port
                                                 : reinterpret_cast<sockaddr_in6*>(&address->storage)->sin6_port);
  return socket;
}

Result<ListeningSocket> ListeningSocket::OpenUnix(const ListenerOptions& options) {
  Result<Address> address = ParseUnix(options.path);
  if (!address) return address.error();
  if (Status stale = RemoveStaleSocket(options.path, *address); !stale) return stale.error();
  ListeningSocket socket;
  socket.fd_ = NewSocket(AF_UNIX);
  if (socket.fd_ < 0) return ListenError(options.path, errno);
  // The file inherits the socket's mode. No client can connect before the mode below is set, and the process's umask,
  // which other threads rely on, is not touched.
  ::fchmod(socket.fd_, 0);
  if (::bind(socket.fd_, address->get(), address->size) != 0) return ListenError(options.path, errno);
  struct stat file {};
  if (::lstat(options.path.c_str(), &file) != 0) return ListenError(options.path, errno);
  socket.path_ = options.path;
  socket.device_ = file.st_dev;
  socket.inode_ = file.st_ino;
  if (::listen(socket.fd_, kBacklog) != 0 || ::chmod(options.path.c_str(), options.mode & 0777) != 0) {
    return ListenError(options.path, errno);
  }
  return socket;
}

ListeningSocket::ListeningSocket(ListeningSocket&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      port_(other.port_),
      path_(std::exchange(other.path_, std::string())),
      device_(other.device_),
      inode_(other.inode_) {}

ListeningSocket::~ListeningSocket() {
  if (!path_.empty()) {
    struct stat file {};
    const bool ours = ::lstat(path_.c_str(), &file) == 0 && file.st_dev == device_ && file.st_ino == inode_;
    if (ours) ::unlink(path_.c_str());
  }
  if (fd_ >= 0) ::close(fd_);
}

int ListeningSocket::Release() { return std::exchange(fd_, -1); }

}  // namespace vexa::http
