// The caches that the daemon refreshes in the background.
#pragma once

namespace vexa::daemon {

// Once handlers can be reached, and after the environment and the transport are installed. cluster::RemoveCacheRefresher
// ends it, before either is removed.
void InstallCacheRefresh();

}  // namespace vexa::daemon
