// How much space a repository has, and its limits.
//
//   /dash/repository/<id>/space    {"host_id", "total", "used", "free" (bytes, of all file systems of its folders),
//                                   "soft_percent", "hard_percent", "headroom_gib"}
//   /dash/repository/<id>/limits   {"soft_percent", "hard_percent"} that an administrator has set, either of them
//
// The repository's host writes the first one when it checks the storage, if the figures have changed by a thousandth of
// the total or more.
// Threads: any, at the same time; processes as well.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/storage/storage_condition.h"
#include "host/store/store.h"

namespace vexa::storage {

struct RepositorySpace {
  std::string host_id;
  std::uint64_t total = 0;  // bytes
  std::uint64_t used = 0;
  std::uint64_t free = 0;  // for users other than root
  SpaceLimits limits;
};

std::string SpaceKey(const std::string& repository_id);
std::string LimitsKey(const std::string& repository_id);

// The sum of the conditions of file systems. Not set: none of them could be examined.
std::optional<RepositorySpace> SumOf(const std::vector<FolderCondition>& conditions);

// Not set: the repository has not been checked by its present host. Errors: those of the store.
Result<std::optional<RepositorySpace>> ReadSpace(const store::Snapshot& snapshot, const std::string& repository_id,
                                                 const std::string& host_id);

// Writes the space unless the stored one is nearly the same, or there is no such repository. Errors: those of the
// store.
Status WriteSpace(store::Store& store, const std::string& repository_id, const RepositorySpace& space);

// The limits of the repository: the ones that an administrator has set, which count whatever is free, and `defaults`
// with their headroom for the others. Errors: those of the store.
Result<SpaceLimits> LimitsOf(const store::Snapshot& snapshot, const std::string& repository_id,
                             const SpaceLimits& defaults);

struct NewLimits {
  std::optional<unsigned> soft_percent;  // not set: the default of the repository's host. 0: never
  std::optional<unsigned> hard_percent;
};

// Sets the limits, and `name` to the repository's name ("" when there is no such repository).
// Refusals: kBadParameter (above 100, or the soft one is above the hard one), kNotFoundOrUnreadable, kRecordFailed.
Result<void, Refusal> SetLimits(store::Store& store, const std::string& id, const NewLimits& limits, std::string& name);

// Why a file system in this condition is full, with the figures as a clause; not set if it is not.
std::optional<std::string> WhyFull(const FolderCondition& condition, const SpaceLimits& limits);

}  // namespace vexa::storage
