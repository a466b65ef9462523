#include "host/base/log_text.h"

#include <algorithm>

#include "host/base/json_parse.h"

namespace vexa::cluster {
namespace {

constexpr std::string_view kCut = "…";
constexpr std::string_view kNoCharacter = "\xEF\xBF\xBD";

// The size of the character at the start of `text`, which is not empty; 0 when it does not start with a valid one.
std::size_t CharacterSize(std::string_view text) {
  for (std::size_t size = 1; size <= std::min<std::size_t>(4, text.size()); ++size) {
    if (IsValidUtf8(text.substr(0, size))) return size;
  }
  return 0;
}

// C0, DEL, C1, and the separators U+2028 and U+2029.
bool IsControl(std::string_view character) {
  const auto first = static_cast<unsigned char>(character[0]);
  if (character.size() == 1) return first < 0x20 || first == 0x7F;
  if (character.size() == 2) return first == 0xC2 && static_cast<unsigned char>(character[1]) < 0xA0;
  return character == "\xE2\x80\xA8" || character == "\xE2\x80\xA9";
}

}  // namespace

std::string LogText(std::string_view text, std::size_t max_bytes) {
  std::string out;
  std::size_t whole = 0;  // where the cut mark still fits
  while (!text.empty()) {
    const std::size_t size = CharacterSize(text);
    std::string_view next = size == 0 ? kNoCharacter : text.substr(0, size);
    if (size != 0 && IsControl(next)) next = " ";
    if (out.size() + next.size() > max_bytes) return out.substr(0, whole).append(kCut);
    out += next;
    if (out.size() + kCut.size() <= max_bytes) whole = out.size();
    text.remove_prefix(std::max<std::size_t>(size, 1));
  }
  return out;
}

std::string ShownPath(std::string_view path) {
  constexpr std::size_t kMaxBytes = 512;
  return LogText(path, kMaxBytes);
}

std::string QuotedPath(std::string_view path) { return "'" + ShownPath(path) + "'"; }

}  // namespace vexa::cluster
