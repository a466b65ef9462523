#include "host/base/json_values.h"

#include <gtest/gtest.h>

#include <string>

#include "host/base/json_parse.h"

namespace vexa {
namespace {

constexpr std::size_t kNoLimit = 1'000'000;

struct Row {
  std::string text;
  std::size_t values;
};

const Row kRows[] = {
    {"1", 1},
    {R"("a,b")", 1},
    {"{}", 1},
    {"[]", 1},
    {"[ \t\r\n]", 1},
    {"[1]", 2},
    {"[1,2,3]", 4},
    {"[[]]", 2},
    {"[[],[]]", 3},
    {R"({"a":1})", 2},
    {R"({"a":1,"b":[]})", 3},
    {R"({"a":[{},{}]})", 4},
    {R"({"a" : [ { } , { "b" : null } ] })", 5},
    {R"({"a,[{":"}],\"[{,","b\\":"\\\\"})", 3},
    {R"(["\"",",","\\","[\\\"{"])", 5},
    {R"([{"a":[1,{"b":[true,false,"x"]}]},-1.5e3])", 10},
};

std::size_t ValuesOf(const Json::Value& value) {
  std::size_t count = 1;
  if (value.isArray() || value.isObject()) {
    for (const Json::Value& member : value) count += ValuesOf(member);
  }
  return count;
}

TEST(JsonValues, Text_Valid_HasAsManyValuesAsItsTree) {
  for (const Row& row : kRows) {
    const auto parsed = ParseJson(row.text);
    ASSERT_TRUE(parsed.ok()) << row.text;
    EXPECT_EQ(ValuesOf(*parsed), row.values) << row.text;
    EXPECT_EQ(CountJsonValues(row.text, kNoLimit), row.values) << row.text;
  }
}

TEST(JsonValues, Text_OverLimit_CountsOneMoreThanTheLimit) {
  for (const Row& row : kRows) {
    EXPECT_EQ(CountJsonValues(row.text, row.values), row.values) << row.text;
    if (row.values > 1) {
      EXPECT_EQ(CountJsonValues(row.text, row.values - 1), row.values) << row.text;
    }
  }
  std::string many = R"({"a":[{})";
  while (many.size() < (std::size_t{1} << 20)) many += ",{}";
  EXPECT_EQ(CountJsonValues(many + "]}", 2048), 2049u);
}

TEST(JsonValues, Text_NotJson_IsCountedWithoutReadingBeyondItsEnd) {
  for (const char* text : {"", "\"", "\"\\", "[\"\\", "[", "{\"", ",", "]]]]", "[}", "\\\"", "[1 2 3"}) {
    const std::string exact(text);
    EXPECT_LE(CountJsonValues(exact, kNoLimit), exact.size() + 1) << text;
  }
  EXPECT_GT(CountJsonValues(std::string(5000, '['), 2048), 2048u);
  EXPECT_GT(CountJsonValues(std::string(5000, ','), 2048), 2048u);
}

}  // namespace
}  // namespace vexa
