// The power actions: how hosts are asked for them, their error codes, and their lines in the cluster log. Internal to
// this library.
#pragma once

#include <string_view>

#include "webapi/guest/cluster_line.h"

namespace VexaVirtualization::power {

struct Action {
  enum class Target { kHostOfGuest, kListedHosts };
  // Whether the action is refused for guests of other hosts during an incompatible upgrade.
  enum class InUpgrade { kAllowed, kRefused };

  std::string_view name;
  const char* method;  // that hosts provide for it
  Target target;
  InUpgrade in_upgrade;
  Line success;
  // For failure codes of the host that have no row of their own.
  int default_error;
  Line default_failure_line;
};

// Returns null for an unknown action. Names are case-sensitive.
const Action* FindAction(std::string_view name);

struct Failure {
  int error;
  Line line;
};

// The error code and log line for a failure code of the host.
Failure FailureOf(const Action& action, int host_code);

// The log line for an operation that is refused because of incompatible versions.
Line IncompatibleLine();

}  // namespace VexaVirtualization::power
