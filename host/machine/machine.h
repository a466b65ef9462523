// The machine's files under /proc, /sys and /etc, and helpers to parse their text.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vexa::machine {

// Reads files of the machine, or of a folder that a test has prepared.
// Threads: any, at the same time.
class Machine {
 public:
  // `root` is prepended to every path; "" means the real machine.
  explicit Machine(std::string root = "") : root_(std::move(root)) {}

  const std::string& root() const { return root_; }

  // Not set if the file does not exist, cannot be read, or is larger than 4 MiB.
  std::optional<std::string> Read(const std::string& path) const;
  // The first line, made safe for JSON and a terminal by CleanText; "" if the file cannot be read.
  std::string ReadLine(const std::string& path) const;
  // The number in the first line. Not set if the file cannot be read or ParseUnsigned refuses the line.
  std::optional<std::uint64_t> ReadNumber(const std::string& path) const;
  bool IsFolder(const std::string& path) const;
  // The names in a folder, sorted by bytes. At most 4096, the first ones that the system returns. Empty when the folder
  // cannot be read.
  std::vector<std::string> Names(const std::string& path) const;

 private:
  std::string root_;
};

// Calls `visit` with every line, without the newline, until it returns false.
void ForEachLine(std::string_view text, const std::function<bool(std::string_view)>& visit);

// Splits a line at spaces and tabs, into at most 64 fields.
std::vector<std::string_view> Fields(std::string_view line);

// Removes spaces and tabs at both ends.
std::string_view Trim(std::string_view text);

// Parses a string that consists of decimal digits. Not set for any other string, or if the number exceeds 64 bits.
std::optional<std::uint64_t> ParseUnsigned(std::string_view text);

// Makes a string from the system safe to display: trims it, cuts it after 256 bytes and replaces control characters by
// '?'. If it is longer or not UTF-8, also replaces every byte above ASCII by '?'.
std::string CleanText(std::string_view text);

}  // namespace vexa::machine
