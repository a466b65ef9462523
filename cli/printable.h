// Makes strings from outside safe to print on a terminal, also in tables.
//
// Tables are formatted by this code, because their cells come from other machines: each is escaped, measured in
// columns of the terminal and cut before it is aligned.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vexa::cli {

// `text` on one line without anything that controls a terminal: control characters, line and paragraph separators,
// characters that change the direction of writing and other invisible ones, bytes that are not UTF-8, and the backslash
// are displayed as \n, \t, \\, \xHH or \u{HHHH}.
std::string Printable(std::string_view text);

// The number of columns that a printable UTF-8 text takes on a terminal.
std::size_t DisplayWidth(std::string_view printable);

// A printable text cut to `columns`, ending in "…" when something was cut off.
std::string Shorten(std::string_view printable, std::size_t columns);

using Fields = std::vector<std::pair<std::string, std::string>>;

// "Label value" lines, values aligned. Values are made printable and displayed in full.
void PrintFields(std::ostream& out, const Fields& fields);

struct Table {
  std::vector<std::string> header;
  std::vector<std::vector<std::string>> rows;
};

// A table with aligned columns. Cells are made printable and cut at 120 columns; after 1000 rows, only the number of
// the remaining ones is displayed. Both limits keep a hostile reply from filling the memory with blanks.
void PrintTable(std::ostream& out, const Table& table);

}  // namespace vexa::cli
