#include <fmt/format.h>

#include <algorithm>

#include "host/api/schema.h"
#include "host/base/nearest_name.h"
#include "host/base/sanitize_for_log.h"
#include "host/base/uuid.h"
#include "json/readers.h"

namespace vexa::api {
namespace {

namespace json = VexaVirtualization::json;

constexpr std::size_t kMaxQuoted = 128;

std::string MemberPath(const std::string& path, const std::string& name) {
  return path.empty() ? name : path + "." + name;
}

std::string ElementPath(const std::string& path, Json::ArrayIndex index) { return fmt::format("{}[{}]", path, index); }

std::optional<UnknownMember> FindUnknown(const Schema& schema, const Json::Value& value, const std::string& path);

std::optional<UnknownMember> FindUnknownInObject(const Schema& schema, const Json::Value& object,
                                                 const std::string& path) {
  for (const std::string& name : json::MemberNames(object)) {
    const std::string member_path = MemberPath(path, SanitizeForLog(name, kMaxQuoted));
    const Json::Value& value = json::Member(object, name);
    if (const SchemaMember* const member = FindMember(schema, name)) {
      if (auto unknown = FindUnknown(member->schema, value, member_path)) return unknown;
    } else if (!schema.members.empty()) {
      std::vector<std::string_view> known;
      for (const SchemaMember& each : schema.members) known.push_back(each.name);
      const std::string_view nearest = NearestName(name, known);
      return UnknownMember{member_path, nearest.empty() ? "" : MemberPath(path, std::string(nearest))};
    } else if (!schema.elements.empty()) {
      if (auto unknown = FindUnknown(schema.elements.front(), value, member_path)) return unknown;
    }
  }
  return std::nullopt;
}

// Values of other types are found by DescribeMisfit.
std::optional<UnknownMember> FindUnknown(const Schema& schema, const Json::Value& value, const std::string& path) {
  if (schema.type == ValueType::kObject && value.isObject()) return FindUnknownInObject(schema, value, path);
  if (schema.type != ValueType::kArray || !value.isArray() || schema.elements.empty()) return std::nullopt;
  for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
    auto unknown = FindUnknown(schema.elements.front(), json::Element(value, i), ElementPath(path, i));
    if (unknown) return unknown;
  }
  return std::nullopt;
}

// "a string", to follow "is not".
std::string_view DescribeType(ValueType type) {
  switch (type) {
    case ValueType::kString:
      return "a string";
    case ValueType::kInteger:
      return "an integer";
    case ValueType::kBoolean:
      return "true or false";
    case ValueType::kArray:
      return "a list";
    case ValueType::kObject:
      return "an object";
    case ValueType::kNumber:
      return "a number";
    case ValueType::kNull:
      return "null";
    case ValueType::kAny:
      break;
  }
  return "a value";
}

std::string DescribeValue(const Json::Value& value) {
  switch (value.type()) {
    case Json::nullValue:
      return "null";
    case Json::stringValue:
      return "'" + SanitizeForLog(json::String(value), kMaxQuoted) + "'";
    case Json::booleanValue:
      return json::Bool(value) ? "true" : "false";
    case Json::arrayValue:
      return "a list";
    case Json::objectValue:
      return "an object";
    default:
      return SanitizeForLog(json::ToText(value), kMaxQuoted);
  }
}

// Of a value of a wrong type, which is not repeated: it may be a password.
std::string_view DescribeTypeOf(const Json::Value& value) {
  if (value.isNull()) return "null";
  for (const ValueType type : {ValueType::kString, ValueType::kBoolean, ValueType::kArray, ValueType::kObject}) {
    if (HasType(value, type)) return DescribeType(type);
  }
  return DescribeType(ValueType::kNumber);
}

// "'disk' or 'iso'".
std::string DescribeValues(const std::vector<std::string>& values) {
  std::string text;
  for (std::size_t i = 0; i < values.size(); ++i) {
    const char* const separator = i == 0 ? "" : i + 1 == values.size() ? " or " : ", ";
    text += fmt::format("{}'{}'", separator, values[i]);
  }
  return text;
}

// "from 1 to 64", "of at least 1", "of at most 64".
std::string DescribeRange(const Schema& schema) {
  if (schema.minimum && schema.maximum) return fmt::format("from {} to {}", *schema.minimum, *schema.maximum);
  if (schema.minimum) return fmt::format("of at least {}", *schema.minimum);
  return fmt::format("of at most {}", schema.maximum.value_or(0));
}

bool IsInRange(const Schema& schema, const Json::Value& value) {
  if (value.isUInt64() && !value.isInt64()) return !schema.maximum;
  if (!value.isInt64()) return true;
  const std::int64_t number = json::Int64(value);
  return number >= schema.minimum.value_or(number) && number <= schema.maximum.value_or(number);
}

std::string DescribeScalarMisfit(const Schema& schema, const Json::Value& value, const std::string& path) {
  const std::string unit = schema.unit.empty() ? "" : fmt::format(" ({})", schema.unit);
  if ((schema.type == ValueType::kInteger || schema.type == ValueType::kNumber) && !IsInRange(schema, value)) {
    return fmt::format("'{}' is not {} {}{}: it is {}", path, DescribeType(schema.type), DescribeRange(schema), unit,
                       DescribeValue(value));
  }
  if (schema.type != ValueType::kString) return "";
  if (!schema.values.empty() && std::ranges::find(schema.values, json::String(value)) == schema.values.end()) {
    return fmt::format("'{}' is not {}: it is {}", path, DescribeValues(schema.values), DescribeValue(value));
  }
  if (schema.format == "uuid" && !HasUuidForm(json::String(value))) {
    return fmt::format("'{}' is not a UUID: it is {}", path, DescribeValue(value));
  }
  return "";
}

std::string DescribeListMisfit(const Schema& schema, const Json::Value& list, const std::string& path) {
  const std::int64_t size = list.size();
  if (size < schema.minimum.value_or(size) || size > schema.maximum.value_or(size)) {
    return fmt::format("'{}' is not a list with a number of elements {}: it has {}", path, DescribeRange(schema), size);
  }
  if (schema.elements.empty()) return "";
  for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
    std::string misfit = DescribeMisfit(schema.elements.front(), json::Element(list, i), ElementPath(path, i));
    if (!misfit.empty()) return misfit;
  }
  return "";
}

