#include "host/api/schema_example.h"

#include <algorithm>

namespace vexa::api {
namespace {

constexpr const char* kId = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01";

Json::Value ExampleObject(const Schema& schema, Optionals optionals) {
  Json::Value example(Json::objectValue);
  for (const SchemaMember& member : schema.members) {
    const bool is_shown = member.necessity == Necessity::kRequired || optionals == Optionals::kAll;
    if (is_shown) example[member.name] = ExampleOf(member.schema, optionals);
  }
  return example;
}

Json::Value ExampleList(const Schema& schema, Optionals optionals) {
  Json::Value example(Json::arrayValue);
  if (schema.elements.empty()) return example;
  const std::int64_t length = std::max<std::int64_t>(schema.minimum.value_or(1), 1);
  for (std::int64_t i = 0; i < length; ++i) example.append(ExampleOf(schema.elements.front(), optionals));
  return example;
}

}  // namespace

Json::Value ExampleOf(const Schema& schema, Optionals optionals) {
  if (schema.example) return *schema.example;
  switch (schema.type) {
    case ValueType::kString:
      if (schema.format == "uuid") return kId;
      return schema.values.empty() ? "" : schema.values.front();
    case ValueType::kInteger:
    case ValueType::kNumber:
      return Json::Int64{schema.minimum.value_or(0)};
    case ValueType::kBoolean:
      return false;
    case ValueType::kArray:
      return ExampleList(schema, optionals);
    case ValueType::kObject:
      return ExampleObject(schema, optionals);
    case ValueType::kNull:
    case ValueType::kAny:
      break;
  }
  return {};
}

}  // namespace vexa::api
