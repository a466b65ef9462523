#include "host/base/us_keyboard.h"

#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

#include <set>

namespace vexa {
namespace {

TEST(UsKeyboard, EveryPrintableCharacterOfAscii_HasPressOfItsOwn) {
  std::set<KeyPress> presses;
  for (char c = ' '; c <= '~'; ++c) {
    const auto found = KeyPressesOf(std::string(1, c));
    ASSERT_TRUE(found.ok()) << c << ": " << found.error().ToString();
    ASSERT_EQ(found->size(), 1U) << c;
    EXPECT_TRUE(presses.insert(found->front()).second) << c;
  }
}

TEST(UsKeyboard, Text_BecomesPressesInOrder) {
  const auto presses = KeyPressesOf("aZ0)\n\t`|");
  ASSERT_TRUE(presses.ok());
  const std::vector<KeyPress> expected = {
      {KEY_A},     {KEY_LEFTSHIFT, KEY_Z},        {KEY_0}, {KEY_LEFTSHIFT, KEY_0}, {KEY_ENTER}, {KEY_TAB},
      {KEY_GRAVE}, {KEY_LEFTSHIFT, KEY_BACKSLASH}};
  EXPECT_EQ(*presses, expected);
}

TEST(UsKeyboard, CharacterWithoutKey_IsRefusedByName) {
  const auto reason = [](std::string_view text) {
    const auto presses = KeyPressesOf(text);
    return presses ? std::string() : presses.error().ToString();
  };
  EXPECT_EQ(reason("gr\xc3\xbc\xc3\x9f"), "The character 'ü' (U+00FC) has no key on a US keyboard");
  EXPECT_EQ(reason("\xf0\x9f\x98\x80"), "The character '😀' (U+1F600) has no key on a US keyboard");
  EXPECT_EQ(reason("a\x1b[0m"), "The character U+001B has no key on a US keyboard");
  EXPECT_EQ(reason(std::string_view("\0", 1)), "The character U+0000 has no key on a US keyboard");
  EXPECT_EQ(reason("\xe2\x80\xae"), "The character U+202E has no key on a US keyboard");
  EXPECT_EQ(reason("\xff"), "The text is not UTF-8");
  EXPECT_EQ(reason(""), "The text is empty");
  EXPECT_EQ(reason(std::string(1025, 'a')), "The text is longer than 1024 bytes");
  EXPECT_EQ(reason(std::string(1024, 'a')), "");
}

}  // namespace
}  // namespace vexa
