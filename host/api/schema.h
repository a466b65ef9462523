// The shape of a JSON value: a parameter, or the data of a reply. The API description, the reference pages, the check
// for unknown members and the reasons for wrong values are made from it.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vexa::api {

enum class ValueType { kString, kInteger, kBoolean, kArray, kObject, kNumber, kNull, kAny };
enum class Necessity { kRequired, kOptional };

struct SchemaMember;

struct Schema {
  ValueType type = ValueType::kAny;
  std::string description{};
  bool is_nullable = false;
  std::vector<std::string> values{};      // of a string: the only values it can have; empty: any
  std::optional<std::int64_t> minimum{};  // of a number; of an array, of its length
  std::optional<std::int64_t> maximum{};  // likewise
  std::string unit{};                     // of a number, such as "MiB"; "": a count, or the description says it
  std::string format{};                   // of a string, as in JSON Schema: "uuid", "date-time", "byte", "password"
  std::optional<Json::Value> example{};
  std::vector<SchemaMember> members;  // of an object: the members it can have
  std::vector<Schema> elements{};     // one element: of an array, the shape of its elements; of an object
                                      // without `members`, that of each member, whatever its name

  // Copies with one property changed, for tables of schemas.
  Schema In(std::string_view unit_name) const;
  Schema From(std::int64_t lowest) const;
  Schema To(std::int64_t highest) const;
  Schema OneOf(std::initializer_list<std::string_view> allowed) const;
  Schema As(std::string_view format_name) const;
  Schema OrNull() const;
  Schema Like(const Json::Value& value) const;  // an example
  Schema Saying(std::string_view sentence) const;
};

struct SchemaMember {
  std::string name;
  Necessity necessity;
  Schema schema;
};

// The parts that tables of schemas are written with.
namespace shape {

Schema String(std::string_view description);
Schema Id(std::string_view description);        // a UUID
Schema RecordId(std::string_view description);  // as stored, which is normally a UUID
Schema Integer(std::string_view description);
Schema Number(std::string_view description);
Schema Flag(std::string_view description);
Schema Time(std::string_view description);  // in Unix seconds
Schema Bytes(std::string_view description);
Schema List(const Schema& elements, std::string_view description);
Schema Object(std::vector<SchemaMember> members, std::string_view description = "");
Schema MapOf(const Schema& values, std::string_view description);
Schema Any(std::string_view description);
Schema Null(std::string_view description = "");

SchemaMember Always(std::string_view name, Schema schema);
SchemaMember Sometimes(std::string_view name, Schema schema);

}  // namespace shape

// The name of the type in JSON Schema; "" for kAny.
std::string_view TypeName(ValueType type);

// The schema as JSON Schema 2020-12, as OpenAPI 3.1 has it. The unit is also in the description.
Json::Value ToJsonSchema(const Schema& schema);

// The member of an object; null when it has no such member.
const SchemaMember* FindMember(const Schema& object, std::string_view name);

// Whether the value has this type. A number without a fraction that was sent with one, such as 2.0, is not an integer.
bool HasType(const Json::Value& value, ValueType type);

// The first member of `value` that the schema does not know, as a path such as "disks[0].sizee"; "" when it knows all
// of them. Objects without known members may have any. `suggestion`: the known name that was probably meant, or "".
struct UnknownMember {
  std::string path;
  std::string suggestion;  // a path likewise
};
std::optional<UnknownMember> FindUnknownMember(const Schema& schema, const Json::Value& value);

// The first value that does not fit: "'disks[0].size_gib' is not an integer from 1 to 64: it is 0". "" when all fit.
// Unknown members are not looked at. `path` is that of `value`, and is quoted in the result.
std::string DescribeMisfit(const Schema& schema, const Json::Value& value, const std::string& path);

// How the data of a reply differs from its schema: a misfit, or a member that the schema does not know. "": it does
// not.
std::string DescribeWrongReply(const Schema& schema, const Json::Value& data);

}  // namespace vexa::api
