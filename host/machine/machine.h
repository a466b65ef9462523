// The machine's files under /proc, /sys and /etc, and helpers to parse their text.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vexa::services {

// Threads: any, at the same time.
class Machine {
 public:
  // `root` is prepended to every path: "" is the real machine.
  explicit Machine(std::string root = "") : root_(std::move(root)) {}

  // The prefix of every path.
  const std::string& root() const { return root_; }

  // Not set: the file does not exist, cannot be read, or is larger than 4 MiB.
  std::optional<std::string> Read(const std::string& path) const;
  // The first line as a text that is safe for JSON and a screen, "" when absent; see CleanText.
  std::string ReadLine(const std::string& path) const;
  std::optional<std::uint64_t> ReadNumber(const std::string& path) const;
  bool IsFolder(const std::string& path) const;
  // The names in a folder in byte order, at most the first 4096 that the system returns; none when it cannot be read.
  std::vector<std::string> Names(const std::string& path) const;

 private:
  std::string root_;
};

// Calls `visit` with every line, without its end, until it returns false.
void ForEachLine(std::string_view text, const std::function<bool(std::string_view)>& visit);

// The parts between blanks and tabs; at most 64 fields.
std::vector<std::string_view> Fields(std::string_view line);

// Removes blanks and tabs at both ends.
std::string_view Trim(std::string_view text);

// Decimal digits only, with nothing around them; not set when it is anything else or exceeds 64 bits.
std::optional<std::uint64_t> ParseUnsigned(std::string_view text);

// Trimmed, at most 256 bytes, control characters as '?'; every byte above ASCII as '?' when it is not UTF-8.
std::string CleanText(std::string_view text);

}  // namespace vexa::services
