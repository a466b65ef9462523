// A server and raw clients for the tests of the HTTP server.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/http/http_server.h"
#include "tests/support/waiting.h"

namespace vexa::http::testing_support {

using std::chrono::milliseconds;
using std::chrono::seconds;

// Generous: a loaded machine must not fail a test.
inline constexpr seconds kTimeout{20};

using test::Eventually;
using test::ProcessThreads;

struct Reply {
  int status = 0;                             // 0: the connection ended, or nothing came in time
  std::map<std::string, std::string> fields;  // names in small letters
  std::string body;
  std::string raw_header;
  std::string field(const std::string& name) const;
};

// A blocking byte stream to the server. Reads give up after kTimeout.
class Client {
 public:
  static Client Tcp(std::uint16_t port, const char* local_address = nullptr);
  static Client Unix(const std::string& path);
  explicit Client(int fd) : fd_(fd) {}
  Client(Client&& other) noexcept;
  ~Client();

  bool connected() const { return fd_ >= 0; }
  int fd() const { return fd_; }
  // False when the server has hung up.
  bool Send(const std::string& bytes);
  void ShutdownWrite();
  void Reset();  // closes with RST
  void Close();
  // One response. `kHeaderOnly`: the response to HEAD, without a body.
  enum class Expect { kBody, kHeaderOnly };
  Reply Receive(Expect expect = Expect::kBody);
  // Everything up to the end of the stream.
  std::string ReceiveAll();
  // Whether the server closes (or resets) within kTimeout, sending nothing.
  bool SilentlyClosed();
  // Nothing has come for this long, and the connection is still open.
  bool QuietFor(milliseconds time);

 private:
  bool Fill();

  int fd_ = -1;
  std::string input_;
};

// Answers every request with a line that describes what was received, unless `configure` sets on_request.
// "/wait" is held until Release().
class TestServer {
 public:
  explicit TestServer(const std::function<void(ServerOptions&)>& configure = {});
  ~TestServer();

  HttpServer& operator*() { return *server_; }
  HttpServer* operator->() { return server_.get(); }
  Client Connect(std::size_t listener = 0) const { return Client::Tcp(server_->port(listener)); }
  // For TLS and other own clients.
  std::uint16_t port(std::size_t listener = 0) const { return server_->port(listener); }

  std::size_t held();
  // Answers the held requests, from this thread.
  void Release();
  std::optional<HttpRequest> last_request();
  std::unique_ptr<HttpServer> TakeServer() { return std::move(server_); }

 private:
  void Handle(HttpRequest&& request, Responder responder);

  std::mutex mutex_;
  std::vector<Responder> held_;
  std::optional<HttpRequest> last_request_;
  std::unique_ptr<HttpServer> server_;
};

std::string Get(const std::string& target);

}  // namespace vexa::http::testing_support
