#include "host/transport/messages.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/base/json_parse.h"
#include "host/base/json_values.h"
#include "json/readers.h"
#include "webapi/error_codes.h"

namespace vexa::transport {
namespace {

constexpr std::size_t kMaxQuoted = 200;

bool IsLetterOrDigit(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'); }

bool IsName(const std::string& name) {
  const auto fits = [](char c) { return IsLetterOrDigit(c) || c == '_' || c == '.'; };
  // "." and ".." would be path steps.
  return std::ranges::all_of(name, fits) && name.find_first_not_of('.') != std::string::npos;
}

// Safe for a log line and a terminal: short, printable ASCII.
std::string Quotable(std::string_view text) {
  std::string result(text.substr(0, kMaxQuoted));
  for (char& c : result) {
    if (c < ' ' || c > '~') c = '?';
  }
  return result;
}

}  // namespace

std::string PathOf(const VexaDRCore::Request& request) {
  if (!IsName(request.api()) || !IsName(request.method())) return {};
  return fmt::format("/webapi/{}/{}?version={}", request.api(), request.method(), request.version());
}

std::string BodyOf(const VexaDRCore::Request& request) {
  return request.parameters().isObject() ? VexaVirtualization::json::ToText(request.parameters()) : "{}";
}

Json::Value FailedReply(std::string_view host_id, std::string_view reason) {
  Json::Value reply(Json::objectValue);
  reply["success"] = false;
  reply["error"]["code"] = user_error::kUnreachable;
  reply["error"]["message"] = fmt::format("No reply from host '{}': {}", Quotable(host_id), Quotable(reason));
  return reply;
}

Json::Value ParseReply(std::string_view host_id, std::string_view body) {
  // Each value has at least one byte.
  if (body.size() > kMaxReplyValues && CountJsonValues(body, kMaxReplyValues) > kMaxReplyValues) {
    return FailedReply(host_id, fmt::format("its reply has more than {} values", kMaxReplyValues));
  }
  Result<Json::Value> parsed = ParseJson(body);
  // The parser's reason quotes the text, which belongs to the other host and does not concern our caller.
  if (!parsed) return FailedReply(host_id, "its reply is not JSON, or is nested too deeply");
  if (!parsed->isObject()) return FailedReply(host_id, "its reply is not a JSON object");
  return std::move(parsed).value();
}

}  // namespace vexa::transport
