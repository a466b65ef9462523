#include <utility>

#include "json/readers.h"
#include "webapi/error_codes.h"
#include "webapi/platform/dr.h"

namespace VexaDRCore {
namespace {

namespace json = VexaVirtualization::json;

}  // namespace

Response::Response() = default;
Response::Response(Json::Value reply) : reply_(std::move(reply)) {}

bool Response::isSuccess() const {
  // Only the boolean true: a host that replies 1 or "true" does not follow the protocol, so the rest of its reply
  // cannot be trusted either.
  const Json::Value& success = json::Member(reply_, "success");
  return success.isBool() && json::Bool(success);
}

bool Response::hasData() const { return !json::Member(reply_, "data").isNull(); }
Json::Value Response::getData() const { return json::Member(reply_, "data"); }

bool Response::hasDataField(const char* name) const {
  return json::FindMember(json::Member(reply_, "data"), name) != nullptr;
}
Json::Value Response::getDataField(const char* name) const { return json::Member(json::Member(reply_, "data"), name); }

bool Response::hasField(const char* name) const { return json::FindMember(reply_, name) != nullptr; }
Json::Value Response::getField(const char* name) const { return json::Member(reply_, name); }

int Response::getErrCode() const {
  if (isSuccess()) return 0;
  // A failure with a code of 0 or out of range would look like a success.
  const Json::Value& code = json::Member(json::Member(reply_, "error"), "code");
  const int number = code.isInt() ? json::Int(code) : 0;
  return number != 0 ? number : vexa::host_error::kInternal;
}

Json::Value Response::getErrMsg() const {
  const Json::Value& error = json::Member(reply_, "error");
  const Json::Value& details = json::Member(error, "details");
  return details.isNull() ? json::Member(error, "message") : details;
}

Json::Value Response::toJson() const { return reply_; }
void Response::clear() { reply_ = Json::Value(); }

}  // namespace VexaDRCore
