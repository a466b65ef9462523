// One HTTP/1 request from bytes: the parser library behind a small face, so that no other file compiles it.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

#include "host/http/http_server.h"

namespace vexa::daemon {

// Use: ParseHead once, then ParseBody until it is done. After a refusal the parser is of no further use.
class RequestParser {
 public:
  explicit RequestParser(std::size_t body_limit);
  ~RequestParser();
  RequestParser(const RequestParser&) = delete;
  RequestParser& operator=(const RequestParser&) = delete;

  // `head` ends with its empty line. 0, or the status of the refusal: those of CheckRequestHead(), 413 for a
  // Content-Length above the limit and 417 for an expectation other than 100-continue.
  int ParseHead(std::string_view head);

  // After an accepted head.
  bool expects_body() const;
  bool expects_continue() const;
  bool keep_alive() const;
  bool is_http_1_0() const;

  struct Progress {
    std::size_t consumed = 0;  // the rest is to be given again, with more behind it, or belongs to the next request
    int status = 0;            // of the refusal: 400 or 413
    bool done = false;
  };
  Progress ParseBody(std::string_view bytes);

  // Filled by ParseHead, but for the body, which grows in ParseBody; id and peer are the caller's. A body_limit that is
  // lowered before the first ParseBody holds beside the one of the constructor.
  HttpRequest& request();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::daemon
