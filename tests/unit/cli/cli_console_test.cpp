// The way out of a serial line.
#include <gtest/gtest.h>

#include "cli/console_command.h"

namespace vexa::cli {
namespace {

// What is sent for the parts, and "|left" when they contain the way out.
std::string Filtered(std::initializer_list<const char*> parts) {
  EscapeFilter filter;
  std::string sent;
  for (const char* const part : parts) {
    sent += filter.Filter(part);
    if (filter.has_left()) return sent + "|left";
  }
  return sent;
}

TEST(EscapeFilter, TildeDot_AtLineStart_Leaves) {
  EXPECT_EQ(Filtered({"~."}), "|left");
  EXPECT_EQ(Filtered({"ls\r~.more"}), "ls\r|left");
  EXPECT_EQ(Filtered({"ls\n", "~", "."}), "ls\n|left");
}

TEST(EscapeFilter, OtherTildes_AreSent) {
  EXPECT_EQ(Filtered({"cd ~.\r"}), "cd ~.\r");
  EXPECT_EQ(Filtered({"~a~."}), "~a~.");
  EXPECT_EQ(Filtered({"~~."}), "~.");
  EXPECT_EQ(Filtered({"~", "~", "."}), "~.");
  EXPECT_EQ(Filtered({"~\r~."}), "~\r|left");
  EXPECT_EQ(Filtered({"a.~\r", "."}), "a.~\r.");
}

}  // namespace
}  // namespace vexa::cli
