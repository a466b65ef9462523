// Strings from outside, made safe for the cluster log.
#include "host/base/sanitize_for_log.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "host/base/json_parse.h"

namespace vexa {
namespace {

const std::string kBad = "\xEF\xBF\xBD";

struct Row {
  const char* name;
  std::string text;
  std::string expected;
};
std::ostream& operator<<(std::ostream& out, const Row& row) { return out << row.name; }

class SanitizedLogText : public testing::TestWithParam<Row> {};

TEST_P(SanitizedLogText, UnprintableCharacters_AreReplaced) {
  EXPECT_EQ(SanitizeForLog(GetParam().text, 1000), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, SanitizedLogText,
    testing::Values(
        Row{"Empty", "", ""}, Row{"Plain", "The guest [web] 100%s", "The guest [web] 100%s"},
        Row{"OtherScripts", "gr\xC3\xBC\xC3\x9F \xE2\x82\xAC \xF0\x9F\x96\xA5",
            "gr\xC3\xBC\xC3\x9F \xE2\x82\xAC \xF0\x9F\x96\xA5"},
        Row{"Lines", "a\nb\r\nc\td", "a b  c d"}, Row{"Nul", {"a\0b", 3}, "a b"},
        Row{"EscapeAndDelete", "\x1B[31m\x7F", " [31m "}, Row{"C1", "a\xC2\x85\xC2\x9B\xC2\xA0", "a  \xC2\xA0"},
        Row{"Separators", "a\xE2\x80\xA8\xE2\x80\xA9z", "a  z"},
        Row{"Directions", "\u200E\u200F\u202A\u202B\u202C\u202D\u202E\u2066\u2067\u2068\u2069\u061C", "            "},
        Row{"ByteOrderMark", "a\uFEFFz", "a z"}, Row{"Joiners", "a\u200C\u200Dz", "a\u200C\u200Dz"},
        Row{"LoneBytes", "a\xFF\x80z", "a" + kBad + kBad + "z"}, Row{"Overlong", "\xC0\xAF", kBad + kBad},
        Row{"Surrogate", "\xED\xA0\x80", kBad + kBad + kBad}, Row{"CutShort", "a\xE2\x82", "a" + kBad + kBad}),
    [](const auto& test) { return std::string(test.param.name); });

TEST(SanitizedLogTextBounds, ShortText_IsUnchanged) {
  EXPECT_EQ(SanitizeForLog("abcde", 5), "abcde");
  EXPECT_EQ(SanitizeForLog("a\xE2\x82\xAC", 4), "a\xE2\x82\xAC");
}

TEST(SanitizedLogTextBounds, LongerText_EndsInAnEllipsisWithinTheLimit) {
  EXPECT_EQ(SanitizeForLog("abcdef", 5), "ab\xE2\x80\xA6");
  EXPECT_EQ(SanitizeForLog("abcd", 3), "\xE2\x80\xA6");
  EXPECT_EQ(SanitizeForLog("\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC", 8), "\xE2\x82\xAC\xE2\x80\xA6");
}

TEST(SanitizedLogTextBounds, AnyLimit_IsKeptAndCutsNoCharacter) {
  const std::string text = "a\xC3\xBC\xE2\x82\xAC\xFF\xF0\x9F\x96\xA5\n\xED\xA0\x80z\xC2";
  for (std::size_t bytes = 3; bytes < 60; ++bytes) {
    const std::string fit = SanitizeForLog(text, bytes);
    EXPECT_LE(fit.size(), bytes);
    EXPECT_TRUE(IsValidUtf8(fit)) << bytes;
  }
}

}  // namespace
}  // namespace vexa
