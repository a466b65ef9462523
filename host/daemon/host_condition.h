// This host's assessment of its own condition.
#pragma once

#include <functional>
#include <string>

#include "host/guests/guest_control.h"

namespace vexa::services {

struct HostConditionParts {
  const guests::GuestControl* guests = nullptr;  // null: this host does not run guests, and needs no hypervisor
  std::function<bool()> has_network_trouble;     // not set: it counts as having none
};

// A text of VexaCCC::State::Host: "control_unavail" while the hypervisor cannot be reached, else "network_warn" while
// the network is in trouble, else "running". Never waits, unless `has_network_trouble` does.
std::string HostConditionOf(const HostConditionParts& parts);

}  // namespace vexa::services
