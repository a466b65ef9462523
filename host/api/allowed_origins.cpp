#include "host/api/allowed_origins.h"

#include <algorithm>

namespace vexa::api {

bool AllowedOrigins::Allows(std::string_view origin) const {
  return std::ranges::find(origins_, origin) != origins_.end();
}

bool AllowedOrigins::IsPreflight(const http::HttpRequest& request) const {
  return request.method == "OPTIONS" && Allows(request.origin);
}

http::HttpResponse AllowedOrigins::AnswerPreflight(const http::HttpRequest& request) const {
  http::HttpResponse response;
  response.status = 204;
  AddFields(request, response);
  response.headers.emplace_back("Access-Control-Allow-Methods", "GET, POST, PUT");
  response.headers.emplace_back("Access-Control-Allow-Headers", "Authorization, Content-Range, Content-Type");
  response.headers.emplace_back("Access-Control-Max-Age", "600");
  return response;
}

void AllowedOrigins::AddFields(const http::HttpRequest& request, http::HttpResponse& response) const {
  if (origins_.empty()) return;
  response.headers.emplace_back("Vary", "Origin");
  if (!Allows(request.origin)) return;
  response.headers.emplace_back("Access-Control-Allow-Origin", request.origin);
  response.headers.emplace_back("Access-Control-Expose-Headers", "Retry-After, X-Request-Id");
}

}  // namespace vexa::api
