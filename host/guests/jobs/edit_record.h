// The records of unfinished edits that touch files; edit.h explains them.
#pragma once

#include "host/guests/jobs/job_record.h"

namespace vexa::guests {

extern const JobKind kEditKind;

}  // namespace vexa::guests
