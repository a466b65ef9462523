#include "host/transport/added_parameter.h"

#include <optional>
#include <utility>

namespace vexa::transport {
namespace {

struct Added {
  std::string api;
  std::string method;
  std::string name;
  std::string value;
};
thread_local std::optional<Added> current;

}  // namespace

AddedParameter::AddedParameter(std::string api, std::string method, std::string name, std::string value) {
  current = Added{std::move(api), std::move(method), std::move(name), std::move(value)};
}

AddedParameter::~AddedParameter() { current.reset(); }

VexaDRCore::Request WithAddedParameter(const VexaDRCore::Request& request) {
  VexaDRCore::Request copy = request;
  if (current && request.api() == current->api && request.method() == current->method) {
    copy.addParam(current->name, current->value);
  }
  return copy;
}

}  // namespace vexa::transport
