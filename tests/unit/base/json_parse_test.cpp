#include "host/base/json_parse.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host/base/json_readers.h"

namespace vexa {
namespace {

using std::string_literals::operator""s;

std::string Nested(int depth, const std::string& inside) {
  return std::string(static_cast<std::size_t>(depth), '[') + inside + std::string(static_cast<std::size_t>(depth), ']');
}

// In a buffer of exactly its size, so that the address sanitizer sees a read beyond the text.
Result<Json::Value> ParseExact(const std::string& text) {
  const std::unique_ptr<char[]> copy(new char[text.size()]);
  text.copy(copy.get(), text.size());
  return ParseJson(std::string_view(copy.get(), text.size()));
}

// By both readers: whatever the quick one accepts, the thorough one reads as the same.
Json::Value Parsed(const std::string& text) {
  auto result = ParseExact(text);
  EXPECT_TRUE(result.ok()) << text << ": " << result.error().ToString();
  const auto thorough = ReadWithJsoncpp(text);
  EXPECT_TRUE(thorough.ok()) << text;
  if (result.ok() && thorough.ok()) {
    EXPECT_EQ(*result, *thorough) << text;
    EXPECT_EQ(result->type(), thorough->type()) << text;
  }
  return result.ok() ? *result : Json::Value();
}

class RefusedText : public testing::TestWithParam<std::string> {};

TEST_P(RefusedText, Text_BadForm_IsRefusedWithAReason) {
  const auto result = ParseExact(GetParam());
  ASSERT_FALSE(result.ok()) << result->toStyledString();
  EXPECT_EQ(result.error().code(), ErrorCode::kInvalid);
  EXPECT_FALSE(result.error().cause().empty());
}

TEST_P(RefusedText, Text_InsideObjectOrArray_IsRefused) {
  EXPECT_FALSE(ParseExact("{\"a\":" + GetParam() + "}").ok());
  EXPECT_FALSE(ParseExact("[" + GetParam() + ",1]").ok() && GetParam() != "1,2");
}

INSTANTIATE_TEST_SUITE_P(Numbers, RefusedText,
                         testing::Values("-", "--1", "+1", "+", "01", "-01", "00", "-00", "1.", "-1.", ".5", "-.5", ".",
                                         "1e", "1E", "1e+", "1e-", "1e1.5", "1.5.5", "1.e1", "0e", "0e+", "0x1", "0x",
                                         "1_000", "1 000", "1-2", "1+2", "- 1", "1e 5", "NaN", "nan", "-NaN",
                                         "Infinity", "-Infinity", "inf", "-inf", "1e999", "-1e999", "1E+400", "1f",
                                         "1a", "1.0L", "\xEF\xBC\x91", "-e5", "2.e3", "-0x", "0.1.2", "1true", "0.e1",
                                         "1eE2", std::string(400, '9')));

INSTANTIATE_TEST_SUITE_P(Strings, RefusedText,
                         testing::Values("\"", "\"a", "'a'", "\"\\\"", "\"\\", "\"a\\", "\"\\x41\"", "\"\\a\"",
                                         "\"\\'\"", "\"\\0\"", "\"\\u\"", "\"\\u1\"", "\"\\u12\"", "\"\\u123\"",
                                         "\"\\u12", "\"\\u", "\"\\u123g\"", "\"\\uD83D", "\"\\U0041\"", "\"\\u 041\"",
                                         "\"\\u+041\"", "\"\\u-041\"", "\"\\u0x41\"", "\"\n\"", "\"\t\"", "\"\r\"",
                                         "\"\x1f\"", "\"\\\n\"", "\"\0\""s, "\"\\\0\""s, "\"\\u00\0041\""s, "\"a\0b\""s,
                                         "\"a\" \"b\"", "\"a\"b", "a\"b\"", "\\u0022a\"", "`a`"));

INSTANTIATE_TEST_SUITE_P(Surrogates, RefusedText,
                         testing::Values("\"\\ud800\"", "\"\\udbff\"", "\"\\udc00\"", "\"\\uDFFF\"",
                                         "\"\\ud83d\\ud83d\"", "\"\\ud83dx\"", "\"\\ud83d\\n\"", "\"\\ud83d\\u0041\"",
                                         "\"\\ud83d\\u\"", "\"\\ud83d\\udc0\"", "\"\\ud83d\\\"", "\"\\udc00\\ud83d\"",
                                         "\"\\ud83d\\ud83d\\ude00\"", "\"\\ud83d\\uDC00\\uDC00\""));

INSTANTIATE_TEST_SUITE_P(Structure, RefusedText,
                         testing::Values("", " ", "\t\r\n ", "[", "]", "{", "}", "[1", "[1,", "{\"a\"", "{\"a\":",
                                         "{\"a\":1", "{\"a\":1,", "[1,]", "[,1]", "[,]", "[1,,2]", "{,}", "{\"a\":1,}",
                                         "{,\"a\":1}", "{\"a\":1,,\"b\":2}", "{\"a\"}", "{\"a\":}", "{:1}", "{1:2}",
                                         "{a:1}", "{'a':1}", "{null:1}", "{\"a\" 1}", "{\"a\"::1}", "{\"a\":1 \"b\":2}",
                                         "[1 2]", "[\"a\":1]", "[1}", "{\"a\":1]", "[[]", "[]]", "{}}", "[](", "[] []",
                                         "{} {}", "1 1", "null null", "true,", ",", ":", "1,2", "]]]][[[[", "}{",
                                         "{\"a\":1}x", "[]\0"s, "\0"s, "[1]\0[2]"s, "{[1]:2}", "{{}:1}", "[1;2]"));

INSTANTIATE_TEST_SUITE_P(Words, RefusedText,
                         testing::Values("tru", "t", "truee", "True", "TRUE", "fals", "falsey", "nul", "nulll", "n",
                                         "None", "undefined", "truefalse", "nullnull", "true1", "1null", "no", "f", "N",
                                         "I", "-I", "@", "#", "$", "hello"));

INSTANTIATE_TEST_SUITE_P(Comments, RefusedText,
                         testing::Values("/**/", "//", "1 // one", "/* */1", "1/**/", "[1/**/]", "{\"a\":/**/1}",
                                         "# one\n1", "[1]//", "/", "[1]/"));

INSTANTIATE_TEST_SUITE_P(OtherWhitespace, RefusedText,
                         testing::Values("\v1", "1\f", "[\v]",
                                         "\xC2\xA0"
                                         "1",
                                         "\xE2\x80\xA8"
                                         "1",
                                         "\xE3\x80\x80"
                                         "1",
                                         "\xE2\x81\xA0"
                                         "1",
                                         "\b1", "1\x7F"));

INSTANTIATE_TEST_SUITE_P(ByteOrderMarks, RefusedText,
                         testing::Values("\xEF\xBB\xBF", "\xEF\xBB\xBF{}",
                                         "\xEF\xBB\xBF"
                                         "1",
                                         "\xFE\xFF\0{\0}"s, "\xFF\xFE{\0}\0"s, "{\0}\0"s, "\xEF\xBB{}"));

INSTANTIATE_TEST_SUITE_P(Utf8, RefusedText,
                         testing::Values("\"\xFF\"", "\"\x80\"", "\"\xC0\x80\"", "\"\xC1\xBF\"", "\"\xE0\x80\x80\"",
                                         "\"\xED\xA0\x80\"", "\"\xED\xBF\xBF\"", "\"\xF0\x80\x80\x80\"",
                                         "\"\xF4\x90\x80\x80\"", "\"\xF5\x80\x80\x80\"", "\"\xC3\"", "\"\xE2\x82\"",
                                         "\"\xF0\x9F\x98\"", "\"\xC3", "\xE2\x82", "\xF0\x9F\x98", "{\"\xFF\":1}"));

INSTANTIATE_TEST_SUITE_P(Duplicates, RefusedText,
                         testing::Values("{\"a\":1,\"a\":2}", "{\"a\":1,\"a\":1}", "{\"a\":null,\"a\":1}",
                                         "{\"a\":1,\"\\u0061\":2}", "{\"\":1,\"\":2}", "{\"x\":{\"a\":1,\"a\":2}}",
                                         "[{\"a\":[],\"b\":1,\"a\":{}}]", "{\"\\u0000\":1,\"\\u0000\":2}",
                                         "{\"/\":1,\"\\/\":2}"));

INSTANTIATE_TEST_SUITE_P(Depth, RefusedText,
                         testing::Values(Nested(65, ""), Nested(65, "1"), Nested(1000, "1"), std::string(100'000, '['),
                                         std::string(100'000, '{'), std::string(100'000, ']'),
                                         std::string(100'000, ']') + std::string(100'000, '['),
                                         Nested(64, "{\"a\":1}")));

struct Accepted {
  std::string text;
  std::string rendered;
};

std::string Compact(const Json::Value& value) {
  std::string text = value.toStyledString();
  std::erase_if(text, [](char c) { return c == '\n' || c == '\t' || c == ' '; });
  return text;
}

TEST(ParseJson, Parse_ValidTexts_HaveExpectedValues) {
  const std::vector<Accepted> rows = {
      {"null", "null"},
      {"true", "true"},
      {" false ", "false"},
      {"0", "0"},
      {"-0", "0"},
      {"-1", "-1"},
      {"\t\r\n 1 \t\r\n", "1"},
      {"\"\"", "\"\""},
      {"[]", "[]"},
      {"{}", "{}"},
      {"[ ]", "[]"},
      {"{ }", "{}"},
      {"[null,1,\"a\",[],{}]", "[null,1,\"a\",[],{}]"},
      {"{\"\":0}", "{\"\":0}"},
      {"{\"a\":1,\"A\":2}", "{\"A\":2,\"a\":1}"},
      {"[[1],[[2]]]", "[[1],[[2]]]"},
      {"[\"[\",\"{\",\"]\",\"}\"]", "[\"[\",\"{\",\"]\",\"}\"]"},
      {"[\"//\",\"/**/\",\"'\"]", "[\"//\",\"/**/\",\"'\"]"},
      {"\"01\"", "\"01\""},
  };
  for (const Accepted& row : rows) EXPECT_EQ(Compact(Parsed(row.text)), row.rendered) << row.text;
}

TEST(ParseJson, Integers_KeepAllTheirDigits) {
  EXPECT_EQ(Parsed("9223372036854775807").asInt64(), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(Parsed("-9223372036854775808").asInt64(), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(Parsed("18446744073709551615").asUInt64(), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(Parsed("18446744073709551615").type(), Json::uintValue);
}

TEST(ParseJson, IntegersOutside64Bits_AreDoubles) {
  EXPECT_EQ(Parsed("18446744073709551616").type(), Json::realValue);
  EXPECT_DOUBLE_EQ(Parsed("18446744073709551616").asDouble(), 18446744073709551616.0);
  EXPECT_EQ(Parsed("-9223372036854775809").type(), Json::realValue);
  EXPECT_DOUBLE_EQ(Parsed("1" + std::string(300, '0')).asDouble(), 1e300);
}

TEST(ReadWithSimdjson, Parse_UsualTexts_AreRead) {
  const std::string text = R"({"a":[1,-1,2.5,true,false,null,"b\u0000\ud83d\ude00"],"c":18446744073709551615,"":{}})";
  const auto value = ReadWithSimdjson(text, nullptr);
  ASSERT_TRUE(value);
  EXPECT_EQ(*value, Parsed(text));
  EXPECT_TRUE(ReadWithSimdjson(Nested(kMaxJsonDepth, ""), nullptr));
  EXPECT_FALSE(ReadWithSimdjson(Nested(kMaxJsonDepth + 1, ""), nullptr));
  EXPECT_FALSE(ReadWithSimdjson(R"({"a":1,"\u0061":2})", nullptr)) << "one name twice";
}

TEST(ReadWithSimdjson, Parse_LargeTexts_AreRead) {
  const std::string text = "[\"" + std::string(1 << 20, 'x') + "\"]";
  const auto value = ReadWithSimdjson(text, nullptr);
  ASSERT_TRUE(value);
  EXPECT_EQ((*value)[0].asString().size(), std::size_t{1} << 20);
}

TEST(ParseJson, Parse_InternedNames_AreNotCopied) {
  static const char kName[] = "known";
  const auto lasting = [](std::string_view name) -> const char* { return name == "known" ? kName : nullptr; };
  const auto value = ParseJson(R"({"known":1,"other":{"known":2}})", lasting);
  ASSERT_TRUE(value.ok());
  EXPECT_EQ(*value, Parsed(R"({"known":1,"other":{"known":2}})"));
  const char* end = nullptr;
  EXPECT_EQ(value->begin().memberName(&end), kName);
}

TEST(ParseJson, Fractions_AreDoubles) {
  EXPECT_DOUBLE_EQ(Parsed("1.5").asDouble(), 1.5);
  EXPECT_DOUBLE_EQ(Parsed("-0.25").asDouble(), -0.25);
  EXPECT_DOUBLE_EQ(Parsed("1e3").asDouble(), 1000);
  EXPECT_DOUBLE_EQ(Parsed("1E+3").asDouble(), 1000);
  EXPECT_DOUBLE_EQ(Parsed("0e1").asDouble(), 0);
  EXPECT_DOUBLE_EQ(Parsed("25e-2").asDouble(), 0.25);
  EXPECT_DOUBLE_EQ(Parsed("1.7976931348623157e308").asDouble(), std::numeric_limits<double>::max());
  EXPECT_EQ(Parsed("1e-999").asDouble(), 0);
  EXPECT_DOUBLE_EQ(Parsed("0." + std::string(1000, '0') + "1").asDouble(), 0);
}

TEST(ParseJson, Escapes_AreRead) {
  EXPECT_EQ(Parsed(R"("\"\\\/\b\f\n\r\t")").asString(), "\"\\/\b\f\n\r\t");
  EXPECT_EQ(Parsed(R"("\u0041\u00e9\u20AC")").asString(), "A\xC3\xA9\xE2\x82\xAC");
  EXPECT_EQ(Parsed(R"("\ud83d\ude00")").asString(), "\xF0\x9F\x98\x80");
  EXPECT_EQ(Parsed(R"("\uD800\uDC00\udbff\udfff")").asString(), "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF");
  EXPECT_EQ(Parsed(R"("\uffff\ud7ff\ue000")").asString(), "\xEF\xBF\xBF\xED\x9F\xBF\xEE\x80\x80");
  EXPECT_EQ(Parsed(R"("\\u0041")").asString(), "\\u0041");
  EXPECT_EQ(Parsed(R"("\\ud800")").asString(), "\\ud800");
  EXPECT_EQ(Parsed("\"\x7F\xF0\x9F\x98\x80\"").asString(), "\x7F\xF0\x9F\x98\x80");
}

TEST(ParseJson, EscapedNul_StaysInStringsAndNames) {
  EXPECT_EQ(Parsed(R"("a\u0000b")").asString(), "a\0b"s);
  const Json::Value object = Parsed(R"({"a\u0000b":1,"a":2,"a\u0000":3})");
  EXPECT_EQ(object.getMemberNames(), (std::vector<std::string>{"a", "a\0"s, "a\0b"s}));
}

TEST(ParseJson, Parse_SixtyFourLevels_Succeeds) {
  for (const char* inside : {"", "1", "\"a\"", "null", "1,2"}) EXPECT_TRUE(Parsed(Nested(64, inside)).isArray());
  EXPECT_TRUE(Parsed(Nested(63, "{}")).isArray());
  EXPECT_TRUE(Parsed(Nested(63, "{\"a\":1}")).isArray());
  std::string objects;
  for (int i = 0; i < 64; ++i) objects += "{\"a\":";
  EXPECT_TRUE(Parsed(objects + "1" + std::string(64, '}')).isObject());
}

TEST(ParseJson, Parse_ManySiblings_DoNotCountAsLevels) {
  std::string text = "[";
  for (int i = 0; i < 1000; ++i) text += "[],{},";
  const Json::Value value = Parsed(text + "\"" + std::string(1000, '[') + "\"]");
  EXPECT_EQ(value.size(), 2001u);
}

TEST(ParseJson, Parse_AfterRefusal_ReadsNextText) {
  for (const std::string& text : {std::string("{\"a\":[1,2,{\"b\":"), std::string("[1,2,x]"), Nested(70, ""),
                                  std::string("{\"a\":1,\"a\":2}"), std::string("1e999")}) {
    EXPECT_FALSE(ParseExact(text).ok());
    EXPECT_EQ(Compact(Parsed("{\"c\":[3]}")), "{\"c\":[3]}");
  }
}

TEST(ParseJson, Reason_Long_IsTruncatedAndPrintable) {
  const std::string name(5000, 'k');
  for (const std::string& text : {"{\"" + name + "\":1,\"" + name + "\":2}", std::string(5000, '9'),
                                  "{\"\\n\\n" + name + "\":1,\"\\n\\n" + name + "\":2}"}) {
    const auto result = ParseExact(text);
    ASSERT_FALSE(result.ok());
    EXPECT_LE(result.error().cause().size(), kMaxJsonReason);
    EXPECT_EQ(result.error().cause().find_first_of("\n\r\t"), std::string::npos);
    EXPECT_TRUE(IsValidUtf8(result.error().cause()));
  }
}

TEST(ParseJson, Reason_CutInsideCharacter_StaysUtf8) {
  for (int shift = 0; shift < 4; ++shift) {
    std::string name(static_cast<std::size_t>(shift), 'a');
    for (int i = 0; i < 300; ++i) name += "\xE2\x82\xAC";
    const auto result = ParseExact("{\"" + name + "\":1,\"" + name + "\":2}");
    ASSERT_FALSE(result.ok());
    EXPECT_TRUE(IsValidUtf8(result.error().cause())) << shift;
  }
}

// Every prefix and every one-byte change of a text with all kinds of token: the sanitizers watch.
TEST(ParseJson, Parse_DamagedTexts_NeverCrashes) {
  const std::string text = R"({"a":[-0.5e+10,12,true,false,null,"\u00e9\ud83d\ude00\n"],"b":{"c":""}})";
  ASSERT_TRUE(ParseExact(text).ok());
  for (std::size_t size = 0; size < text.size(); ++size) EXPECT_FALSE(ParseExact(text.substr(0, size)).ok()) << size;
  for (std::size_t at = 0; at < text.size(); ++at) {
    for (int byte = 0; byte < 256; ++byte) {
      std::string damaged = text;
      damaged[at] = static_cast<char>(byte);
      const auto result = ParseExact(damaged);
      EXPECT_TRUE(!result.ok() || result->isObject());
    }
  }
}

TEST(ParseJson, Parse_EightThreads_GetTheirOwnResults) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([i] {
      for (int round = 0; round < 200; ++round) {
        const auto result = ParseJson("{\"n\":" + std::to_string(i * 1000 + round) + "}");
        ASSERT_TRUE(result.ok());
        ASSERT_EQ((*result)["n"].asInt(), i * 1000 + round);
        ASSERT_FALSE(ParseJson("{\"n\":").ok());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(IsValidUtf8, IsValidUtf8_BoundariesOfEachLength_AreExact) {
  for (const char* good : {"", "a", "\x7F", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
                           "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
    EXPECT_TRUE(IsValidUtf8(good)) << good;
  }
  EXPECT_TRUE(IsValidUtf8("a\0b"s));
  for (const char* bad :
       {"\x80", "\xBF", "\xC2", "\xC2\x7F", "\xC2\xC0", "\xE0\x9F\xBF", "\xE1\x80", "\xE1\x80\xC0", "\xF0\x8F\xBF\xBF",
        "\xF1\x80\x80", "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80", "\xFE", "a\xC3"}) {
    EXPECT_FALSE(IsValidUtf8(bad)) << bad;
  }
}

}  // namespace
}  // namespace vexa
