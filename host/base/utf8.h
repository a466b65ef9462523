// The characters of UTF-8 text, and which of them must not reach a terminal or a log unescaped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace vexa {

struct Character {
  std::uint32_t code_point = 0;
  std::size_t bytes = 0;  // 0: not UTF-8
};

// The character at the start of `text`, which is not empty.
Character FirstCharacter(std::string_view text);

// Whether the character controls a terminal, ends a line, or changes the order in which the text around it is
// displayed: C0, DEL, C1, the line and paragraph separators, direction marks, embeddings, overrides and isolates, and
// the byte order mark.
bool IsControlCharacter(std::uint32_t code_point);

}  // namespace vexa
