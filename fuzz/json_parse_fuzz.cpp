// JSON text from outside: an accepted text has the same value when it is written and parsed again, and the readers of
// json/readers.h handle every value of it.
#include <algorithm>
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "host/base/json_parse.h"
#include "host/base/json_readers.h"
#include "host/base/json_values.h"
#include "json/readers.h"

namespace {

namespace json = VexaVirtualization::json;
using vexa::fuzz::Check;

// Calls every reader on `value` and the values in it. Returns the depth of nesting.
int ReadEverything(const Json::Value& value, int level) {
  (void)json::String(value);
  (void)json::Int(value);
  (void)json::UInt(value);
  (void)json::Int64(value);
  (void)json::UInt64(value);
  (void)json::Double(value);
  (void)json::Bool(value);
  (void)json::Element(value, 0);
  (void)json::Element(value, ~Json::ArrayIndex{0});
  (void)json::FindMember(value, std::string("a\0b", 3));
  (void)json::Member(value, "");

  int depth = level;
  for (const std::string& name : json::MemberNames(value)) {
    const Json::Value* member = json::FindMember(value, name);
    Check(member != nullptr, "every listed member is found");
    Check(member == &json::Member(value, name), "both functions find the same member");
    depth = std::max(depth, ReadEverything(*member, level + 1));
  }
  Json::ArrayIndex index = 0;
  for (const Json::Value& element : json::Elements(value)) {
    Check(&element == &json::Element(value, index++), "elements are in order");
    depth = std::max(depth, ReadEverything(element, level + 1));
  }
  if (value.isArray() || value.isObject()) depth = std::max(depth, level + 1);
  return depth;
}

std::size_t ValuesOf(const Json::Value& value) {
  std::size_t values = 1;
  if (value.isArray() || value.isObject()) {
    for (const Json::Value& member : value) values += ValuesOf(member);
  }
  return values;
}

void CheckRefusal(const vexa::Error& error) {
  Check(error.code() == vexa::ErrorCode::kInvalid, "a refusal is kInvalid");
  Check(!error.cause().empty() && error.cause().size() <= vexa::kMaxJsonReason, "a refusal has a short reason");
  Check(vexa::IsValidUtf8(error.cause()), "a reason is text");
  Check(error.cause().find_first_of(std::string_view("\0\n\r\x1b", 4)) == std::string::npos, "a reason is one line");
}

void CheckAccepted(const Json::Value& value) {
  const Json::Value before = value;
  Check(ReadEverything(value, 0) <= vexa::kMaxJsonDepth, "no more levels than are allowed");
  Check(value == before, "reading changes nothing");

  const std::string text = json::ToText(value);
  Check(text.find_first_of(std::string_view("\0\n\r", 3)) == std::string::npos, "a value's text is one line");
  const auto again = vexa::ParseJson(text);
  Check(again.ok(), "a value's text is accepted");
  Check(*again == value, "a value's text has the same value");
  Check(json::ToText(*again) == text, "a value has one text");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = vexa::fuzz::Text(data, size);
  const auto value = vexa::ParseJson(text);
  const std::size_t counted = vexa::CountJsonValues(text, size);
  Check(!value.ok() || counted == ValuesOf(*value), "a text has as many values as were counted in it");
  if (const auto quick = vexa::ReadWithSimdjson(text, nullptr)) {
    const auto thorough = vexa::ReadWithJsoncpp(text);
    Check(thorough.ok() && *thorough == *quick, "both parsers agree on what the quick one accepts");
  }
  if (value.ok()) {
    Check(vexa::IsValidUtf8(text), "what is accepted is UTF-8");
    CheckAccepted(*value);
  } else {
    CheckRefusal(value.error());
  }
  return 0;
}
