// The records of unfinished deletions, and of files left for other hosts; deletion.h explains them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/guests/jobs/job_record.h"
#include "host/store/store.h"

namespace vexa::guests {

extern const JobKind kDeletionKind;

// Not set: the guest is not being deleted. Errors: those of the store.
Result<std::optional<StoredJob>> ReadDeletion(const store::Snapshot& snapshot, const std::string& guest_id);

// Reports that the guest is being deleted, by whom and since when: 915.
Refusal DeletedByOther(const StoredJob& deletion);

// The files that hosts have left for this one, by the guest's id.
std::string LeftoverKey(const std::string& host_id, const std::string& guest_id);
struct StoredLeftover {
  store::Revision revision = 0;                   // 0: absent
  std::string repository_id;                      // "" when unknown
  std::optional<std::vector<std::string>> paths;  // not set: it is damaged
};
Result<StoredLeftover> ReadLeftover(const store::Snapshot& snapshot, const std::string& host_id,
                                    const std::string& guest_id);
std::string LeftoverText(const std::vector<std::string>& paths, const std::string& repository_id);

}  // namespace vexa::guests
