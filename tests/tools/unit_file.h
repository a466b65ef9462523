// What a unit of systemd and its drop-ins set, as far as the launcher `confined` needs it.
#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace vexa::test {

// Prints a sentence and ends the program.
[[noreturn]] void FailToConfine(const std::string& sentence);

std::vector<std::string> WordsOf(const std::string& text);

// The section [Service] of the files, in their order. A file that cannot be read, and a setting that this launcher does
// not know, end the program: a test must not pass because a setting was overlooked.
class UnitFile {
 public:
  explicit UnitFile(const std::vector<std::string>& paths);

  // All values of a setting, since the last empty one; empty for a setting that is not in the file.
  std::vector<std::string> Values(const std::string& setting) const;
  bool Has(const std::string& setting) const { return values_.contains(setting); }
  // The last value; "" for a setting that is not in the file.
  std::string Last(const std::string& setting) const;
  bool IsOn(const std::string& setting) const { return Last(setting) == "yes"; }

 private:
  void ReadFile(const std::string& path);

  std::map<std::string, std::vector<std::string>> values_;
};

// The names of the system calls that SystemCallFilter= allows. Groups such as @system-service are systemd's own: the
// program systemd-analyze lists their members.
std::set<std::string> AllowedCalls(const UnitFile& unit);

}  // namespace vexa::test
