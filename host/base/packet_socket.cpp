#include "host/base/packet_socket.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>

namespace vexa {
namespace {

constexpr int kFirstPassedDescriptor = 3;  // sd_listen_fds(3)
constexpr int kBacklog = 16;

std::optional<sockaddr_un> AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return std::nullopt;
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

}  // namespace

int PassedListener() {
  const char* const pid = std::getenv("LISTEN_PID");
  const char* const count = std::getenv("LISTEN_FDS");
  if (pid == nullptr || count == nullptr || std::to_string(::getpid()) != pid || std::string_view(count) != "1") {
    return -1;
  }
  (void)::fcntl(kFirstPassedDescriptor, F_SETFD, FD_CLOEXEC);  // programs of PAM modules do not get it
  return kFirstPassedDescriptor;
}

Result<Descriptor> ListenForPackets(const std::string& path) {
  const auto address = AddressOf(path);
  if (!address) return Error(ErrorCode::kInternal, "The path of the socket is too long");
  Descriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  (void)::unlink(path.c_str());
  const mode_t before = ::umask(0117);
  const int bound = ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address);
  ::umask(before);
  if (bound != 0 || ::listen(socket.get(), kBacklog) != 0) {
    return SystemError(ErrorCode::kInternal, fmt::format("Cannot listen on '{}'", path), errno);
  }
  return socket;
}

Result<Descriptor> ConnectForPackets(const std::string& path, int timeout_s) {
  const auto address = AddressOf(path);
  if (!address) return Error(ErrorCode::kUnavailable, "The path of its socket is too long");
  Descriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  LimitWaits(socket.get(), timeout_s);
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) != 0) {
    return Error(ErrorCode::kUnavailable, std::strerror(errno));
  }
  return socket;
}

void LimitWaits(int socket, int seconds) {
  const timeval timeout{seconds, 0};
  (void)::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  (void)::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
}

bool IsPeerAllowed(int socket, const std::vector<uid_t>& users) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
  return peer.uid == 0 || std::ranges::find(users, peer.uid) != users.end();
}

}  // namespace vexa
