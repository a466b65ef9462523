// Total readers of JSON values: they return a result for every value, never throw, and never insert members.
//
// A value that jsoncpp can convert is converted in the same way: 2.5 becomes the integer 2, true the integer 1, and 7
// the string "7". A value whose conversion would throw reads like null: 0, "", false, no members, no elements.
//
// Written by hand because jsoncpp's own accessors throw on a value of another type, and its operator[] inserts members.
//
// Threads: any number may read the same value concurrently.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

namespace VexaVirtualization::json {

// The member of an object; null when it is missing or `value` is not an object. The reference is valid until `value`
// changes.
const Json::Value& Member(const Json::Value& value, const char* name);
const Json::Value& Member(const Json::Value& value, const std::string& name);

// As Member, but returns a null pointer when the member is missing, which distinguishes it from a member that is null.
const Json::Value* FindMember(const Json::Value& value, const char* name);
const Json::Value* FindMember(const Json::Value& value, const std::string& name);

// The member if it is a string; "" when it is missing, has another type, or `value` is not an object. Unlike
// String(Member(…)), numbers and booleans are not converted.
std::string StringMember(const Json::Value& value, const char* name);

// The element of an array; null when `index` is past its end or `value` is not an array.
const Json::Value& Element(const Json::Value& value, Json::ArrayIndex index);

// The value, converted as described above.
std::string String(const Json::Value& value);
int Int(const Json::Value& value);
unsigned int UInt(const Json::Value& value);
Json::Int64 Int64(const Json::Value& value);
Json::UInt64 UInt64(const Json::Value& value);
double Double(const Json::Value& value);
bool Bool(const Json::Value& value);

// The names of an object's members in byte order; empty when `value` is not an object.
std::vector<std::string> MemberNames(const Json::Value& value);

// `value` if it is an array, otherwise an empty array. For range-based loops over elements.
const Json::Value& Elements(const Json::Value& value);

// Replaces `value` by an empty object (or array) unless it already is one, and returns it. Call this before writing
// into a value from the caller: jsoncpp throws when the type does not fit.
Json::Value& EnsureObject(Json::Value& value);
Json::Value& EnsureArray(Json::Value& value);

// Renders the value as JSON text: compact, on one line, without a trailing newline; UTF-8 is not escaped.
std::string ToText(const Json::Value& value);
// Appends the same text to `out`.
void AppendText(std::string& out, const Json::Value& value);

}  // namespace VexaVirtualization::json

namespace vexa {

// A short name for the host, the command line and the tests, whose code is in the namespace vexa.
namespace json = VexaVirtualization::json;

}  // namespace vexa
