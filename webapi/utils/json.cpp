#include "webapi/utils/json.h"

#include <json/writer.h>

#include <cstring>
#include <limits>
#include <memory>
#include <ostream>
#include <streambuf>

namespace VexaVirtualization::json {
namespace {

// Whether jsoncpp converts `value` to the integer type T, whose limits as doubles are `low` and below `end`.
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
      // The largest 64-bit integers round up when they become doubles; that double is already out of range.
      const double number = value.asDouble();
      const auto highest = static_cast<double>(std::numeric_limits<T>::max());
      return number >= static_cast<double>(std::numeric_limits<T>::min()) &&
             (sizeof(T) == 8 ? number < highest : number <= highest);
    }
    default:
      return false;
  }
}

// Appends to a string. An ostringstream would copy the whole text once more to hand it out.
class StringSink : public std::streambuf {
 public:
  std::string text;

 protected:
  std::streamsize xsputn(const char* data, std::streamsize size) override {
    text.append(data, static_cast<std::size_t>(size));
    return size;
  }
  int_type overflow(int_type c) override {
    if (c != traits_type::eof()) text.push_back(traits_type::to_char_type(c));
    return c;
  }
};

std::unique_ptr<Json::StreamWriter> NewWriter() {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["commentStyle"] = "None";
  builder["emitUTF8"] = true;
  return std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter());
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

Json::Value& MakeObject(Json::Value& value) {
  if (!value.isObject()) value = Json::Value(Json::objectValue);
  return value;
}

Json::Value& MakeArray(Json::Value& value) {
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

std::string ToText(const Json::Value& value) {
  thread_local const std::unique_ptr<Json::StreamWriter> writer = NewWriter();
  StringSink sink;
  std::ostream stream(&sink);
  writer->write(value, &stream);
  return std::move(sink.text);
}

}  // namespace VexaVirtualization::json
