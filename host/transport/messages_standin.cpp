// Requests and responses in their plainest form.
#include "host/webapi/error_table.h"
#include "webapi/platform/dr.h"
#include "webapi/utils/json.h"

namespace VexaDRCore {

namespace json = VexaVirtualization::json;

Request::Request() { clear(); }
void Request::setAPI(const std::string& api) { api_ = api; }
void Request::setMethod(const std::string& method) { method_ = method; }
void Request::setVersion(int version) { version_ = version; }
void Request::addParam(const Json::Value& object) {
  for (const std::string& name : json::MemberNames(object)) parameters_[name] = object[name];
}
void Request::addParam(const std::string& name, const Json::Value& value) { parameters_[name] = value; }
void Request::setTimeout(int seconds) { timeout_s_ = seconds; }
void Request::clear() {
  api_.clear();
  method_.clear();
  version_ = 1;
  parameters_ = Json::Value(Json::objectValue);
  timeout_s_ = 0;
}
Json::Value Request::toJson() const {
  Json::Value value = parameters_;
  value["api"] = api_;
  value["method"] = method_;
  value["version"] = version_;
  return value;
}

Response::Response() = default;
Response::Response(Json::Value reply) : reply_(std::move(reply)) {}
bool Response::isSuccess() const { return json::Bool(json::Member(reply_, "success")); }
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
  const int code = json::Int(json::Member(json::Member(reply_, "error"), "code"));
  return code != 0 ? code : vexa::webapi::kErrorInternal;
}
Json::Value Response::getErrMsg() const {
  const Json::Value& error = json::Member(reply_, "error");
  const Json::Value* details = json::FindMember(error, "details");
  return details ? *details : json::Member(error, "message");
}
Json::Value Response::toJson() const { return reply_; }
void Response::clear() { reply_ = Json::Value(); }

}  // namespace VexaDRCore
