#include "json/readers.h"
#include "webapi/platform/webapi.h"

namespace VEXA {
namespace {

namespace json = VexaVirtualization::json;

bool IsString(const Json::Value& value) { return value.isString(); }
// True only for values of an integer type: 2.0 is not one.
bool IsInt(const Json::Value& value) {
  return (value.type() == Json::intValue || value.type() == Json::uintValue) && value.isInt();
}
bool IsBool(const Json::Value& value) { return value.isBool(); }
bool IsArray(const Json::Value& value) { return value.isArray(); }
const Json::Value& Unconverted(const Json::Value& value) { return value; }

template <class T, class Convert>
APIParameter<T> Check(const Json::Value& parameters, const std::string& name, int necessity,
                      bool (*has_type)(const Json::Value&), Convert convert, bool (*validator)(const T&)) {
  using State = typename APIParameter<T>::State;
  const Json::Value* value = json::FindMember(parameters, name);
  if (!value) return APIParameter<T>(necessity == 0 ? State::kInvalid : State::kAbsent);
  if (!has_type(*value)) return APIParameter<T>(State::kInvalid);
  T converted = convert(*value);
  if (validator && !validator(converted)) return APIParameter<T>(State::kInvalid);
  return APIParameter<T>(std::move(converted));
}

}  // namespace

APIRequest::APIRequest(Json::Value parameters, std::string login_user, Privilege privilege)
    : parameters_(std::move(parameters)), login_user_(std::move(login_user)), privilege_(privilege) {
  if (!parameters_.isObject()) parameters_ = Json::Value(Json::objectValue);
}

APIParameter<std::string> APIRequest::GetAndCheckString(const std::string& name, int necessity,
                                                        bool (*validator)(const std::string&)) const {
  return Check<std::string>(parameters_, name, necessity, IsString, json::String, validator);
}

APIParameter<int> APIRequest::GetAndCheckInt(const std::string& name, int necessity,
                                             bool (*validator)(const int&)) const {
  return Check<int>(parameters_, name, necessity, IsInt, json::Int, validator);
}

APIParameter<bool> APIRequest::GetAndCheckBool(const std::string& name, int necessity,
                                               bool (*validator)(const bool&)) const {
  return Check<bool>(parameters_, name, necessity, IsBool, json::Bool, validator);
}

APIParameter<Json::Value> APIRequest::GetAndCheckArray(const std::string& name, int necessity,
                                                       bool (*validator)(const Json::Value&)) const {
  return Check<Json::Value>(parameters_, name, necessity, IsArray, Unconverted, validator);
}

Json::Value APIRequest::GetParam(const std::string& name, const Json::Value& fallback) const {
  if (name.empty()) return parameters_;
  const Json::Value* value = json::FindMember(parameters_, name);
  return value ? *value : fallback;
}

bool APIRequest::HasParam(const std::string& name) const { return json::FindMember(parameters_, name) != nullptr; }

std::string APIRequest::GetLoginUserName() const { return login_user_; }

bool APIRequest::IsAdmin() const { return privilege_ == Privilege::kAdministrator; }

void APIResponse::SetSuccess(const Json::Value& data) { SetSuccess(Json::Value(data)); }

void APIResponse::SetSuccess(Json::Value&& data) {
  state_ = State::kSuccess;
  code_ = 0;
  data_ = std::move(data);
}

void APIResponse::SetError(int code, const Json::Value& details) {
  state_ = State::kError;
  code_ = code;
  data_ = details;
}

}  // namespace VEXA
