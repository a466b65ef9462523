// Reads a server's reply. The server controls every byte of it, so no function here throws or relies on a type.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <string>

#include "host/base/result.h"
#include "json/readers.h"

namespace vexa::cli {

struct HttpReply {
  int status = 0;
  std::string body;
};

// A parsed reply of the API.
struct ApiReply {
  int http_status = 0;
  bool success = false;
  Json::Value data;  // on success
  // On failure:
  std::optional<std::int64_t> code;
  std::string message;
  Json::Value details;
  std::string reason;         // a sentence; empty without one
  bool is_simulated = false;  // guests are only simulated on the host
  std::string request_id;
};

// kCorrupt when the body is not a reply of the API; the error names the HTTP status and the problem, not the body. A
// reply whose HTTP status and "success" contradict each other is not valid.
Result<ApiReply> ReadApiReply(const HttpReply& reply);

// Readers that accept any JSON value.

using VexaVirtualization::json::Member;
// Strings unchanged, numbers and booleans as JSON writes them, everything else "".
std::string Text(const Json::Value& value);
// Not set unless it is an integer that fits.
std::optional<std::int64_t> Integer(const Json::Value& value);
// True only for the boolean true.
bool IsTrue(const Json::Value& value);

// JSON text in ASCII only, so that it is safe on a terminal; on one line, or indented.
enum class JsonLayout { kOneLine, kIndented };
std::string RenderJson(const Json::Value& value, JsonLayout layout);

}  // namespace vexa::cli
