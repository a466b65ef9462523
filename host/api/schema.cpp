#include "host/api/schema.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <utility>

#include "json/readers.h"

namespace vexa::api {
namespace {

template <class Change>
Schema Changed(const Schema& schema, const Change& change) {
  Schema copy = schema;
  change(copy);
  return copy;
}

Schema OfType(ValueType type, std::string_view description) {
  Schema schema;
  schema.type = type;
  schema.description = description;
  return schema;
}

// "Its memory, in MiB."
std::string DescriptionWithUnit(const Schema& schema) {
  if (schema.unit.empty()) return schema.description;
  if (schema.description.empty()) return fmt::format("In {}.", schema.unit);
  return fmt::format("{} Unit: {}.", schema.description, schema.unit);
}

void AddLimits(const Schema& schema, Json::Value& out) {
  const bool is_list = schema.type == ValueType::kArray;
  if (schema.minimum) out[is_list ? "minItems" : "minimum"] = Json::Int64{*schema.minimum};
  if (schema.maximum) out[is_list ? "maxItems" : "maximum"] = Json::Int64{*schema.maximum};
}

void AddMembers(const Schema& schema, Json::Value& out) {
  for (const SchemaMember& member : schema.members) {
    out["properties"][member.name] = ToJsonSchema(member.schema);
    if (member.necessity == Necessity::kRequired) out["required"].append(member.name);
  }
}

}  // namespace

Schema Schema::In(std::string_view unit_name) const {
  return Changed(*this, [&](Schema& copy) { copy.unit = unit_name; });
}
Schema Schema::From(std::int64_t lowest) const {
  return Changed(*this, [&](Schema& copy) { copy.minimum = lowest; });
}
Schema Schema::To(std::int64_t highest) const {
  return Changed(*this, [&](Schema& copy) { copy.maximum = highest; });
}
Schema Schema::OneOf(std::initializer_list<std::string_view> allowed) const {
  return Changed(*this, [&](Schema& copy) { copy.values.assign(allowed.begin(), allowed.end()); });
}
Schema Schema::As(std::string_view format_name) const {
  return Changed(*this, [&](Schema& copy) { copy.format = format_name; });
}
Schema Schema::OrNull() const {
  return Changed(*this, [](Schema& copy) { copy.is_nullable = true; });
}
Schema Schema::Like(const Json::Value& value) const {
  return Changed(*this, [&](Schema& copy) { copy.example = value; });
}
Schema Schema::Saying(std::string_view sentence) const {
  return Changed(*this, [&](Schema& copy) { copy.description = sentence; });
}

namespace shape {

Schema String(std::string_view description) { return OfType(ValueType::kString, description); }
Schema Id(std::string_view description) { return String(description).As("uuid"); }
Schema RecordId(std::string_view description) {
  return String(description).Like("8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01");
}
Schema Integer(std::string_view description) { return OfType(ValueType::kInteger, description); }
Schema Number(std::string_view description) { return OfType(ValueType::kNumber, description); }
Schema Flag(std::string_view description) { return OfType(ValueType::kBoolean, description); }
Schema Time(std::string_view description) { return Integer(description).In("seconds since 1970 (Unix time)"); }
Schema Bytes(std::string_view description) { return Integer(description).In("bytes").From(0); }

Schema List(const Schema& elements, std::string_view description) {
  Schema schema = OfType(ValueType::kArray, description);
  schema.elements.push_back(elements);
  return schema;
}

Schema Object(std::vector<SchemaMember> members, std::string_view description) {
  Schema schema = OfType(ValueType::kObject, description);
  schema.members = std::move(members);
  return schema;
}

Schema MapOf(const Schema& values, std::string_view description) {
  Schema schema = OfType(ValueType::kObject, description);
  schema.elements.push_back(values);
  return schema;
}

Schema Any(std::string_view description) { return OfType(ValueType::kAny, description); }
Schema Null(std::string_view description) { return OfType(ValueType::kNull, description); }

SchemaMember Always(std::string_view name, Schema schema) {
  return {std::string(name), Necessity::kRequired, std::move(schema)};
}
SchemaMember Sometimes(std::string_view name, Schema schema) {
  return {std::string(name), Necessity::kOptional, std::move(schema)};
}

}  // namespace shape

std::string_view TypeName(ValueType type) {
  // In the order of the enumerators.
  constexpr std::array<std::string_view, 8> kNames = {"string", "integer", "boolean", "array",
                                                      "object", "number",  "null",    ""};
  return kNames.at(static_cast<std::size_t>(type));
}

Json::Value ToJsonSchema(const Schema& schema) {
  Json::Value out(Json::objectValue);
  const std::string type(TypeName(schema.type));
  if (schema.is_nullable && !type.empty()) {
    out["type"].append(type);
    out["type"].append("null");
  } else if (!type.empty()) {
    out["type"] = type;
  }
  if (std::string text = DescriptionWithUnit(schema); !text.empty()) out["description"] = std::move(text);
  if (!schema.unit.empty()) out["x-unit"] = schema.unit;
  if (!schema.format.empty()) out["format"] = schema.format;
  for (const std::string& value : schema.values) out["enum"].append(value);
  if (schema.is_nullable && !schema.values.empty()) out["enum"].append(Json::Value());
  AddLimits(schema, out);
  if (schema.example) out["examples"].append(*schema.example);
  if (schema.type == ValueType::kObject) AddMembers(schema, out);
  if (schema.elements.empty()) {
    if (schema.type == ValueType::kArray) out["items"] = Json::Value(Json::objectValue);
  } else {
    out[schema.type == ValueType::kArray ? "items" : "additionalProperties"] = ToJsonSchema(schema.elements.front());
  }
  return out;
}

const SchemaMember* FindMember(const Schema& object, std::string_view name) {
  const auto found = std::ranges::find(object.members, name, &SchemaMember::name);
  return found == object.members.end() ? nullptr : &*found;
}

}  // namespace vexa::api
