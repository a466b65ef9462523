// Whether a lane still runs jobs.
#pragma once

#include <chrono>

#include "host/base/lane.h"

namespace vexa {

// Whether, within `timeout`, `lane` runs a job that is submitted now. When its queue is full, it is enough that the
// lane finishes any job.
bool IsRunningJobs(Lane& lane, std::chrono::milliseconds timeout);

}  // namespace vexa
