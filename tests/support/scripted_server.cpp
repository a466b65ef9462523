#include "tests/support/scripted_server.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>

#include "tests/support/check.h"

namespace vexa::test {
namespace {

// The length of the whole request, 0 while it is unknown.
std::size_t LengthOf(const std::string& request) {
  const std::size_t end = request.find("\r\n\r\n");
  if (end == std::string::npos) return 0;
  const std::size_t field = request.find("Content-Length: ");
  const std::size_t body = field < end ? std::strtoul(request.c_str() + field + 16, nullptr, 10) : 0;
  return end + 4 + body;
}

}  // namespace

ScriptedReply HttpReplyOf(int status, const std::string& body, const std::string& content_type) {
  return {"HTTP/1.1 " + std::to_string(status) + " Reply\r\nContent-Type: " + content_type +
              "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body,
          ScriptedReply::Then::kClose};
}

class ScriptedServer::Impl {
 public:
  explicit Impl(std::vector<ScriptedReply> replies) : replies_(std::move(replies)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Listen(AF_INET, &address, sizeof address);
    socklen_t size = sizeof address;
    Check(::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) == 0, "getsockname");
    port_ = ntohs(address.sin_port);
  }

  Impl(std::vector<ScriptedReply> replies, const std::string& path) : replies_(std::move(replies)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    Check(path.size() < sizeof address.sun_path, "The socket's path is too long");
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    Listen(AF_UNIX, &address, sizeof address);
  }

  ~Impl() {
    const std::uint64_t one = 1;
    Check(::write(stop_, &one, sizeof one) == sizeof one, "write");
    thread_.join();
    ::close(listener_);
    ::close(stop_);
  }

  std::uint16_t port() const { return port_; }

  std::vector<std::string> requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
  }

 private:
  template <class Address>
  void Listen(int family, const Address* address, socklen_t size) {
    listener_ = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Check(listener_ >= 0, "socket");
    Check(::bind(listener_, reinterpret_cast<const sockaddr*>(address), size) == 0, "bind");
    Check(::listen(listener_, 16) == 0, "listen");
    stop_ = ::eventfd(0, EFD_CLOEXEC);
    Check(stop_ >= 0, "eventfd");
    thread_ = std::thread([this] { Serve(); });
  }

  // Whether `fd` becomes ready before the server has to stop.
  bool WaitFor(int fd, short events) {
    std::array<pollfd, 2> polled{{{stop_, POLLIN, 0}, {fd, events, 0}}};
    while (::poll(polled.data(), polled.size(), -1) < 0) {
    }
    return polled[0].revents == 0;
  }

  void Serve() {
    for (std::size_t i = 0; WaitFor(listener_, POLLIN); ++i) {
      const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) continue;
      Answer(fd, replies_[std::min(i, replies_.size() - 1)]);
      ::close(fd);
    }
  }

  void Answer(int fd, const ScriptedReply& reply) {
    std::string request;
    while (LengthOf(request) == 0 || request.size() < LengthOf(request)) {
      std::array<char, 4096> buffer;
      if (!WaitFor(fd, POLLIN)) return;
      const ssize_t count = ::recv(fd, buffer.data(), buffer.size(), 0);
      if (count <= 0) return;
      request.append(buffer.data(), static_cast<std::size_t>(count));
    }
    {
      const std::lock_guard lock(mutex_);
      requests_.push_back(request);
    }
    for (std::string_view rest = reply.bytes; !rest.empty();) {
      if (!WaitFor(fd, POLLOUT)) return;
      const ssize_t count = ::send(fd, rest.data(), rest.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (count < 0 && errno == EAGAIN) continue;
      if (count < 0) return;  // the client has read enough
      rest.remove_prefix(static_cast<std::size_t>(count));
    }
    if (reply.then == ScriptedReply::Then::kStall) WaitFor(-1, 0);
    if (reply.then == ScriptedReply::Then::kReset) {
      const linger hard{1, 0};
      ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    }
  }

  const std::vector<ScriptedReply> replies_;
  std::uint16_t port_ = 0;
  int listener_ = -1;
  int stop_ = -1;
  mutable std::mutex mutex_;
  std::vector<std::string> requests_;
  std::thread thread_;
};

ScriptedServer::ScriptedServer(std::vector<ScriptedReply> replies)
    : impl_(std::make_unique<Impl>(std::move(replies))) {}
ScriptedServer::ScriptedServer(std::vector<ScriptedReply> replies, const std::string& socket_path)
    : impl_(std::make_unique<Impl>(std::move(replies), socket_path)) {}
ScriptedServer::~ScriptedServer() = default;

std::string ScriptedServer::url() const { return "http://127.0.0.1:" + std::to_string(impl_->port()); }
std::vector<std::string> ScriptedServer::requests() const { return impl_->requests(); }

}  // namespace vexa::test
