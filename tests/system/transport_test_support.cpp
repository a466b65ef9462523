#include "tests/system/transport_test_support.h"

#include <arpa/inet.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <utility>

#include "host/base/files.h"
#include "host/base/json_parse.h"
#include "json/readers.h"
#include "tests/support/check.h"

namespace vexa::test {
namespace {

// A socket that is bound to a free port of 127.0.0.1, and the port.
std::pair<int, std::uint16_t> BoundSocket() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  Check(fd >= 0, "socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  Check(::bind(fd, reinterpret_cast<sockaddr*>(&address), size) == 0, "bind");
  Check(::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0, "getsockname");
  return {fd, ntohs(address.sin_port)};
}

void Install(transport::TransportOptions options) {
  auto made = transport::Transport::Make(std::move(options));
  Check(made.ok(), made.ok() ? "" : made.error().ToString().c_str());
  transport::InstallTransport(std::move(*made));
}

transport::TransportOptions OptionsFor(InstalledTransport::Addresses addresses) {
  transport::TransportOptions options;
  options.host_id = kLocalHost;
  options.find_address = [addresses = std::move(addresses)](const std::string& host_id) {
    const auto found = addresses.find(host_id);
    return found == addresses.end() ? std::nullopt : std::optional(found->second);
  };
  return options;
}

}  // namespace

void AllowManyDescriptors() {
  rlimit limit{};
  Check(::getrlimit(RLIMIT_NOFILE, &limit) == 0, "getrlimit");
  limit.rlim_cur = limit.rlim_max == RLIM_INFINITY ? 65'536 : std::min<rlim_t>(limit.rlim_max, 65'536);
  Check(::setrlimit(RLIMIT_NOFILE, &limit) == 0, "setrlimit");
}

std::string AddressOf(std::uint16_t port) { return "127.0.0.1:" + std::to_string(port); }

std::uint16_t UnusedPort() {
  const auto [fd, port] = BoundSocket();
  ::close(fd);
  return port;
}

VexaDRCore::Request MakeRequest(int timeout_s) {
  VexaDRCore::Request request;
  request.setAPI("VEXA.Test");
  request.setMethod("ask");
  request.addParam("guest_id", "g1");
  request.setTimeout(timeout_s);
  return request;
}

Json::Value Parse(const std::string& text) {
  Result<Json::Value> parsed = ParseJson(text);
  EXPECT_TRUE(parsed.ok()) << text.substr(0, 200);
  return parsed.ok() ? *parsed : Json::Value();
}

std::string FailureOf(const VexaDRCore::Response& response) {
  EXPECT_FALSE(response.isSuccess());
  const Json::Value reply = response.toJson();
  EXPECT_EQ(json::Member(reply, "success"), Json::Value(false));
  EXPECT_EQ(json::Int(json::Member(json::Member(reply, "error"), "code")), 102) << json::ToText(reply).substr(0, 300);
  return json::String(json::Member(json::Member(reply, "error"), "message"));
}

double SecondsOf(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

InstalledTransport::InstalledTransport(Addresses addresses, transport::LocalCall local_call,
                                       std::chrono::milliseconds default_timeout) {
  transport::TransportOptions options = OptionsFor(std::move(addresses));
  options.local_call = std::move(local_call);
  options.default_timeout = default_timeout;
  options.remote = transport::TransportOptions::Remote::kPlain;
  Install(std::move(options));
}

InstalledTransport::InstalledTransport(Addresses addresses, transport::TlsFiles tls, std::string host_id) {
  transport::TransportOptions options = OptionsFor(std::move(addresses));
  options.host_id = std::move(host_id);
  options.remote = transport::TransportOptions::Remote::kTls;
  options.tls = std::move(tls);
  Install(std::move(options));
}

InstalledTransport::~InstalledTransport() { transport::RemoveTransport(); }

JsonHost::JsonHost(Answer answer, http::ListenerOptions listener) {
  http::ServerOptions options;
  options.listeners = {std::move(listener)};
  options.limits.body_bytes = std::size_t{16} << 20;
  options.io_threads = 1;
  options.on_request = [count = requests_, answer = std::move(answer)](http::HttpRequest&& request,
                                                                       http::Responder responder) {
    ++*count;
    answer(std::move(request), std::move(responder));
  };
  options.make_error = [](int status, const std::string&) {
    http::HttpResponse response;
    response.status = status;
    return response;
  };
  auto server = http::HttpServer::Start(std::move(options));
  Check(server.ok(), server.ok() ? "" : server.error().ToString().c_str());
  server_ = std::move(*server);
}

JsonHost::JsonHost(std::string body)
    : JsonHost([body = std::move(body)](http::HttpRequest&&, const http::Responder& responder) {
        http::HttpResponse response;
        response.body = body;
        responder.Send(std::move(response));
      }) {}

RawHost::RawHost(std::function<void(int)> serve) : serve_(std::move(serve)) {
  std::tie(listener_, port_) = BoundSocket();
  Check(::listen(listener_, 16) == 0, "listen");
  thread_ = std::thread([this] {
    for (int fd; (fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; ::close(fd)) serve_(fd);
  });
}

RawHost::~RawHost() {
  ::shutdown(listener_, SHUT_RDWR);  // ends accept
  thread_.join();
  ::close(listener_);
}

std::string ReceiveRequest(int fd) {
  std::string request;
  for (;;) {
    const std::size_t end = request.find("\r\n\r\n");
    const std::size_t field = request.find("Content-Length: ");
    if (end != std::string::npos && field < end &&
        request.size() >= end + 4 + std::strtoul(request.c_str() + field + 16, nullptr, 10)) {
      return request;
    }
    std::array<char, 4096> buffer;
    const ssize_t count = ::recv(fd, buffer.data(), buffer.size(), 0);
    if (count <= 0) return {};
    request.append(buffer.data(), static_cast<std::size_t>(count));
  }
}

void SendAll(int fd, const std::string& bytes) {
  for (std::string_view rest = bytes; !rest.empty();) {
    const ssize_t count = ::send(fd, rest.data(), rest.size(), MSG_NOSIGNAL);
    if (count <= 0) return;
    rest.remove_prefix(static_cast<std::size_t>(count));
  }
}

TestAuthority::TestAuthority(std::string directory) : directory_(std::move(directory)) {
  ::mkdir(directory_.c_str(), 0700);
  auto made = transport::MakeAuthority();
  Check(made.ok(), "MakeAuthority");
  credentials_ = std::move(*made);
  Check(WriteFileAtomically(directory_ + "/authority.pem", credentials_.certificate, 0644).ok(), "write");
  Check(WriteFileAtomically(directory_ + "/authority.key", credentials_.key, 0600).ok(), "write");
}

transport::TlsFiles TestAuthority::FilesOf(const std::string& host_id, const std::string& common_name,
                                           const transport::Validity& validity) const {
  auto made = transport::MakeHostCredentials(credentials_, common_name.empty() ? host_id : common_name, validity);
  Check(made.ok(), "MakeHostCredentials");
  const std::string stem = directory_ + "/" + host_id;
  Check(WriteFileAtomically(stem + ".pem", made->certificate, 0644).ok(), "write");
  Check(WriteFileAtomically(stem + ".key", made->key, 0600).ok(), "write");
  return {stem + ".pem", stem + ".key", directory_ + "/authority.pem"};
}

}  // namespace vexa::test
