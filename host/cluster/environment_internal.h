// What only host/cluster sees of the installed environment.
#pragma once

#include "host/cluster/cache_memory.h"
#include "host/cluster/cluster_status.h"
#include "host/cluster/environment.h"
#include "host/cluster/record_cache.h"

namespace vexa::cluster {

// Only while an environment is installed.
RecordCache& CurrentRecordCache();
ClusterStatus& CurrentClusterStatus();
CacheMemory& CurrentCacheMemory();

}  // namespace vexa::cluster
