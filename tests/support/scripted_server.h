// A server that sends the bytes that a test chooses, right or wrong.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vexa::test {

// What one connection receives once its request has arrived.
struct ScriptedReply {
  enum class Then {
    kClose,  // the end of the reply
    kReset,  // the connection breaks
    kStall,  // nothing more is sent until the server is destroyed
  };
  std::string bytes;
  Then then = Then::kClose;
};

// A complete HTTP/1.1 reply with this body.
ScriptedReply HttpReplyOf(int status, const std::string& body, const std::string& content_type = "application/json");

// One blocking thread that serves one connection after another, one request each. The first connection gets the first
// reply, and so on; the last one is repeated.
// Threads: any, at the same time.
class ScriptedServer {
 public:
  // Listens on a free port of 127.0.0.1.
  explicit ScriptedServer(std::vector<ScriptedReply> replies);
  // Listens on a Unix socket.
  ScriptedServer(std::vector<ScriptedReply> replies, const std::string& socket_path);
  ~ScriptedServer();

  std::string url() const;  // "http://127.0.0.1:<port>"

  // The requests so far: request line, header and body as received.
  std::vector<std::string> requests() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::test
