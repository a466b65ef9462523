#include "cli/reply.h"

#include <fmt/format.h>

#include <json/writer.h>

#include "cli/printable.h"
#include "host/base/json_parse.h"

namespace vexa::cli {
namespace {

Error UnknownReply(const HttpReply& reply, std::string why) {
  return Error(ErrorCode::kCorrupt, fmt::format("The server's reply (HTTP {}) cannot be understood", reply.status),
               std::move(why));
}

std::string WithFullStop(std::string text) {
  if (!text.empty() && text.find_last_of(".?!") != text.size() - 1) text += '.';
  return text;
}

}  // namespace

std::string FailureLines(const ApiReply& reply) {
  constexpr int kFirstHostStatus = 500;  // from here on the host is at fault
  std::string message = reply.message.empty() ? "The server refused without a reason" : reply.message;
  while (message.ends_with('.')) message.pop_back();
  std::string text = fmt::format("{} ({}).", Printable(message),
                                 reply.code ? std::to_string(*reply.code) : fmt::format("HTTP {}", reply.http_status));
  const auto add = [&text](std::string_view name, std::string_view value) {
    if (!value.empty()) text += fmt::format("\n  {}: {}", name, Printable(value));
  };
  add("Reason", WithFullStop(reply.reason));
  add("Hint", reply.hint);
  const bool is_reason = reply.details.isString() && Text(reply.details) == reply.reason;
  if (!reply.details.isNull() && !is_reason) text += "\n  Details: " + RenderJson(reply.details, JsonLayout::kOneLine);
  if (reply.http_status >= kFirstHostStatus) add("Request", reply.request_id);
  return text;
}

std::string Text(const Json::Value& value) {
  if (value.isString()) return value.asString();
  if (value.isBool() || value.isNumeric()) return RenderJson(value, JsonLayout::kOneLine);
  return "";
}

std::optional<std::int64_t> Integer(const Json::Value& value) {
  // isInt64 is also true for doubles without a fraction.
  if (value.isInt64()) return value.asInt64();
  return std::nullopt;
}

bool IsTrue(const Json::Value& value) { return value.isBool() && value.asBool(); }

std::string RenderJson(const Json::Value& value, JsonLayout layout) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = layout == JsonLayout::kIndented ? "  " : "";
  builder["emitUTF8"] = false;
  const std::string text = Json::writeString(builder, value);
  // The one control character that the writer does not escape; it can only be inside a string.
  std::string result;
  for (const char c : text) {
    if (c == '\x7f') {
      result += "\\u007f";
    } else {
      result += c;
    }
  }
  return result;
}

Result<ApiReply> ReadApiReply(const HttpReply& reply) {
  const Result<Json::Value> parsed = ParseJson(reply.body);
  if (!parsed) return UnknownReply(reply, reply.body.empty() ? "it is empty" : "it is not JSON");
  const Json::Value& success = Member(*parsed, "success");
  if (!success.isBool()) return UnknownReply(reply, "it does not report whether the request succeeded");

  ApiReply result;
  result.http_status = reply.status;
  result.success = success.asBool();
  result.request_id = Text(Member(*parsed, "request_id"));
  if (result.success) {
    if (reply.status < 200 || reply.status > 299) return UnknownReply(reply, "it reports success nevertheless");
    result.data = Member(*parsed, "data");
    result.is_simulated = IsTrue(Member(*parsed, "simulated"));
    return result;
  }
  if (reply.status < 400) return UnknownReply(reply, "it reports failure nevertheless");
  const Json::Value& error = Member(*parsed, "error");
  result.code = Integer(Member(error, "code"));
  result.message = Text(Member(error, "message"));
  result.details = Member(error, "details");
  result.reason = Text(Member(error, "reason"));
  result.hint = Text(Member(error, "hint"));
  return result;
}

}  // namespace vexa::cli
