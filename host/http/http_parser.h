// Parses one HTTP/1 request from bytes. Hides the parser library, so that no other file has to compile it.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "host/http/http_server.h"

namespace vexa::http {

// Use: ParseHeader once, then ParseBody until it is done. After a refusal, do not use the parser again.
class RequestParser {
 public:
  explicit RequestParser(std::size_t body_limit);
  ~RequestParser();
  RequestParser(const RequestParser&) = delete;
  RequestParser& operator=(const RequestParser&) = delete;

  // `header` ends with its empty line. Returns 0, or the status of the refusal: that of CheckRequestHeader(), 413 for a
  // Content-Length above the limit, 417 for an expectation other than 100-continue.
  int ParseHeader(std::string_view header);

  // Valid after ParseHeader has returned 0.
  bool expects_body() const;
  bool expects_continue() const;
  bool keep_alive() const;
  bool is_http_1_0() const;

  struct Progress {
    std::size_t consumed = 0;  // pass the rest again with more bytes appended; once done, the rest is the next request
    int status = 0;            // of the refusal: 400 or 413
    bool done = false;
  };
  Progress ParseBody(std::string_view bytes);

  // Filled by ParseHeader, except for the body, which grows in ParseBody, and id and peer, which the caller sets. A
  // body_limit that is lowered before the first ParseBody applies in addition to that of the constructor.
  HttpRequest& request();

 private:
  std::string RequestedUpgrade() const;

  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::http
