// The parts of a request that compound requests use, for as long as no library of this tree defines them.
#include "webapi/platform/dr.h"

namespace VexaDRCore {

Request::Request() : version_(1), parameters_(Json::objectValue), timeout_s_(0) {}
void Request::setAPI(const std::string& api) { api_ = api; }
void Request::setMethod(const std::string& method) { method_ = method; }
void Request::setVersion(int version) { version_ = version; }
void Request::addParam(const Json::Value& object) {
  if (!object.isObject()) return;
  for (const std::string& name : object.getMemberNames()) parameters_[name] = object[name];
}

}  // namespace VexaDRCore
