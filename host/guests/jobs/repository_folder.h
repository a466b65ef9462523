// Where new files of guests' disks are created.
#pragma once

#include <string>

#include "host/guests/jobs/job_options.h"

namespace vexa::guests {

// The folder of the repository's files: "<root>/<repository's id>" of the first of the image roots that has such a
// folder, else the one that a job makes below the first root. "" when there are no roots, or when the id cannot be the
// name of a folder.
std::string RepositoryFolder(const JobOptions& options, const std::string& repository_id);

}  // namespace vexa::guests
