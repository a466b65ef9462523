// Hosts and transports for the tests of requests between hosts.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "host/http/http_server.h"
#include "host/transport/certificates.h"
#include "host/transport/transport.h"
#include "tests/support/temp_dir.h"
#include "tests/support/waiting.h"
#include "webapi/platform/ccc_senders.h"

namespace vexa::test {

inline constexpr const char* kLocalHost = "local-host";

// Enough descriptors for a thousand connections with both their ends in this process.
void AllowManyDescriptors();

std::string AddressOf(std::uint16_t port);
// A port of 127.0.0.1 where nobody listens.
std::uint16_t UnusedPort();

VexaDRCore::Request MakeRequest(int timeout_s = 0);
Json::Value Parse(const std::string& text);
// The message of a failed reply with the code 102; an empty text, and a failed test, for any other reply.
std::string FailureOf(const VexaDRCore::Response& response);
double SecondsOf(const std::function<void()>& work);

// Installs a transport for its lifetime.
class InstalledTransport {
 public:
  using Addresses = std::map<std::string, std::string>;
  // Plain HTTP.
  explicit InstalledTransport(Addresses addresses, transport::LocalCall local_call = {},
                              std::chrono::milliseconds default_timeout = transport::kDefaultTimeout);
  InstalledTransport(Addresses addresses, transport::TlsFiles tls, std::string host_id);
  ~InstalledTransport();
};

// An HTTP server whose replies a test makes.
class JsonHost {
 public:
  using Answer = std::function<void(http::HttpRequest&&, http::Responder)>;
  explicit JsonHost(Answer answer, http::ListenerOptions listener = {});
  // Answers each request with `body`.
  explicit JsonHost(std::string body);

  std::uint16_t port() const { return server_->port(0); }
  std::string address() const { return AddressOf(port()); }
  int requests() const { return *requests_; }

 private:
  std::shared_ptr<std::atomic<int>> requests_ = std::make_shared<std::atomic<int>>(0);
  std::unique_ptr<http::HttpServer> server_;
};

// A listening socket and a thread that serves one connection after the other.
class RawHost {
 public:
  // `serve` must return when the other side closes.
  explicit RawHost(std::function<void(int fd)> serve);
  ~RawHost();
  std::string address() const { return AddressOf(port_); }

 private:
  int listener_ = -1;
  std::uint16_t port_ = 0;
  std::function<void(int)> serve_;
  std::thread thread_;
};

// One HTTP request from `fd`; empty when the other side closed.
std::string ReceiveRequest(int fd);
void SendAll(int fd, const std::string& bytes);

// The authority of a test's cluster, with authority.pem and authority.key, and hosts' files below a folder.
class TestAuthority {
 public:
  explicit TestAuthority(std::string directory);
  // Makes a key and a certificate; the files stay in the folder.
  transport::TlsFiles FilesOf(const std::string& host_id, const std::string& common_name = "",
                              const transport::Validity& validity = {}) const;
  const transport::Credentials& credentials() const { return credentials_; }

 private:
  std::string directory_;
  transport::Credentials credentials_;
};

}  // namespace vexa::test
