// The formats of --output.
#include "cli/output.h"

#include <gtest/gtest.h>

#include "host/base/json_parse.h"

namespace vexa::cli {
namespace {

Json::Value Parsed(const std::string& text) {
  const auto parsed = ParseJson(text);
  EXPECT_TRUE(parsed.ok());
  return parsed ? *parsed : Json::Value();
}

TEST(CliYaml, Values_OfEachKind_AreWrittenInBlockStyle) {
  EXPECT_EQ(RenderYaml(Parsed(R"({"a":[],"b":{},"guests":[{"name":"web-1","cpus":2,"on":true,"tags":["x",["y"]],
      "disk":{"size":10.5}},7,null],"n":-1})")),
            "a: []\nb: {}\nguests:\n  - cpus: 2\n    disk:\n      size: 10.5\n    name: web-1\n    \"on\": true\n"
            "    tags:\n      - x\n      - - \"y\"\n  - 7\n  - null\n\"n\": -1\n");
  EXPECT_EQ(RenderYaml(Json::Value()), "null\n");
  EXPECT_EQ(RenderYaml(Json::Value(Json::arrayValue)), "[]\n");
}

TEST(CliYaml, Strings_ThatCouldBeReadOtherwise_AreQuoted) {
  for (const auto& [text, expected] :
       std::initializer_list<std::pair<std::string, std::string>>{{"web", "web"},
                                                                  {"No", "\"No\""},
                                                                  {"12", "\"12\""},
                                                                  {"", "\"\""},
                                                                  {"a: b", "\"a: b\""},
                                                                  {"- x", "\"- x\""},
                                                                  {"\"\\", R"("\"\\")"},
                                                                  {"\n\x1b\u202e", R"("\n\x1b\u202e")"},
                                                                  {"日\U0001F600", R"("\u65e5\U0001f600")"}}) {
    EXPECT_EQ(RenderYaml(Json::Value(text)), expected + "\n");
  }
}

TEST(CliNames, Replies_OfEachShape_HaveOneLineForEachObject) {
  EXPECT_EQ(
      RenderNames(Parsed(R"({"guests":[{"guest_id":"g1","guest_name":"web"},{"guest_id":"g2","guest_name":""}]})")),
      "web\ng2\n");
  EXPECT_EQ(RenderNames(Parsed(R"([{"name":"a\u001b"},{"id":"s1"},{"x":1},"word"])")), "a\\x1b\ns1\nword\n");
  // A name that can be passed on.
  EXPECT_EQ(RenderNames(Parsed(R"([{"name":"a\\b\\"},{"name":"\\"}])")), "a\\b\\\n\\\n");
  // One object, which may contain lists.
  EXPECT_EQ(RenderNames(Parsed(R"({"guest_id":"g1","guest_name":"web","disks":[{"name":"boot"}]})")), "web\n");
  EXPECT_EQ(RenderNames(Parsed("{}")), "");
  EXPECT_EQ(RenderNames(Json::Value()), "");
}

}  // namespace
}  // namespace vexa::cli
