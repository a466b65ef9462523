#include "cli/printable.h"
#include "tests/support/matchers.h"

#include <gtest/gtest.h>

#include <clocale>
#include <sstream>

namespace vexa::cli {
namespace {

class Utf8 : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr); }
};
using PrintableText = Utf8;
using Tables = Utf8;

TEST_F(PrintableText, Printable_OrdinaryText_IsUnchanged) {
  for (const char* text : {"", "plain text", "Grüße", "日本語", "🙂", "%s %n", "'\"<>&"})
    EXPECT_EQ(Printable(text), text);
}

TEST_F(PrintableText, TerminalControls_AreEscaped) {
  EXPECT_EQ(Printable("\x1b[2J"), "\\x1b[2J");
  EXPECT_EQ(Printable("a\nb\tc\rd"), "a\\nb\\tc\\x0dd");
  EXPECT_EQ(Printable(std::string_view("\0\x07\x08\x7f", 4)), "\\x00\\x07\\x08\\x7f");
  EXPECT_EQ(Printable("\u009b31m\u0085"), "\\u{9b}31m\\u{85}");
  EXPECT_EQ(Printable("\u202egnp\u2066\u200f\ufeff\u2028"), "\\u{202e}gnp\\u{2066}\\u{200f}\\u{feff}\\u{2028}");
  EXPECT_EQ(Printable("\U000e0041"), "\\u{e0041}");
  EXPECT_EQ(Printable("C:\\x1b"), "C:\\\\x1b");
}

TEST_F(PrintableText, Printable_ControlBytes_AreEscaped) {
  for (int c = 0; c < 256; ++c) {
    const std::string printable = Printable(std::string(1, static_cast<char>(c)));
    for (const char byte : printable) EXPECT_TRUE(byte >= ' ' && byte <= '~') << c;
  }
}

TEST_F(PrintableText, NotUtf8_IsEscapedByteByByte) {
  EXPECT_EQ(Printable("\xff\xc3"), "\\xff\\xc3");
  EXPECT_EQ(Printable("\xc0\x9b"), "\\xc0\\x9b");           // an overlong form
  EXPECT_EQ(Printable("\xed\xa0\x80"), "\\xed\\xa0\\x80");  // a surrogate
  EXPECT_EQ(Printable("\xe3\x81"
                      "a"),
            "\\xe3\\x81a");
}

TEST_F(PrintableText, Width_CountsColumns) {
  EXPECT_EQ(DisplayWidth(""), 0U);
  EXPECT_EQ(DisplayWidth("abc"), 3U);
  EXPECT_EQ(DisplayWidth("Grüße"), 5U);
  EXPECT_EQ(DisplayWidth("日本"), 4U);
  EXPECT_EQ(DisplayWidth("e\u0301"), 1U);
}

TEST_F(PrintableText, Shorten_CutsBetweenCharacters) {
  EXPECT_EQ(Shorten("abcdef", 6), "abcdef");
  EXPECT_EQ(Shorten("abcdefg", 6), "abcde…");
  EXPECT_EQ(Shorten("日本語", 5), "日本…");
  EXPECT_EQ(Shorten("日本語", 6), "日本語");
  std::string marks = "e";
  for (int i = 0; i < 10'000; ++i) marks += "\u0301";
  EXPECT_LT(Shorten(marks, 6).size(), 60U);
}

TEST_F(Tables, Columns_AreAlignedByWidth) {
  std::ostringstream out;
  PrintTable(out, {{"NAME", "N"}, {{"日本", "1"}, {"x\x1b", "2"}, {"", "3"}}});
  EXPECT_EQ(out.str(), "NAME   N\n日本   1\nx\\x1b  2\n       3\n");
}

TEST_F(Tables, ManyRowsAndLongCells_AreBounded) {
  Table table{{"A", "B"}, {}};
  for (int i = 0; i < 3000; ++i) table.rows.push_back({std::string(i == 7 ? 50'000 : 1, 'x'), "y"});
  std::ostringstream out;
  PrintTable(out, table);
  EXPECT_LT(out.str().size(), 1001 * 140U);
  EXPECT_THAT(out.str(), HasSubstr("… and 2000 more"));
  EXPECT_THAT(out.str(), Not(HasSubstr(std::string(120, 'x'))));
}

TEST_F(Tables, Fields_AreAlignedAndEscaped) {
  std::ostringstream out;
  PrintFields(out, {{"Name", "a\nb"}, {"Description", ""}});
  EXPECT_EQ(out.str(), "Name         a\\nb\nDescription  \n");
}

}  // namespace
}  // namespace vexa::cli
