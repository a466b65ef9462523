// What goes with a guest when it is deleted: its records, and the files that they name.
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

// The records of one state of the store. A disk or interface is the guest's when the guest lists it and its own record
// names the guest.
struct DeletionPlan {
  std::string host_id;                   // "" when the record names none
  std::string repository_id;             // the same
  std::string repository_host_id;        // "" when it is not known
  std::vector<NamedFile> files;          // of the guest's disks, and of its UEFI variables
  std::set<std::string> disks;           // their ids
  std::set<std::string> images;          // normal paths of its ISO images
  std::vector<store::Compare> compares;  // that all these records are still as they were read; the guest's first
  std::vector<store::Operation> removals;
  Notes notes;
};

// Errors: kNotFound (no such guest), kCorrupt (its record is no object), kInvalid (it names too much), and what the
// store says.
Result<DeletionPlan> PlanDeletion(const store::Snapshot& snapshot, const std::string& guest_id);

// The same for a guest that has no record: that there is none, and what may be left beside it.
Result<DeletionPlan> PlanGoneGuest(const store::Snapshot& snapshot, const std::string& guest_id);

}  // namespace vexa::guests
