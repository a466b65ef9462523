// What power control can be asked for, what it answers, and what users read in the cluster log. For this library only.
#pragma once

#include <string_view>

#include "webapi/guest/cluster_line.h"

namespace VexaVirtualization::power {

struct Action {
  enum class Target { kGuestsHost, kListedHosts };
  // Whether a guest of another host is left alone while the cluster is in an incompatible upgrade.
  enum class InUpgrade { kAsUsual, kRefused };

  std::string_view name;
  const char* method;  // of the hosts
  Target target;
  InUpgrade in_upgrade;
  Line success;
  // For host codes that have no row of their own.
  int other_answer;
  Line other_failure;
};

// Null for anything but the exact name of one.
const Action* FindAction(std::string_view name);

struct Failure {
  int answer;
  Line line;
};

// What is answered and logged when the host failed with this code.
Failure FailureOf(const Action& action, int host_code);

// The refusal of an operation that the versions of the cluster do not allow.
Line IncompatibleLine();

}  // namespace VexaVirtualization::power
