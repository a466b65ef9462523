// Why a command line or a configuration file is refused: all reasons together, where the parser stops at the first.
// For host/daemon/config*.cpp only.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/daemon/config.h"

namespace CLI {
class App;
}

namespace vexa::daemon {

struct ConfigRefusal {
  ConfigProblems problems;
  // The settings that are wrong, and the ones that their author may have meant: what else is found about them may
  // follow from the mistake.
  std::set<std::string> doubtful;
  CommandLine usable;  // the other settings
  bool has_calls_per_host = false;
};

// Adds the settings, which a file may have, and the flags to a parser.
void AddSettings(CLI::App& app, CommandLine& command);

// Examines each flag and each line of the file by itself. `default_file` is read when the arguments name no file.
ConfigRefusal ExplainRefusal(const std::vector<std::string>& arguments, const std::string& default_file);

// When the file exists but cannot be read, which the parser ignores. Nothing otherwise.
std::optional<ConfigRefusal> FindUnreadableFile(const std::vector<std::string>& arguments,
                                                const std::string& default_file);

}  // namespace vexa::daemon