std::string DescribeObjectMisfit(const Schema& schema, const Json::Value& object, const std::string& path) {
  for (const SchemaMember& member : schema.members) {
    const Json::Value* const value = json::FindMember(object, member.name);
    const std::string member_path = MemberPath(path, member.name);
    if (!value && member.necessity == Necessity::kRequired) return fmt::format("'{}' is missing", member_path);
    if (!value) continue;
    std::string misfit = DescribeMisfit(member.schema, *value, member_path);
    if (!misfit.empty()) return misfit;
  }
  if (!schema.members.empty() || schema.elements.empty()) return "";
  for (const std::string& name : json::MemberNames(object)) {
    std::string misfit = DescribeMisfit(schema.elements.front(), json::Member(object, name),
                                        MemberPath(path, SanitizeForLog(name, kMaxQuoted)));
    if (!misfit.empty()) return misfit;
  }
  return "";
}

}  // namespace

bool HasType(const Json::Value& value, ValueType type) {
  switch (type) {
    case ValueType::kString:
      return value.isString();
    case ValueType::kInteger:
      return value.type() == Json::intValue || value.type() == Json::uintValue;
    case ValueType::kBoolean:
      return value.isBool();
    case ValueType::kArray:
      return value.isArray();
    case ValueType::kObject:
      return value.isObject();
    case ValueType::kNumber:
      return value.isNumeric() && !value.isBool();
    case ValueType::kNull:
      return value.isNull();
    case ValueType::kAny:
      break;
  }
  return true;
}

std::optional<UnknownMember> FindUnknownMember(const Schema& schema, const Json::Value& value) {
  return FindUnknown(schema, value, "");
}

std::string DescribeMisfit(const Schema& schema, const Json::Value& value, const std::string& path) {
  if (schema.is_nullable && value.isNull()) return "";
  // jsoncpp's isArray and isObject are also true for null.
  if (!HasType(value, schema.type) ||
      (value.isNull() && schema.type != ValueType::kNull && schema.type != ValueType::kAny)) {
    return fmt::format("'{}' is not {}: it is {}", path, DescribeType(schema.type), DescribeTypeOf(value));
  }
  if (schema.type == ValueType::kArray) return DescribeListMisfit(schema, value, path);
  if (schema.type == ValueType::kObject) return DescribeObjectMisfit(schema, value, path);
  return DescribeScalarMisfit(schema, value, path);
}

std::string DescribeWrongReply(const Schema& schema, const Json::Value& data) {
  std::string misfit = DescribeMisfit(schema, data, "data");
  if (!misfit.empty()) return misfit;
  const std::optional<UnknownMember> unknown = FindUnknownMember(schema, data);
  return unknown ? fmt::format("'{}' is not described", unknown->path) : "";
}

}  // namespace vexa::api
