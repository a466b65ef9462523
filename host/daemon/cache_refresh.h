// The caches that the daemon refreshes in the background.
#pragma once

#include <string>

#include "host/api/user/guest_states.h"

namespace vexa::daemon {

// Starts the refresh. Call it once local calls can reach the handlers, and after the environment and the transport are
// installed. Call cache::RemoveCacheRefresher, which ends the refresh, before either is removed. Reads guests' states
// from `states`, which must outlive the refresh.
void InstallCacheRefresh(api::GuestStates& states);

// Call it when reads of the cluster database switch to its copy or back (store::MirroredStore): removes the cached
// values in `cache_directory` that depend on that, and requests a refresh. Threads: any, at any time.
void InvalidateCaches(const std::string& cache_directory);

}  // namespace vexa::daemon
