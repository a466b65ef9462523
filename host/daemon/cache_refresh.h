// The caches that the daemon refreshes in the background.
#pragma once

#include <string>

namespace vexa::daemon {

// Once handlers can be reached, and after the environment and the transport are installed.
// cluster::RemoveCacheRefresher ends it, before either is removed.
void InstallCacheRefresh();

// Drops what is kept in `cache_directory` and found out otherwise while the cluster database cannot be read, and asks
// for it to be found out again soon. Threads: any, at any time.
void FindOutAgain(const std::string& cache_directory);

}  // namespace vexa::daemon
