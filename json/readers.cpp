#include "json/readers.h"

#include <cstring>
#include <limits>

namespace VexaVirtualization::json {
namespace {

// Whether jsoncpp can convert `value` to the integer type T without throwing.
template <class T>
bool ConvertsToInteger(const Json::Value& value) {
  switch (value.type()) {
    case Json::nullValue:
    case Json::booleanValue:
      return true;
    case Json::intValue: {
      const Json::Int64 number = value.asInt64();
      if constexpr (std::numeric_limits<T>::is_signed) {
        return number >= std::numeric_limits<T>::min() && number <= std::numeric_limits<T>::max();
      } else {
        return number >= 0 && static_cast<Json::UInt64>(number) <= std::numeric_limits<T>::max();
      }
    }
    case Json::uintValue:
      return value.asUInt64() <= static_cast<Json::UInt64>(std::numeric_limits<T>::max());
    case Json::realValue: {
      // The largest 64-bit integers round up when converted to double; that double is already out of range.
      const double number = value.asDouble();
      const auto highest = static_cast<double>(std::numeric_limits<T>::max());
      return number >= static_cast<double>(std::numeric_limits<T>::min()) &&
             (sizeof(T) == 8 ? number < highest : number <= highest);
    }
    default:
      return false;
  }
}

const Json::Value* Find(const Json::Value& value, const char* begin, const char* end) {
  return value.isObject() ? value.find(begin, end) : nullptr;
}

const Json::Value& OrNull(const Json::Value* value) { return value ? *value : Json::Value::nullSingleton(); }

}  // namespace

const Json::Value* FindMember(const Json::Value& value, const char* name) {
  return Find(value, name, name + std::strlen(name));
}

const Json::Value* FindMember(const Json::Value& value, const std::string& name) {
  return Find(value, name.data(), name.data() + name.size());
}

const Json::Value& Member(const Json::Value& value, const char* name) { return OrNull(FindMember(value, name)); }

const Json::Value& Member(const Json::Value& value, const std::string& name) { return OrNull(FindMember(value, name)); }

std::string StringMember(const Json::Value& value, const char* name) {
  const Json::Value& member = Member(value, name);
  return member.isString() ? String(member) : std::string();
}

const Json::Value& Element(const Json::Value& value, Json::ArrayIndex index) {
  return value.isArray() ? value[index] : Json::Value::nullSingleton();
}

std::string String(const Json::Value& value) {
  return value.isArray() || value.isObject() ? std::string() : value.asString();
}

int Int(const Json::Value& value) { return ConvertsToInteger<int>(value) ? value.asInt() : 0; }

unsigned int UInt(const Json::Value& value) { return ConvertsToInteger<unsigned int>(value) ? value.asUInt() : 0; }

Json::Int64 Int64(const Json::Value& value) { return ConvertsToInteger<Json::Int64>(value) ? value.asInt64() : 0; }

Json::UInt64 UInt64(const Json::Value& value) { return ConvertsToInteger<Json::UInt64>(value) ? value.asUInt64() : 0; }

double Double(const Json::Value& value) {
  return value.isNumeric() || value.isBool() || value.isNull() ? value.asDouble() : 0.0;
}

bool Bool(const Json::Value& value) {
  return (value.isNumeric() || value.isBool() || value.isNull()) && value.asBool();
}

Json::Value& EnsureObject(Json::Value& value) {
  if (!value.isObject()) value = Json::Value(Json::objectValue);
  return value;
}

Json::Value& EnsureArray(Json::Value& value) {
  if (!value.isArray()) value = Json::Value(Json::arrayValue);
  return value;
}

std::vector<std::string> MemberNames(const Json::Value& value) {
  return value.isObject() ? value.getMemberNames() : std::vector<std::string>();
}

const Json::Value& Elements(const Json::Value& value) {
  static const Json::Value empty(Json::arrayValue);
  return value.isArray() ? value : empty;
}

}  // namespace VexaVirtualization::json
