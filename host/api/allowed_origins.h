// Which pages of other origins may call this host from a browser (CORS).
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/http/http_server.h"

namespace vexa::api {

// Whether `text` is an origin as browsers send it: "https://nas.example" or "http://127.0.0.1:3000", in lower case,
// without a path. "*" and "null" are not.
bool IsOrigin(std::string_view text);

// Without origins, a browser gets no more than it would from a host that does not know of any of this. Cookies of such
// pages never count: their programs have a token. Threads: any; never changes.
class AllowedOrigins {
 public:
  AllowedOrigins() = default;
  explicit AllowedOrigins(std::vector<std::string> origins) : origins_(std::move(origins)) {}

  // Whether the request asks if a page of an allowed origin may make another one.
  bool IsPreflight(const http::HttpRequest& request) const;
  http::HttpResponse AnswerPreflight(const http::HttpRequest& request) const;
  // Lets the browser show the response to the page that has made the request, if its origin is allowed.
  void AddFields(const http::HttpRequest& request, http::HttpResponse& response) const;

 private:
  bool Allows(std::string_view origin) const;

  std::vector<std::string> origins_;
};

}  // namespace vexa::api
