// What goes with a guest when it is deleted: its records, and the files that they name.
#pragma once

#include <json/value.h>

#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/base/result.h"
#include "host/disks/disk_files.h"
#include "host/disks/disk_users.h"
#include "host/guests/deletion/deletion_record.h"
#include "host/store/store.h"

namespace vexa::guests {

// A guest that names more of one kind is not deleted: somebody has to look at its record first.
inline constexpr std::size_t kMaxListed = 16'384;

// The number of that file among the guest's, behind all disks.
inline constexpr std::size_t kNvramIndex = kMaxListed;

// What is told once the guest is gone: a sentence each.
using Notes = std::vector<std::string>;

struct NamedFile {
  std::size_t index = 0;  // of the disk, in the guest's order, or kNvramIndex
  std::string path;       // as the record has it
  bool operator==(const NamedFile&) const = default;
};

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

// The files among those named that are to be removed, with their hidden names.
struct Selection {
  std::vector<HiddenFile> files;
  Notes notes;  // why others are not
};

// Looks at each file, and asks `question` about those that are there. No snapshot may be held: this takes time. Errors:
// what is the matter with the first that could not be looked at; what the store says.
Result<Selection> SelectFiles(const std::string& guest_id, const DeletionPlan& plan, const FileQuestion& question,
                              const DiskFiles& disk_files, const store::Store& store);

}  // namespace vexa::guests
