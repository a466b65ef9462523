// A client that costs little, so that a benchmark measures the server: it sends the same request on many connections.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace vexa::bench {

// A whole request with a JSON body; without an Authorization field when `token` is empty.
std::string RequestBytes(const std::string& method, const std::string& target, const std::string& token,
                         const std::string& body);

// A blocking connection to the Unix socket. Ends the program on errors.
class LoadConnection {
 public:
  explicit LoadConnection(const std::string& socket);
  ~LoadConnection();
  LoadConnection(const LoadConnection&) = delete;
  LoadConnection& operator=(const LoadConnection&) = delete;
  // Sends the request and reads its response, of which the status is returned.
  int Call(const std::string& request);

 private:
  int fd_;
};

// While it exists, each connection sends the request again as soon as it has been answered, and connects again when it
// was closed. One thread, which runs only when no other thread of the machine wants to (SCHED_IDLE).
class LoadClient {
 public:
  LoadClient(std::string socket, std::string request, int connections);

  std::uint64_t answers() const { return answers_; }

 private:
  class Connections;
  void Run(const std::stop_token& stop) const;

  const std::string socket_;
  const std::string request_;
  const int connections_;
  mutable std::atomic<std::uint64_t> answers_ = 0;
  std::jthread thread_;  // last: it uses the others
};

}  // namespace vexa::bench
