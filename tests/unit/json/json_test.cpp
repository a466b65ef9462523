// The total readers: every reader on every kind of value.
#include "json/readers.h"

#include <gtest/gtest.h>
#include <json/writer.h>

#include <cmath>
#include <limits>

namespace {

namespace json = VexaVirtualization::json;
using Json::Value;

constexpr double kInfinity = std::numeric_limits<double>::infinity();

struct Row {
  const char* name;
  Value value;
  std::string text;
  int as_int;
  unsigned int as_uint;
  Json::Int64 as_int64;
  Json::UInt64 as_uint64;
  double as_double;
  bool as_bool;
};

std::ostream& operator<<(std::ostream& out, const Row& row) { return out << row.name; }

Value Object() {
  Value value(Json::objectValue);
  value["a"] = 1;
  return value;
}

Value Array() {
  Value value(Json::arrayValue);
  value.append(5);
  return value;
}

const Row kRows[] = {
    {"Null", Value(), "", 0, 0, 0, 0, 0.0, false},
    {"True", Value(true), "true", 1, 1, 1, 1, 1.0, true},
    {"False", Value(false), "false", 0, 0, 0, 0, 0.0, false},
    {"Seven", Value(7), "7", 7, 7, 7, 7, 7.0, true},
    {"Minus", Value(-1), "-1", -1, 0, -1, 0, -1.0, true},
    {"ThreeMilliards", Value(Json::Int64{3000000000}), "3000000000", 0, 3000000000u, 3000000000, 3000000000, 3e9, true},
    {"IntMax", Value(2147483647), "2147483647", 2147483647, 2147483647u, 2147483647, 2147483647, 2147483647.0, true},
    {"IntMin", Value(std::numeric_limits<int>::min()), "-2147483648", std::numeric_limits<int>::min(), 0, -2147483648LL,
     0, -2147483648.0, true},
    {"UInt64Max", Value(std::numeric_limits<Json::UInt64>::max()), "18446744073709551615", 0, 0, 0,
     std::numeric_limits<Json::UInt64>::max(), 18446744073709551616.0, true},
    {"Int64Min", Value(std::numeric_limits<Json::Int64>::min()), "-9223372036854775808", 0, 0,
     std::numeric_limits<Json::Int64>::min(), 0, -9223372036854775808.0, true},
    {"TwoAndAHalf", Value(2.5), "2.5", 2, 2, 2, 2, 2.5, true},
    {"MinusHalf", Value(-0.5), "-0.5", 0, 0, 0, 0, -0.5, true},
    {"Zero", Value(0.0), "0.0", 0, 0, 0, 0, 0.0, false},
    {"TwoTo63", Value(9223372036854775808.0), "9.2233720368547758e+18", 0, 0, 0, 9223372036854775808u,
     9223372036854775808.0, true},
    {"TwoTo64", Value(18446744073709551616.0), "1.8446744073709552e+19", 0, 0, 0, 0, 18446744073709551616.0, true},
    {"Infinity", Value(kInfinity), "1e+9999", 0, 0, 0, 0, kInfinity, true},
    {"Text", Value("12"), "12", 0, 0, 0, 0, 0.0, false},
    {"EmptyText", Value(""), "", 0, 0, 0, 0, 0.0, false},
    {"Array", Array(), "", 0, 0, 0, 0, 0.0, false},
    {"Object", Object(), "", 0, 0, 0, 0, 0.0, false},
};

class TotalReaders : public testing::TestWithParam<Row> {};

TEST_P(TotalReaders, AnyValue_ConvertsOrReadsAsNull) {
  const Row& row = GetParam();
  EXPECT_EQ(json::String(row.value), row.text);
  EXPECT_EQ(json::Int(row.value), row.as_int);
  EXPECT_EQ(json::UInt(row.value), row.as_uint);
  EXPECT_EQ(json::Int64(row.value), row.as_int64);
  EXPECT_EQ(json::UInt64(row.value), row.as_uint64);
  EXPECT_EQ(json::Double(row.value), row.as_double);
  EXPECT_EQ(json::Bool(row.value), row.as_bool);
}

TEST_P(TotalReaders, AnyValue_IsNotChangedByReading) {
  const Value before = GetParam().value;
  Value value = before;
  EXPECT_TRUE(json::Member(value, "missing").isNull());
  EXPECT_TRUE(json::Member(value, std::string("missing")).isNull());
  EXPECT_EQ(json::FindMember(value, "missing"), nullptr);
  EXPECT_TRUE(json::Element(value, 3).isNull());
  (void)json::MemberNames(value);
  (void)json::Elements(value);
  EXPECT_EQ(value, before);
}

TEST_P(TotalReaders, AnyValue_MembersAndElements_OnlyInObjectsAndArrays) {
  const Value& value = GetParam().value;
  EXPECT_EQ(json::MemberNames(value), value.isObject() ? std::vector<std::string>{"a"} : std::vector<std::string>{});
  EXPECT_EQ(json::Elements(value).size(), value.isArray() ? 1u : 0u);
  EXPECT_EQ(json::Int(json::Member(value, "a")), value.isObject() ? 1 : 0);
  EXPECT_EQ(json::Int(json::Element(value, 0)), value.isArray() ? 5 : 0);
}

INSTANTIATE_TEST_SUITE_P(Values, TotalReaders, testing::ValuesIn(kRows),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(TotalReaders, Readers_NotANumber_GiveFalseAndZero) {
  const Value nan(std::nan(""));
  EXPECT_EQ(json::Int(nan), 0);
  EXPECT_EQ(json::UInt64(nan), 0u);
  EXPECT_FALSE(json::Bool(nan));
}

TEST(FindMember, FindMember_NullMember_DiffersFromAbsent) {
  Value value(Json::objectValue);
  value["null"] = Value();
  ASSERT_NE(json::FindMember(value, "null"), nullptr);
  EXPECT_TRUE(json::FindMember(value, "null")->isNull());
  EXPECT_EQ(json::FindMember(value, std::string("absent")), nullptr);
}

TEST(StringMember, NotAStringMemberOfAnObject_IsEmpty) {
  Json::Value object(Json::objectValue);
  object["text"] = std::string("a\0b", 3);
  object["number"] = 7;
  object["null"] = Json::Value();
  EXPECT_EQ(json::StringMember(object, "text"), std::string("a\0b", 3));
  for (const char* name : {"number", "null", "missing"}) EXPECT_EQ(json::StringMember(object, name), "") << name;
  for (const Json::Value& other : {Json::Value(), Json::Value("text"), Json::Value(Json::arrayValue)}) {
    EXPECT_EQ(json::StringMember(other, "text"), "");
  }
}

TEST(ToText, ToText_AnyTree_IsCompactOnOneLine) {
  Value value(Json::objectValue);
  value["b"].append(1);
  value["b"].append("two\nlines");
  value["a"]["c"] = Value();
  value["umlaut"] = "\xC3\xBC";
  EXPECT_EQ(json::ToText(value), "{\"a\":{\"c\":null},\"b\":[1,\"two\\nlines\"],\"umlaut\":\"\xC3\xBC\"}");
  EXPECT_EQ(json::ToText(Value()), "null");
  EXPECT_EQ(json::ToText(Value(Json::arrayValue)), "[]");
  EXPECT_EQ(json::ToText(Value(Json::objectValue)), "{}");
  EXPECT_EQ(json::ToText(Value("%s%n")), "\"%s%n\"");
}

std::string WrittenByJsoncpp(const Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["commentStyle"] = "None";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

TEST(ToText, ToText_EveryKindOfValue_MatchesJsoncpp) {
  Value all(Json::arrayValue);
  for (const Row& row : kRows) all.append(row.value);
  for (int byte = 0; byte < 256; ++byte) {
    const std::string text = std::string("a") + static_cast<char>(byte) + "b" + static_cast<char>(byte);
    all.append(text);
    Value named(Json::objectValue);
    named[text] = byte;
    all.append(named);
  }
  for (const double number : {0.0, -0.0, 0.1, 1.0, -1.5, 1e-300, 1e300, 123456789.0, 1.0 / 3, kInfinity, -kInfinity}) {
    all.append(number);
  }
  all.append(std::nan(""));
  all.append(Value::minLargestInt);
  all.append(Value::maxLargestUInt);
  all.append(Json::stringValue);
  Value with_holes(Json::arrayValue);
  with_holes[3] = "the only one that was set";
  all.append(with_holes);
  EXPECT_EQ(json::ToText(all), WrittenByJsoncpp(all));
  for (const Value& value : all) EXPECT_EQ(json::ToText(value), WrittenByJsoncpp(value));
}

TEST(AppendText, AppendText_ExistingText_IsKept) {
  std::string text = "data:";
  json::AppendText(text, Value(7));
  json::AppendText(text, Value(true));
  EXPECT_EQ(text, "data:7true");
}

}  // namespace
