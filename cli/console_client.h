// A connection to the console of a guest, through the server: bytes in both directions.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "cli/http_client.h"
#include "host/base/result.h"

namespace vexa::cli {

// Threads: one at a time.
class ConsoleClient {
 public:
  enum class State { kDone, kBlocked, kEnded };
  struct Outcome {
    State state;
    std::size_t bytes = 0;
  };

  // `path` has a ticket, so no token is sent. Errors: kUnavailable, with the server's reason; kInvalid: refused to send
  // the ticket over an exposed connection.
  static Result<std::unique_ptr<ConsoleClient>> Open(const HttpClientOptions& options, const std::string& path);
  ~ConsoleClient();
  ConsoleClient(const ConsoleClient&) = delete;
  ConsoleClient& operator=(const ConsoleClient&) = delete;

  // A non-blocking socket to wait on.
  int fd() const;
  Outcome Read(char* buffer, std::size_t size);
  // The whole text, waiting for as long as it takes. False: the connection has ended.
  bool WriteAll(std::string_view bytes);

 private:
  class Impl;
  explicit ConsoleClient(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::cli
