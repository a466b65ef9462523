// The machine's files under /proc, /sys and /etc, and how their text is taken apart.
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
  // `root` stands in front of every path: "" is the real machine.
  explicit Machine(std::string root = "") : root_(std::move(root)) {}

  // What stands in front of every path.
  const std::string& root() const { return root_; }

  // Not set: there is no such file, it cannot be read, or it is larger than 4 MiB.
  std::optional<std::string> Read(const std::string& path) const;
  // The first line as a text that is fit for JSON and a screen, "" when there is none; see CleanText.
  std::string ReadLine(const std::string& path) const;
  std::optional<std::uint64_t> ReadNumber(const std::string& path) const;
  bool IsFolder(const std::string& path) const;
  // The names in a folder in byte order, the first 4096 that the system gives; none when it cannot be read.
  std::vector<std::string> Names(const std::string& path) const;

 private:
  std::string root_;
};

// Calls `visit` with every line, without its end, until it returns false.
void ForEachLine(std::string_view text, const std::function<bool(std::string_view)>& visit);

// What stands between blanks and tabs; at most 64 fields.
std::vector<std::string_view> Fields(std::string_view line);

// Without blanks and tabs at both ends.
std::string_view Trim(std::string_view text);

// Decimal digits only, nothing around them; not set when it is anything else or has more than 64 bits.
std::optional<std::uint64_t> ParseUnsigned(std::string_view text);

// Trimmed, at most 256 bytes, control characters as '?'; every byte above ASCII as '?' when it is not UTF-8.
std::string CleanText(std::string_view text);

}  // namespace vexa::services
