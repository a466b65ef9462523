#include "cli/printable.h"

#include <wchar.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

#include "cli/output.h"
#include "host/base/utf8.h"

namespace vexa::cli {
namespace {

constexpr std::size_t kMaxCellColumns = 120;
constexpr std::size_t kMaxRows = 1000;

struct Range {
  std::uint32_t first;
  std::uint32_t last;
};

// Invisible characters; some of them change how the text around them is displayed. Sorted.
constexpr std::array kHidden = {
    Range{0x0000, 0x001F},    // C0 control characters
    Range{0x007F, 0x009F},    // delete, and C1, which includes an 8-bit CSI
    Range{0x00AD, 0x00AD},    // soft hyphen
    Range{0x061C, 0x061C},    // Arabic letter mark
    Range{0x180E, 0x180E},    // Mongolian vowel separator
    Range{0x200B, 0x200F},    // zero-width characters, direction marks
    Range{0x2028, 0x202E},    // line and paragraph separators, direction embeddings and overrides
    Range{0x2060, 0x206F},    // word joiner, direction isolates
    Range{0xD800, 0xF8FF},    // surrogates, private use
    Range{0xFEFF, 0xFEFF},    // byte order mark
    Range{0xFFF9, 0xFFFB},    // interlinear annotations
    Range{0xE0000, 0x10FFFF}  // tags, private use
};

bool IsHidden(std::uint32_t code_point) {
  return std::any_of(kHidden.begin(), kHidden.end(),
                     [&](const Range& range) { return code_point >= range.first && code_point <= range.last; });
}

std::size_t WidthOf(std::uint32_t code_point) {
  if (code_point >= 0x20 && code_point < 0x7F) return 1;
  const int width = ::wcwidth(static_cast<wchar_t>(code_point));
  return width < 0 ? 1 : static_cast<std::size_t>(width);
}

void AppendEscaped(std::string& result, const char* prefix, std::uint32_t value, const char* suffix) {
  std::array<char, 16> digits{};
  std::snprintf(digits.data(), digits.size(), "%02x", value);
  result.append(prefix).append(digits.data()).append(suffix);
}

void AppendPadded(std::string& line, const std::string& cell, std::size_t width) {
  line += cell;
  line.append(width - std::min(width, DisplayWidth(cell)), ' ');
}

// The row's text with the colour of its severity, if it has one.
std::string Coloured(const std::string& text, const std::vector<std::string>& cells) {
  constexpr std::array<std::pair<std::string_view, std::string_view>, 3> kColours = {
      {{"healthy", "\x1b[32m"}, {"warning", "\x1b[33m"}, {"error", "\x1b[31m"}}};
  for (const auto& [severity, colour] : kColours) {
    if (std::ranges::find(cells, severity) == cells.end()) continue;
    return std::string(colour) + text + "\x1b[0m";
  }
  return text;
}

}  // namespace

std::string Printable(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    const Character decoded = FirstCharacter(text);
    if (decoded.bytes == 0) {
      AppendEscaped(result, "\\x", static_cast<unsigned char>(text[0]), "");
      text.remove_prefix(1);
      continue;
    }
    if (text[0] == '\n') {
      result += "\\n";
    } else if (text[0] == '\t') {
      result += "\\t";
    } else if (text[0] == '\\') {
      result += "\\\\";
    } else if (!IsHidden(decoded.code_point)) {
      result.append(text.substr(0, decoded.bytes));
    } else if (decoded.code_point < 0x80) {
      AppendEscaped(result, "\\x", decoded.code_point, "");
    } else {
      AppendEscaped(result, "\\u{", decoded.code_point, "}");
    }
    text.remove_prefix(decoded.bytes);
  }
  return result;
}

std::size_t DisplayWidth(std::string_view printable) {
  std::size_t width = 0;
  while (!printable.empty()) {
    const Character decoded = FirstCharacter(printable);
    width += decoded.bytes == 0 ? 1 : WidthOf(decoded.code_point);
    printable.remove_prefix(std::max<std::size_t>(decoded.bytes, 1));
  }
  return width;
}

std::string Shorten(std::string_view printable, std::size_t columns) {
  std::size_t width = 0;
  std::size_t at = 0;
  std::size_t cut = 0;  // the longest prefix that leaves a column for the ellipsis
  while (at < printable.size()) {
    const Character decoded = FirstCharacter(printable.substr(at));
    width += decoded.bytes == 0 ? 1 : WidthOf(decoded.code_point);
    // Zero-width marks pile up on one column, so the bytes are limited as well.
    if (width > columns || at > columns * 8) return std::string(printable.substr(0, cut)) + "…";
    at += std::max<std::size_t>(decoded.bytes, 1);
    if (width < columns) cut = at;
  }
  return std::string(printable);
}

void PrintFields(std::ostream& out, const Fields& fields) {
  std::size_t width = 0;
  for (const auto& [label, value] : fields) width = std::max(width, DisplayWidth(label));
  for (const auto& [label, value] : fields) {
    std::string line;
    AppendPadded(line, label, width + 2);
    out << line << Printable(value) << '\n';
  }
}

void PrintTable(std::ostream& out, const Table& table) {
  std::vector<std::vector<std::string>> lines{table.header};
  for (std::size_t i = 0; i < std::min(table.rows.size(), kMaxRows); ++i) {
    std::vector<std::string>& line = lines.emplace_back();
    for (const std::string& cell : table.rows[i]) line.push_back(Shorten(Printable(cell), kMaxCellColumns));
  }
  std::vector<std::size_t> widths(table.header.size(), 0);
  for (const auto& line : lines) {
    for (std::size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], DisplayWidth(line[i]));
  }
  const bool colours = UsesColour();
  for (const auto& line : lines) {
    std::string text;
    for (std::size_t i = 0; i < line.size(); ++i) AppendPadded(text, line[i], widths[i] + 2);
    text.erase(text.find_last_not_of(' ') + 1);
    out << (colours && &line != &lines.front() ? Coloured(text, line) : text) << '\n';
  }
  if (table.rows.size() > kMaxRows) out << "… and " << table.rows.size() - kMaxRows << " more (see --json)\n";
}

}  // namespace vexa::cli
