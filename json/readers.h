// Total readers of JSON values: they return a result for any value and never throw, and reading never inserts.
//
// A value that jsoncpp can convert is converted in the same way (2.5 is the integer 2, true the integer 1, 7 the text
// "7"). A value whose conversion would throw reads like null: 0, "", false, no members, no elements.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

namespace VexaVirtualization::json {

// The member of an object; null when it is missing or `value` is not an object. The reference lives as long as `value`.
const Json::Value& Member(const Json::Value& value, const char* name);
const Json::Value& Member(const Json::Value& value, const std::string& name);

// The same, but distinguishes a missing member from one that is null: returns a null pointer when it is missing.
const Json::Value* FindMember(const Json::Value& value, const char* name);
const Json::Value* FindMember(const Json::Value& value, const std::string& name);

// The element of an array; null beyond its end, or when `value` is not an array.
const Json::Value& Element(const Json::Value& value, Json::ArrayIndex index);

std::string String(const Json::Value& value);
// The member when it is a text; empty for everything else, numbers included.
std::string TextMember(const Json::Value& value, const char* name);
int Int(const Json::Value& value);
unsigned int UInt(const Json::Value& value);
Json::Int64 Int64(const Json::Value& value);
Json::UInt64 UInt64(const Json::Value& value);
double Double(const Json::Value& value);
bool Bool(const Json::Value& value);

// The names of an object's members in byte order; none when `value` is not an object.
std::vector<std::string> MemberNames(const Json::Value& value);

// `value` when it is an array, otherwise an empty one: for range loops over elements.
const Json::Value& Elements(const Json::Value& value);

// `value` itself, replaced by an empty object or array unless it is one: for writing into a value from the caller,
// where jsoncpp would throw.
Json::Value& MakeObject(Json::Value& value);
Json::Value& MakeArray(Json::Value& value);

// The JSON text: compact, one line, no trailing newline, UTF-8 as it is.
std::string ToText(const Json::Value& value);
// The same, appended to `out`.
void AppendText(std::string& out, const Json::Value& value);

}  // namespace VexaVirtualization::json
