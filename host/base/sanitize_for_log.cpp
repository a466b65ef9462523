#include "host/base/sanitize_for_log.h"

#include <algorithm>

#include "host/base/utf8.h"

namespace vexa {
namespace {

constexpr std::string_view kEllipsis = "…";
constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";

}  // namespace

std::string SanitizeForLog(std::string_view text, std::size_t max_bytes) {
  std::string out;
  std::size_t cut = 0;  // the longest prefix of `out` that leaves room for the ellipsis
  while (!text.empty()) {
    const Character first = FirstCharacter(text);
    std::string_view next = first.bytes == 0 ? kReplacementCharacter : text.substr(0, first.bytes);
    if (first.bytes != 0 && IsControlCharacter(first.code_point)) next = " ";
    if (out.size() + next.size() > max_bytes) return out.substr(0, cut).append(kEllipsis);
    out += next;
    if (out.size() + kEllipsis.size() <= max_bytes) cut = out.size();
    text.remove_prefix(std::max<std::size_t>(first.bytes, 1));
  }
  return out;
}

std::string SanitizePathForLog(std::string_view path) {
  constexpr std::size_t kMaxBytes = 512;
  return SanitizeForLog(path, kMaxBytes);
}

std::string QuotedPath(std::string_view path) { return "'" + SanitizePathForLog(path) + "'"; }

}  // namespace vexa
