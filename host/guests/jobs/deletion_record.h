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

// The refusal 915: the guest is being deleted; who started that and when.
Refusal HeldByDeletion(const StoredJob& deletion);

// The files of a deleted guest that another host has left for this host to remove.
std::string LeftoverKey(const std::string& host_id, const std::string& guest_id);
struct StoredLeftover {
  store::Revision revision = 0;                   // 0: absent
  std::string repository_id;                      // "" when unknown
  std::optional<std::vector<std::string>> paths;  // not set: it is damaged
};
Result<StoredLeftover> ReadLeftover(const store::Snapshot& snapshot, const std::string& host_id,
                                    const std::string& guest_id);
std::string SerializeLeftover(const std::vector<std::string>& paths, const std::string& repository_id);

}  // namespace vexa::guests
