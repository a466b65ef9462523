// What the readers of records see of the installed environment.
#pragma once

#include "host/records/cluster_status.h"
#include "host/records/environment.h"
#include "host/records/record_cache.h"

namespace vexa::cluster {

// Requires an installed environment.
RecordCache& CurrentRecordCache();
ClusterStatus& CurrentClusterStatus();

}  // namespace vexa::cluster
