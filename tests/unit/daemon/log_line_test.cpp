// The form of log lines: what is escaped, and where they are cut.
#include "host/daemon/log_line.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "host/base/json_parse.h"

namespace vexa::daemon {
namespace {

struct Row {
  const char* name;
  std::string text;
  std::string expected;
};
std::ostream& operator<<(std::ostream& out, const Row& row) { return out << row.name; }

class EscapedLogLine : public testing::TestWithParam<Row> {};

TEST_P(EscapedLogLine, Text_FromOutside_CannotControlATerminal) {
  EXPECT_EQ(MakeLogLine(GetParam().text, ""), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, EscapedLogLine,
    testing::Values(Row{"Plain", "plain ü € 🖥 100%s \\", "plain ü € 🖥 100%s \\"},
                    Row{"Lines", "a\nb\tc\rd", "a\\nb\\tc\\x0Dd"}, Row{"Nul", {"a\0b", 3}, "a\\x00b"},
                    Row{"EscapeAndDelete", "\x1b[31m\x7f", "\\x1B[31m\\x7F"},
                    Row{"C1", "\u0080\u009B31m\u009F\u00A0", "\\u0080\\u009B31m\\u009F\u00A0"},
                    Row{"Separators", "\u2028\u2029", "\\u2028\\u2029"},
                    Row{"Marks", "\u200E\u200F\u061C", "\\u200E\\u200F\\u061C"},
                    Row{"Embeddings", "\u202A\u202B\u202C\u202D\u202E", "\\u202A\\u202B\\u202C\\u202D\\u202E"},
                    Row{"Isolates", "\u2066\u2067\u2068\u2069", "\\u2066\\u2067\\u2068\\u2069"},
                    Row{"ByteOrderMark", "\uFEFFa", "\\uFEFFa"}, Row{"Joiners", "a\u200C\u200Db", "a\u200C\u200Db"},
                    Row{"LoneBytes", "a\xFF\x80z", "a\\xFF\\x80z"}, Row{"C1AsByte", "\x9B", "\\x9B"},
                    Row{"Overlong", "\xC0\xAF", "\\xC0\\xAF"}, Row{"Surrogate", "\xED\xA0\x80", "\\xED\\xA0\\x80"},
                    Row{"CutShort", "a\xE2\x82", "a\\xE2\\x82"}),
    [](const auto& test) { return std::string(test.param.name); });

TEST(LogLine, RequestId_Set_IsAppended) {
  EXPECT_EQ(MakeLogLine("guest:5 a\nb", "00ff"), "guest:5 a\\nb [request 00ff]");
}

TEST(LogLine, LongText_AnyLimit_IsCutBetweenCharactersAndKeepsTheId) {
  std::string text;
  while (text.size() < 3 * kMaxLogLine) text += "ü\n€";
  for (std::size_t limit : {std::size_t{64}, std::size_t{65}, std::size_t{66}, std::size_t{67}, kMaxStderrLine,
                            kMaxStderrLine + 1, kMaxLogLine}) {
    const std::string line = MakeLogLine(text, "1", limit);
    EXPECT_LE(line.size(), limit);
    EXPECT_GT(line.size() + 8, limit) << "a cut that is not needed";
    EXPECT_TRUE(IsValidUtf8(line)) << limit;
    EXPECT_TRUE(line.ends_with("… [request 1]")) << line.substr(line.size() - 24);
  }
}

TEST(LogLine, Text_FitsExactly_IsNotCut) {
  EXPECT_EQ(MakeLogLine("12345678", "", 8), "12345678");
  EXPECT_EQ(MakeLogLine("123456789", "", 8), "12345…");
}

// Longer writes to a pipe can be mixed with those of others.
TEST(LogLine, StderrLine_WithPrefixAndLineFeed_FitsIntoOneWrite) {
  EXPECT_EQ(kStderrPrefix.size() + kMaxStderrLine + 1, std::size_t{4096});
}

}  // namespace
}  // namespace vexa::daemon
