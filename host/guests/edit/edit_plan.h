// What an edit of a guest changes, by one state of the store. For host/guests/edit/edit*.cpp only.
#pragma once

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/base/result.h"
#include "host/guests/edit/edit.h"
#include "host/guests/edit/edit_facts.h"
#include "host/guests/edit/edit_request.h"
#include "host/guests/jobs/file_selection.h"
#include "host/records/object_edit.h"
#include "host/store/store.h"

namespace vexa::guests {

// What is new whatever the records say, so that it stays the same when an edit is planned again.
struct NewIds {
  std::vector<std::string> nics;   // one for each of nics_add
  std::vector<std::string> macs;   // the same; "" where the request has one
  std::vector<std::string> disks;  // one for each of disks_add
};

struct NewFile {
  std::string path;
  hypervisor::ImageFormat format = hypervisor::ImageFormat::kQcow2;
  std::uint64_t size_mib = 0;
  bool operator==(const NewFile&) const = default;
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
  std::string repository_id;            // the guest's
  bool operator==(const FileChanges&) const = default;
  bool empty() const { return made.empty() && grown.empty() && removed.empty(); }
};

struct EditPlan {
  Refused refused;                 // set: the rest means nothing; the same when facts are lacking
  store::Transaction transaction;  // without operations: nothing changes
  FileChanges files;
};

// One record of a disk or interface while it is edited.
struct EditedPart {
  std::string id;
  cluster::StoredObject stored;  // revision 0: it is new
  Json::Value before;            // the record as it was
  std::size_t index = 0;         // where the guest's record had it
};

// An edit in the making: the parts of PlanEdit() change it.
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
  std::vector<std::string> taken_macs;  // those that the edit gives to an interface
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

// The transaction compares all that was looked at, so that who changes any of it meanwhile makes it a conflict. Looks
// at nothing but the store and `facts`; when one of these is lacking, the plan ends there and is to be made again.
// Errors: what the store says.
Result<EditPlan> PlanEdit(const EditOptions& options, const std::string& guest_id, const EditRequest& request,
                          const NewIds& ids, const store::Snapshot& snapshot, FileFacts& facts);

// edit_nics.cpp
Status EditNics(EditedGuest& edited);
// edit_disks.cpp
void EditDisks(EditedGuest& edited);

}  // namespace vexa::guests
