#include "bench/load_client.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "bench/bench_util.h"

namespace vexa::bench {
namespace {

constexpr std::size_t kReadBytes = std::size_t{64} * 1024;

int Connect(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  Check(path.size() < sizeof address.sun_path, "a short path of the socket");
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  Check(fd >= 0, "socket");
  Check(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "connect");
  return fd;
}

// A response that arrives.
class Response {
 public:
  // True when it is complete.
  bool Add(std::string_view bytes) {
    received_ += bytes.size();
    if (total_ == 0) ReadHeader(bytes);
    return total_ > 0 && received_ >= total_;
  }
  int status() const { return status_; }

 private:
  void ReadHeader(std::string_view bytes) {
    constexpr std::string_view kLength = "Content-Length: ";
    header_.append(bytes);
    const std::size_t end = header_.find("\r\n\r\n");
    if (end == std::string::npos) return;
    const std::size_t length = header_.find(kLength);
    Check(length < end, "reading the length of a response");
    total_ = end + 4 + std::strtoul(header_.c_str() + length + kLength.size(), nullptr, 10);
    status_ = std::atoi(header_.c_str() + sizeof "HTTP/1.1");
  }

  std::string header_;
  std::size_t received_ = 0;
  std::size_t total_ = 0;  // 0: the header is not complete
  int status_ = 0;
};

}  // namespace

std::string RequestBytes(const std::string& method, const std::string& target, const std::string& token,
                         const std::string& body) {
  const std::string authorization = token.empty() ? "" : fmt::format("Authorization: Bearer {}\r\n", token);
  return fmt::format(
      "{} {} HTTP/1.1\r\nHost: localhost\r\n{}Content-Type: application/json\r\nContent-Length: {}\r\n\r\n{}", method,
      target, authorization, body.size(), body);
}

LoadConnection::LoadConnection(const std::string& socket) : fd_(Connect(socket)) {}

LoadConnection::~LoadConnection() { ::close(fd_); }

int LoadConnection::Call(const std::string& request) {
  const ssize_t sent = ::send(fd_, request.data(), request.size(), MSG_NOSIGNAL);
  Check(sent == static_cast<ssize_t>(request.size()), "sending a request");
  std::array<char, kReadBytes> buffer;
  Response response;
  for (;;) {
    const ssize_t bytes = ::recv(fd_, buffer.data(), buffer.size(), 0);
    Check(bytes > 0, "reading a response");
    if (response.Add({buffer.data(), static_cast<std::size_t>(bytes)})) return response.status();
  }
}

class LoadClient::Connections {
 public:
  Connections(const LoadClient& client) : client_(client), connections_(static_cast<std::size_t>(client.connections_)) {
    for (std::size_t i = 0; i < connections_.size(); ++i) Open(i);
  }
  ~Connections() {
    for (const One& one : connections_) ::close(one.fd);
    ::close(epoll_);
  }
  Connections(const Connections&) = delete;
  Connections& operator=(const Connections&) = delete;

  void HandleEvents() {
    std::array<epoll_event, 128> events;
    const int count = ::epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), 50);
    for (int i = 0; i < count; ++i) {
      const std::size_t index = events[static_cast<std::size_t>(i)].data.u64;
      while (Exchange(connections_[index], index)) {
      }
    }
  }

 private:
  struct One {
    int fd = -1;
    std::size_t sent = 0;
    Response response{};
  };

  void Open(std::size_t index) {
    One& one = connections_[index];
    one = One{Connect(client_.socket_)};
    Check(::fcntl(one.fd, F_SETFL, O_NONBLOCK) == 0, "fcntl");
    epoll_event event{};
    event.events = EPOLLIN | EPOLLOUT | EPOLLET;
    event.data.u64 = index;
    Check(::epoll_ctl(epoll_, EPOLL_CTL_ADD, one.fd, &event) == 0, "epoll_ctl");
  }

  void Reopen(std::size_t index) {
    ::close(connections_[index].fd);
    Open(index);
  }

  // Sends and reads what is possible. True when an answer came and the next request can be sent.
  bool Exchange(One& one, std::size_t index) {
    const std::string& request = client_.request_;
    while (one.sent < request.size()) {
      const ssize_t bytes = ::send(one.fd, request.data() + one.sent, request.size() - one.sent, MSG_NOSIGNAL);
      if (bytes <= 0) break;  // no room now, or the server has closed, which the next read finds
      one.sent += static_cast<std::size_t>(bytes);
    }
    for (;;) {
      const ssize_t bytes = ::recv(one.fd, buffer_.data(), buffer_.size(), 0);
      if (bytes < 0 && errno == EAGAIN) return false;
      if (bytes <= 0) {
        Reopen(index);
        return false;
      }
      if (one.response.Add({buffer_.data(), static_cast<std::size_t>(bytes)})) break;
    }
    ++client_.answers_;
    if (one.sent < request.size()) {  // refused before its end
      Reopen(index);
      return false;
    }
    one.sent = 0;
    one.response = Response();
    return true;
  }

  const LoadClient& client_;
  const int epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
  std::vector<One> connections_;
  std::array<char, kReadBytes> buffer_;
};

LoadClient::LoadClient(std::string socket, std::string request, int connections)
    : socket_(std::move(socket)),
      request_(std::move(request)),
      connections_(connections),
      thread_([this](const std::stop_token& stop) { Run(stop); }) {}

void LoadClient::Run(const std::stop_token& stop) const {
  const sched_param none{};
  Check(::sched_setscheduler(0, SCHED_IDLE, &none) == 0, "sched_setscheduler");
  Connections connections(*this);
  while (!stop.stop_requested()) connections.HandleEvents();
}

}  // namespace vexa::bench
