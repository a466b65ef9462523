// The records of unfinished creations of guests; creation.h explains them.
#pragma once

#include "host/guests/jobs/job_record.h"

namespace vexa::guests {

extern const JobKind kCreationKind;

}  // namespace vexa::guests
