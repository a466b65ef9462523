// The state that this host reports about itself.
#pragma once

#include <functional>
#include <string>

#include "host/guests/guest_control.h"

namespace vexa::daemon {

struct HostStateInputs {
  const guests::GuestControl* guests = nullptr;  // null: this host does not run guests, and needs no hypervisor
  std::function<bool()> is_network_degraded;     // not set: it never is
};

// One of the states in VexaCCC::State::Host: "control_unavail" while the hypervisor cannot be reached, else
// "network_warn" while the network is degraded, else "running". Never waits, unless `is_network_degraded` does.
std::string HostStateFor(const HostStateInputs& parts);

}  // namespace vexa::daemon
