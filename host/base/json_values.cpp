#include "host/base/json_values.h"

namespace vexa {
namespace {

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// The position of the quote that ends the string that begins before `position`, or the end of the text.
std::size_t EndOfString(std::string_view text, std::size_t position) {
  while (position < text.size() && text[position] != '"') position += text[position] == '\\' ? 2 : 1;
  return position;
}

}  // namespace

// Each value but the first follows a comma, or is the first of its object or array.
std::size_t CountJsonValues(std::string_view text, std::size_t limit) {
  std::size_t values = 1;
  bool is_first = false;  // whether the last character opened an object or array
  for (std::size_t i = 0; i < text.size() && values <= limit; ++i) {
    const char c = text[i];
    if (IsSpace(c)) continue;
    if (c == ',' || (is_first && c != ']' && c != '}')) ++values;
    is_first = c == '[' || c == '{';
    if (c == '"') i = EndOfString(text, i + 1);
  }
  return values;
}

}  // namespace vexa
