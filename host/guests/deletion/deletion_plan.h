// What is deleted with a guest: its records, and the files that they refer to.
#pragma once

#include <json/value.h>

#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/base/result.h"
#include "host/guests/jobs/file_selection.h"
#include "host/store/store.h"

namespace vexa::guests {

// The plan for one state of the store. A disk or interface belongs to the guest when the guest lists it and its own
// record names the guest.
struct DeletionPlan {
  std::string host_id;                   // "" when the record names none
  std::string repository_id;             // "" when the record names none
  std::string repository_host_id;        // "" when unknown
  std::vector<RecordedFile> files;       // of the guest's disks and its UEFI variables
  std::set<std::string> disks;           // their ids
  std::set<std::string> images;          // normal paths of its ISO images
  std::vector<store::Compare> compares;  // of all these records with what was read; the guest's first
  std::vector<store::Operation> removals;
  Notes notes;
};

// Errors: kNotFound (no such guest), kCorrupt (its record is not an object), kInvalid (it lists too many disks or
// interfaces), and those of the store.
Result<DeletionPlan> PlanDeletion(const store::Snapshot& snapshot, const std::string& guest_id);

// The same for a guest that has no record any more: compares that there is still none, and removes what may be left of
// the guest.
Result<DeletionPlan> PlanDeletedGuest(const store::Snapshot& snapshot, const std::string& guest_id);

}  // namespace vexa::guests
