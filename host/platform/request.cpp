#include "webapi/platform/dr.h"

namespace VexaDRCore {

Request::Request() : version_(1), parameters_(Json::objectValue), timeout_s_(0) {}

void Request::setAPI(const std::string& api) { api_ = api; }
void Request::setMethod(const std::string& method) { method_ = method; }
void Request::setVersion(int version) { version_ = version; }

void Request::addParam(const Json::Value& object) {
  if (!object.isObject()) return;
  for (auto member = object.begin(); member != object.end(); ++member) parameters_[member.name()] = *member;
}

void Request::addParam(const std::string& name, const Json::Value& value) { parameters_[name] = value; }

void Request::setTimeout(int seconds) { timeout_s_ = seconds; }

void Request::clear() { *this = Request(); }

Json::Value Request::toJson() const {
  // Set last, so that a parameter of the same name cannot make a log name another API.
  Json::Value json = parameters_;
  json["api"] = api_;
  json["method"] = method_;
  json["version"] = version_;
  return json;
}

}  // namespace VexaDRCore
