#include "host/base/sanitize_for_log.h"

#include <algorithm>

#include "host/base/json_parse.h"

namespace vexa {
namespace {

constexpr std::string_view kEllipsis = "…";
constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";

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

std::string SanitizeForLog(std::string_view text, std::size_t max_bytes) {
  std::string out;
  std::size_t cut = 0;  // the longest prefix of `out` that leaves room for the ellipsis
  while (!text.empty()) {
    const std::size_t size = CharacterSize(text);
    std::string_view next = size == 0 ? kReplacementCharacter : text.substr(0, size);
    if (size != 0 && IsControl(next)) next = " ";
    if (out.size() + next.size() > max_bytes) return out.substr(0, cut).append(kEllipsis);
    out += next;
    if (out.size() + kEllipsis.size() <= max_bytes) cut = out.size();
    text.remove_prefix(std::max<std::size_t>(size, 1));
  }
  return out;
}

std::string SanitizePathForLog(std::string_view path) {
  constexpr std::size_t kMaxBytes = 512;
  return SanitizeForLog(path, kMaxBytes);
}

std::string QuotedPath(std::string_view path) { return "'" + SanitizePathForLog(path) + "'"; }

}  // namespace vexa
