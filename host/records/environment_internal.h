// The record cache and the cluster status of the installed environment. For host/records/*.cpp and the readers of
// records only.
#pragma once

#include "host/records/cluster_status.h"
#include "host/records/environment.h"
#include "host/records/record_cache.h"

namespace vexa::records {

// Requires an installed environment.
RecordCache& CurrentRecordCache();
ClusterStatus& CurrentClusterStatus();

}  // namespace vexa::records
