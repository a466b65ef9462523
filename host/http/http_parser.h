// Parses one HTTP/1 request from bytes. A narrow interface to the parser library, so that no other file compiles it.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

#include "host/http/http_server.h"

namespace vexa::daemon {

// Use: ParseHead once, then ParseBody until it is done. After a refusal, do not use the parser again.
class RequestParser {
 public:
  explicit RequestParser(std::size_t body_limit);
  ~RequestParser();
  RequestParser(const RequestParser&) = delete;
  RequestParser& operator=(const RequestParser&) = delete;

  // `head` ends with its empty line. Returns 0, or the status of the refusal: that of CheckRequestHead(), 413 for a
  // Content-Length above the limit, 417 for an expectation other than 100-continue.
  int ParseHead(std::string_view head);

  // Call after an accepted head.
  bool expects_body() const;
  bool expects_continue() const;
  bool keep_alive() const;
  bool is_http_1_0() const;

  struct Progress {
    std::size_t consumed = 0;  // pass the rest again with more bytes appended; or it belongs to the next request
    int status = 0;            // of the refusal: 400 or 413
    bool done = false;
  };
  Progress ParseBody(std::string_view bytes);

  // Filled by ParseHead, except for the body, which grows in ParseBody, and id and peer, which the caller sets. A
  // body_limit that is lowered before the first ParseBody applies in addition to that of the constructor.
  HttpRequest& request();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::daemon
