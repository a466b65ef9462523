// A small HTTP client for tests of servers.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace vexa::test {

struct HttpTarget {
  std::string url;               // "http://127.0.0.1:8080"; for a Unix socket, what the Host field shows
  std::string unix_socket;       // used instead of TCP when set
  std::string ca_file;           // https: trusted authorities
  std::string certificate_file;  // https: the client's own
  std::string key_file;
  std::string connect_to;  // "address:port" to connect to instead of that of the URL, whose host's name still counts
};

struct HttpReply {
  // Why there is no reply at all (refused, hung up, timed out); empty when there is one.
  std::string transport_error;
  int status = 0;
  std::map<std::string, std::string> headers;  // names in lower case; the last one of several
  std::string body;

  bool arrived() const { return transport_error.empty(); }
};

// Is called with each reply that arrives at any HttpClient, and the path of its request. Link vexa_reply_check to set
// one that fails the test for replies that are not as the API description has them.
using ReplyCheck = void (*)(const std::string& path, const HttpReply& reply);
void SetReplyCheck(ReplyCheck check);

// One kept-alive connection to one server. Follows no redirects.
// Threads: one at a time.
class HttpClient {
 public:
  explicit HttpClient(HttpTarget target);
  ~HttpClient();
  HttpClient(HttpClient&&) noexcept;

  // Sent with every later request, such as "Authorization: Bearer …".
  void SetHeader(const std::string& name, const std::string& value);
  void SetTimeout(std::chrono::milliseconds timeout);

  HttpReply Get(const std::string& path);
  // Content-Type: application/json.
  HttpReply PostJson(const std::string& path, const std::string& body);
  // Any method; `headers` are whole lines, in addition to those set before and overriding curl's own.
  HttpReply Send(const std::string& method, const std::string& path, const std::vector<std::string>& headers,
                 const std::string& body);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::test
