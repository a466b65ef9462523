#include "host/base/utf8.h"

#include <algorithm>
#include <array>

#include "host/base/json_parse.h"

namespace vexa {
namespace {

struct Range {
  std::uint32_t first;
  std::uint32_t last;
};

constexpr std::array kControl = {
    Range{0x0000, 0x001F},  // C0
    Range{0x007F, 0x009F},  // delete, and C1, which includes an 8-bit CSI
    Range{0x061C, 0x061C},  // Arabic letter mark
    Range{0x200E, 0x200F},  // direction marks
    Range{0x2028, 0x202E},  // line and paragraph separators, direction embeddings and overrides
    Range{0x2066, 0x2069},  // direction isolates
    Range{0xFEFF, 0xFEFF}   // byte order mark
};

}  // namespace

Character FirstCharacter(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  if (lead < 0x80) return {lead, 1};
  const std::size_t bytes = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (!IsValidUtf8(text.substr(0, bytes))) return {};
  std::uint32_t code_point = lead & (0xFFU >> (bytes + 1));
  for (std::size_t i = 1; i < bytes; ++i) code_point = code_point << 6 | (static_cast<unsigned char>(text[i]) & 0x3FU);
  return {code_point, bytes};
}

bool IsControlCharacter(std::uint32_t code_point) {
  return std::any_of(kControl.begin(), kControl.end(),
                     [&](const Range& range) { return code_point >= range.first && code_point <= range.last; });
}

}  // namespace vexa
