// The changes of a guest's edit, based on one state of the store. For host/guests/edit/edit*.cpp only.
#pragma once

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/base/result.h"
#include "host/guests/edit/edit.h"
#include "host/guests/edit/edit_facts.h"
#include "host/guests/edit/edit_request.h"
#include "host/guests/jobs/file_job.h"
#include "host/guests/jobs/file_selection.h"
#include "host/records/object_edit.h"
#include "host/store/store.h"

namespace vexa::guests {

// Values that are new regardless of the records, so that they stay the same when an edit is planned again.
struct NewIds {
  std::vector<std::string> nics;   // one for each of nics_add
  std::vector<std::string> macs;   // likewise; "" where the request has one
  std::vector<std::string> disks;  // one for each of disks_add
};

struct GrownFile {
  std::string disk_id;
  std::string path;
  hypervisor::ImageFormat format = hypervisor::ImageFormat::kQcow2;
  std::uint64_t size_mib = 0;
  bool operator==(const GrownFile&) const = default;
};

struct FileChanges {
  std::vector<NewFile> made;
  std::vector<GrownFile> grown;
  std::vector<NamedFile> removed;
  std::set<std::string> removed_disks;  // their ids
  std::set<std::string> images;         // normal paths of the guest's ISO images
  std::string repository_id;            // of the guest
  bool operator==(const FileChanges&) const = default;
  bool empty() const { return made.empty() && grown.empty() && removed.empty(); }
};

struct EditPlan {
  Refused refused;                 // if set, the other members have no meaning; also when facts are missing
  store::Transaction transaction;  // without operations: nothing changes
  FileChanges files;
};

// One record of a disk or interface during an edit.
struct EditedPart {
  std::string id;
  cluster::StoredObject stored;  // revision 0: it is new
  Json::Value before;            // the original record
  std::size_t index = 0;         // its position in the guest's record
};

// An edit under construction: the parts of PlanEdit() change it.
struct EditedGuest {
  const EditOptions& options;
  const EditRequest& request;
  const NewIds& ids;
  const store::Snapshot& snapshot;
  FileFacts& facts;
  std::string id;
  cluster::StoredObject guest;
  Json::Value before;
  std::vector<EditedPart> disks;
  std::vector<EditedPart> nics;
  std::vector<std::string> removed_disks;
  std::vector<std::string> removed_nics;
  std::vector<std::string> taken_macs;  // addresses that the edit assigns to interfaces
  std::string repository_id;
  std::string repository_host_id;
  bool is_running = false;    // a host has the guest
  bool is_suspended = false;  // its state is saved, or it is frozen
  EditPlan plan;

  void Refuse(int code, std::string reason) {
    if (!plan.refused) plan.refused = Refusal{code, std::move(reason)};
  }
  bool IsOver() const { return plan.refused || facts.IsLacking(); }
};

// The transaction compares everything that was read, so that any change meanwhile becomes a conflict. Uses only the
// store and `facts`; when a fact is missing, the plan ends there and must be made again. Errors: those of the store.
Result<EditPlan> PlanEdit(const EditOptions& options, const std::string& guest_id, const EditRequest& request,
                          const NewIds& ids, const store::Snapshot& snapshot, FileFacts& facts);

// edit_nics.cpp
Status EditNics(EditedGuest& edited);
// edit_disks.cpp
void EditDisks(EditedGuest& edited);

}  // namespace vexa::guests
