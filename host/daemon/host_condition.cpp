#include "host/daemon/host_condition.h"

#include "webapi/platform/ccc_constants.h"

namespace vexa::services {

std::string HostConditionOf(const HostConditionParts& parts) {
  namespace states = VexaCCC::State::Host;
  if (parts.guests && !parts.guests->IsControllable()) return states::control_unavail;
  if (parts.has_network_trouble && parts.has_network_trouble()) return states::network_warn;
  return states::running;
}

}  // namespace vexa::services
