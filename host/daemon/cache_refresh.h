// The caches that the daemon refreshes in the background.
#pragma once

#include "host/services/guest_states.h"

namespace vexa::daemon {

// Once handlers can be reached, and after the environment and the transport are installed.
// cluster::RemoveCacheRefresher ends it, before either is removed. `states`, which outlives it, is where the guests'
// states are taken from.
void InstallCacheRefresh(services::GuestStates& states);

}  // namespace vexa::daemon
