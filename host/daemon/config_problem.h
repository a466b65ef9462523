// What is wrong with a configuration.
#pragma once

#include <string>
#include <vector>

namespace vexa::daemon {

struct ConfigProblem {
  std::string setting;  // its name in the configuration file
  std::string value;    // as configured, or the default
  std::string problem;  // a sentence without its full stop
  std::string help;     // what to do: the same
};

using ConfigProblems = std::vector<ConfigProblem>;

// One line without its end: `listen = "8642": '8642' is not an address. Use an address and a port.` Control characters
// are made visible.
std::string ToLine(const ConfigProblem& problem);

}  // namespace vexa::daemon
