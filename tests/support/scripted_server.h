// A server that answers what a test says, right or wrong, byte by byte.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vexa::test {

// What one connection gets once its request has arrived.
struct ScriptedReply {
  enum class Then {
    kClose,  // the end of the reply
    kReset,  // the connection breaks
    kStall,  // nothing more comes until the server is destroyed
  };
  std::string bytes;
  Then then = Then::kClose;
};

// A whole HTTP/1.1 reply with this body.
ScriptedReply HttpReplyOf(int status, const std::string& body, const std::string& content_type = "application/json");

// One blocking thread that serves one connection after the other, one request each. The first connection gets the first
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

  // The requests so far: request line, header and body as they came.
  std::vector<std::string> requests() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::test
