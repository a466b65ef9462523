// The caches that the daemon refreshes in the background.
#pragma once

#include <string>

#include "host/api/user/guest_states.h"

namespace vexa::daemon {

// Call it once local calls can reach the handlers, and after the environment and the transport are installed.
// cluster::RemoveCacheRefresher ends it and must be called before either is removed. The guests' states are taken from
// `states`, which must outlive it.
void InstallCacheRefresh(services::GuestStates& states);

// Drops the values in `cache_directory` that differ while the cluster database cannot be read, and requests a refresh
// soon. Threads: any, at any time.
void FindOutAgain(const std::string& cache_directory);

}  // namespace vexa::daemon
