#include "host/daemon/host_state.h"

#include "webapi/platform/ccc_constants.h"

namespace vexa::daemon {

std::string HostStateFor(const HostStateInputs& parts) {
  namespace states = VexaCCC::State::Host;
  if (parts.guests && !parts.guests->IsHypervisorReachable()) return states::control_unavail;
  if (parts.is_network_degraded && parts.is_network_degraded()) return states::network_warn;
  return states::running;
}

}  // namespace vexa::daemon
