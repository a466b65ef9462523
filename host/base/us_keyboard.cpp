#include "host/base/us_keyboard.h"

#include <fmt/format.h>
#include <linux/input-event-codes.h>

#include <array>
#include <cstdint>

#include "host/base/utf8.h"

namespace vexa {
namespace {

// The characters of a row of keys, without and with Shift; the keys have consecutive numbers.
struct KeyRow {
  unsigned first_key;
  std::string_view plain;
  std::string_view shifted;
};
constexpr std::array<KeyRow, 8> kRows = {{
    {KEY_1, "1234567890-=", "!@#$%^&*()_+"},
    {KEY_Q, "qwertyuiop[]", "QWERTYUIOP{}"},
    {KEY_A, "asdfghjkl;'`", "ASDFGHJKL:\"~"},
    {KEY_BACKSLASH, "\\zxcvbnm,./", "|ZXCVBNM<>?"},
    {KEY_SPACE, " ", ""},
    {KEY_TAB, "\t", ""},
    {KEY_ENTER, "\n", ""},
    {KEY_ENTER, "\r", ""},
}};
static_assert(KEY_EQUAL == KEY_1 + 11 && KEY_RIGHTBRACE == KEY_Q + 11 && KEY_GRAVE == KEY_A + 11 &&
                  KEY_SLASH == KEY_BACKSLASH + 10,
              "each row of keys has consecutive numbers");

// Empty: no key types the character.
KeyPress PressOf(char character) {
  for (const KeyRow& row : kRows) {
    if (const std::size_t at = row.plain.find(character); at != std::string_view::npos) {
      return {row.first_key + static_cast<unsigned>(at)};
    }
    if (const std::size_t at = row.shifted.find(character); at != std::string_view::npos) {
      return {KEY_LEFTSHIFT, row.first_key + static_cast<unsigned>(at)};
    }
  }
  return {};
}

std::string NameOf(std::string_view text, std::uint32_t code_point) {
  const bool is_visible = code_point > 0x20 && !IsControlCharacter(code_point);
  return is_visible ? fmt::format("'{}' (U+{:04X})", text, code_point) : fmt::format("U+{:04X}", code_point);
}

}  // namespace

Result<std::vector<KeyPress>> KeyPressesOf(std::string_view text) {
  if (text.empty()) return Error(ErrorCode::kInvalid, "The text is empty");
  if (text.size() > kMaxTypedBytes) {
    return Error(ErrorCode::kInvalid, fmt::format("The text is longer than {} bytes", kMaxTypedBytes));
  }
  std::vector<KeyPress> presses;
  while (!text.empty()) {
    const Character character = FirstCharacter(text);
    if (character.bytes == 0) return Error(ErrorCode::kInvalid, "The text is not UTF-8");
    presses.push_back(character.bytes == 1 ? PressOf(text[0]) : KeyPress());
    if (presses.back().empty()) {
      return Error(ErrorCode::kInvalid, fmt::format("The character {} has no key on a US keyboard",
                                                    NameOf(text.substr(0, character.bytes), character.code_point)));
    }
    text.remove_prefix(character.bytes);
  }
  return presses;
}

}  // namespace vexa
