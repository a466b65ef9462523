// What only host/cluster sees of the installed environment.
#pragma once

<<<<<<< HEAD
#include "host/cluster/cluster_status.h"
=======
#include "host/cluster/cache_memory.h"
>>>>>>> cachebase
#include "host/cluster/environment.h"
#include "host/cluster/record_cache.h"

namespace vexa::cluster {

// Only while an environment is installed.
RecordCache& CurrentRecordCache();
<<<<<<< HEAD
ClusterStatus& CurrentClusterStatus();
=======
CacheMemory& CurrentCacheMemory();
>>>>>>> cachebase

}  // namespace vexa::cluster
