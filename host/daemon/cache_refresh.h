// The caches that the daemon refreshes in the background.
#pragma once

#include <string>

#include "host/api/user/guest_states.h"

namespace vexa::daemon {

// Once handlers can be reached, and after the environment and the transport are installed.
// cluster::RemoveCacheRefresher ends it, before either is removed. `states`, which outlives it, is where the guests'
// states are taken from.
void InstallCacheRefresh(services::GuestStates& states);

// Drops what is kept in `cache_directory` and found out otherwise while the cluster database cannot be read, and asks
// for it to be found out again soon. Threads: any, at any time.
void FindOutAgain(const std::string& cache_directory);

}  // namespace vexa::daemon
