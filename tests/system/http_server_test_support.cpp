#include "tests/system/http_server_test_support.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>
#include <utility>

namespace vexa::http::testing_support {
namespace {

sockaddr_in Loopback(const char* address, std::uint16_t port) {
  sockaddr_in made{};
  made.sin_family = AF_INET;
  made.sin_port = htons(port);
  ::inet_pton(AF_INET, address, &made.sin_addr);
  return made;
}

std::string Small(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

Reply ParseHeader(const std::string& header) {
  Reply reply;
  reply.raw_header = header;
  if (header.substr(0, 9) != "HTTP/1.1 ") return reply;
  reply.status = std::atoi(header.c_str() + 9);
  for (std::size_t at = header.find("\r\n") + 2; at + 2 < header.size();) {
    const std::size_t end = header.find("\r\n", at);
    const std::size_t colon = header.find(": ", at);
    EXPECT_LT(colon, end) << header;
    const std::string name = Small(header.substr(at, colon - at));
    EXPECT_EQ(reply.fields.count(name), 0U) << header;
    reply.fields[name] = header.substr(colon + 2, end - colon - 2);
    at = end + 2;
  }
  return reply;
}

}  // namespace

std::string Reply::field(const std::string& name) const {
  const auto found = fields.find(name);
  return found == fields.end() ? std::string() : found->second;
}

Client Client::Tcp(std::uint16_t port, const char* local_address) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (local_address != nullptr) {
    const sockaddr_in local = Loopback(local_address, 0);
    EXPECT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local), 0) << std::strerror(errno);
  }
  const sockaddr_in server = Loopback("127.0.0.1", port);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0) {
    ::close(fd);
    fd = -1;
  }
  return Client(fd);
}

Client Client::Unix(const std::string& path) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un server{};
  server.sun_family = AF_UNIX;
  std::strncpy(server.sun_path, path.c_str(), sizeof server.sun_path - 1);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0) {
    ::close(fd);
    fd = -1;
  }
  return Client(fd);
}

Client::Client(Client&& other) noexcept : fd_(std::exchange(other.fd_, -1)), input_(std::move(other.input_)) {}

Client::~Client() { Close(); }

void Client::Close() {
  if (fd_ >= 0) ::close(std::exchange(fd_, -1));
}

void Client::ShutdownWrite() { ::shutdown(fd_, SHUT_WR); }

void Client::Reset() {
  const linger at_once{1, 0};
  ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  Close();
}

bool Client::Send(const std::string& bytes) {
  for (std::size_t sent = 0; sent < bytes.size();) {
    const ssize_t step = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (step <= 0) return false;
    sent += static_cast<std::size_t>(step);
  }
  return true;
}

bool Client::Fill() {
  pollfd readable{fd_, POLLIN, 0};
  if (::poll(&readable, 1, static_cast<int>(milliseconds(kTimeout).count())) != 1) return false;
  char buffer[65536];
  const ssize_t got = ::recv(fd_, buffer, sizeof buffer, 0);
  if (got <= 0) return false;
  input_.append(buffer, static_cast<std::size_t>(got));
  return true;
}

Reply Client::Receive(Expect expect) {
  std::size_t end = 0;
  while ((end = input_.find("\r\n\r\n")) == std::string::npos) {
    if (!Fill()) return {};
  }
  Reply reply = ParseHeader(input_.substr(0, end + 4));
  input_.erase(0, end + 4);
  const auto length = static_cast<std::size_t>(std::atoll(reply.field("content-length").c_str()));
  if (expect == Expect::kHeaderOnly || reply.status == 100) return reply;
  while (input_.size() < length) {
    if (!Fill()) {
      ADD_FAILURE() << "the body ends after " << input_.size() << " of " << length << " bytes";
      return {};
    }
  }
  reply.body = input_.substr(0, length);
  input_.erase(0, length);
  return reply;
}

std::string Client::ReceiveAll() {
  while (Fill()) {
  }
  return std::exchange(input_, std::string());
}

bool Client::SilentlyClosed() {
  pollfd readable{fd_, POLLIN, 0};
  if (::poll(&readable, 1, static_cast<int>(milliseconds(kTimeout).count())) != 1) return false;
  char byte;
  return input_.empty() && ::recv(fd_, &byte, 1, 0) <= 0;
}

bool Client::QuietFor(milliseconds time) {
  pollfd readable{fd_, POLLIN, 0};
  return input_.empty() && ::poll(&readable, 1, static_cast<int>(time.count())) == 0;
}

TestServer::TestServer(const std::function<void(ServerOptions&)>& configure) {
  ServerOptions options;
  options.listeners.emplace_back();
  options.on_request = [this](HttpRequest&& request, Responder responder) {
    Handle(std::move(request), std::move(responder));
  };
  options.make_error = [](int status, const std::string& id) {
    HttpResponse response;
    response.status = status;
    response.body = "error " + std::to_string(status) + " " + id;
    return response;
  };
  if (configure) configure(options);
  auto started = HttpServer::Start(std::move(options));
  if (!started) {
    ADD_FAILURE() << started.error().ToString();
    std::abort();
  }
  server_ = std::move(*started);
}

TestServer::~TestServer() { Release(); }

void TestServer::Handle(HttpRequest&& request, Responder responder) {
  const std::lock_guard lock(mutex_);
  HttpResponse response;
  response.content_type = "text/plain";
  response.body = request.method + " " + request.target + " " + request.body;
  const bool hold = request.target == "/wait";
  last_request_ = std::move(request);
  if (hold) {
    held_.push_back(std::move(responder));
  } else {
    responder.Send(std::move(response));
  }
}

std::size_t TestServer::held() {
  const std::lock_guard lock(mutex_);
  return held_.size();
}

void TestServer::Release() {
  std::vector<Responder> held;
  {
    const std::lock_guard lock(mutex_);
    held.swap(held_);
  }
  for (const Responder& responder : held) {
    HttpResponse response;
    response.body = "released";
    responder.Send(std::move(response));
  }
}

std::optional<HttpRequest> TestServer::last_request() {
  const std::lock_guard lock(mutex_);
  return last_request_;
}

std::string Get(const std::string& target) { return "GET " + target + " HTTP/1.1\r\nHost: nas\r\n\r\n"; }

}  // namespace vexa::http::testing_support
