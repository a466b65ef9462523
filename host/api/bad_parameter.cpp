#include "host/api/bad_parameter.h"

#include <fmt/format.h>

#include "host/base/sanitize_for_log.h"
#include "host/base/uuid.h"
#include "json/readers.h"

namespace vexa::api {
namespace {

namespace json = VexaVirtualization::json;

constexpr std::size_t kMaxQuoted = 128;

bool HasType(const Json::Value& value, ParameterType type) {
  switch (type) {
    case ParameterType::kString:
      return value.isString();
    case ParameterType::kInteger:
      return value.isInt64() || value.isUInt64();
    case ParameterType::kBoolean:
      return value.isBool();
    case ParameterType::kArray:
      return value.isArray();
    case ParameterType::kObject:
      return value.isObject();
  }
  return true;
}

const char* NameOf(ParameterType type) {
  switch (type) {
    case ParameterType::kString:
      return "a string";
    case ParameterType::kInteger:
      return "an integer";
    case ParameterType::kBoolean:
      return "true or false";
    case ParameterType::kArray:
      return "a list";
    case ParameterType::kObject:
      break;
  }
  return "an object";
}

const char* NameOf(const Json::Value& value) {
  switch (value.type()) {
    case Json::nullValue:
      return "null";
    case Json::stringValue:
      return "a string";
    case Json::booleanValue:
      return "true or false";
    case Json::arrayValue:
      return "a list";
    case Json::objectValue:
      return "an object";
    default:
      return "a number";
  }
}

}  // namespace

std::string DescribeBadParameter(const ApiRow& row, const Json::Value& parameters) {
  for (const Parameter& parameter : row.parameters) {
    const std::string name(parameter.name);
    const Json::Value* const value = json::FindMember(parameters, name);
    if (!value && parameter.necessity == Necessity::kRequired) {
      return fmt::format("The parameter '{}' is missing", name);
    }
    if (!value) continue;
    if (!HasType(*value, parameter.type)) {
      return fmt::format("The parameter '{}' is not {}: it is {}", name, NameOf(parameter.type), NameOf(*value));
    }
    const bool is_uuid = name == "guest_id" || name == "host_id";
    if (is_uuid && !HasUuidForm(json::String(*value))) {
      return fmt::format("The parameter '{}' is not a UUID: it is '{}'", name,
                         SanitizeForLog(json::String(*value), kMaxQuoted));
    }
  }
  return "";
}

}  // namespace vexa::api
