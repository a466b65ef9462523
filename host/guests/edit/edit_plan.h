// Plans an edit of a guest, based on one state of the store. For host/guests/edit/edit*.cpp only.
#pragma once

#include <cstdint>
#include <map>
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

// Ids and MAC addresses for what the edit adds. Made before the plan, so that they stay the same when the edit is
// planned again.
struct NewIds {
  std::vector<std::string> nics;   // one for each of nics_add
  std::vector<std::string> macs;   // one for each of nics_add; "" where the request has an address
  std::vector<std::string> disks;  // one for each of disks_add
};

// A file of a disk to grow.
struct GrownFile {
  std::string disk_id;
  std::string path;
  domain_xml::ImageFormat format = domain_xml::ImageFormat::kQcow2;
  std::uint64_t size_mib = 0;
  bool operator==(const GrownFile&) const = default;
};

// The files that the edit creates, grows and removes.
struct FileChanges {
  std::vector<NewFile> made;
  std::vector<GrownFile> grown;
  std::vector<RecordedFile> removed;
  std::set<std::string> removed_disks;  // their ids
  std::set<std::string> images;         // normal paths of the guest's ISO images
  std::string repository_id;            // of the guest
  bool operator==(const FileChanges&) const = default;
  bool empty() const { return made.empty() && grown.empty() && removed.empty(); }
};

struct EditPlan {
  std::optional<Refusal> refused;  // if set, or when facts are missing, the other members have no meaning
  store::Transaction transaction;  // without operations when nothing changes
  FileChanges files;
};

// One record of a disk or interface during an edit.
struct EditedPart {
  std::string id;
  records::StoredObject stored;  // revision 0: it is new
  Json::Value before;            // the original record
  std::size_t index = 0;         // its position in the guest's record
};

// The state of PlanEdit(): the guest's records as they become, and the plan so far.
struct EditedGuest {
  const EditOptions& options;
  const EditRequest& request;
  const NewIds& ids;
  const store::Snapshot& snapshot;
  FileFacts& facts;
  std::string id;
  records::StoredObject guest{};
  Json::Value before{};
  std::vector<EditedPart> disks{};
  std::vector<EditedPart> nics{};
  std::vector<std::string> removed_disks{};
  std::vector<std::string> removed_nics{};
  std::vector<std::string> taken_macs{};  // addresses that the edit assigns to interfaces
  bool names_network = false;             // an interface is put into a network with a record
  std::vector<std::string> left_files{};  // of disks that the running guest still has
  std::set<std::string> growing_files{};  // of disks that the running guest's machine makes larger
  std::string repository_id{};
  std::string repository_host_id{};
  bool is_running = false;    // a host holds the guest
  bool runs_here = false;     // this one, and the guest's machine can be changed
  bool is_suspended = false;  // its memory is saved, or it is paused
  EditPlan plan{};

  void Refuse(int code, std::string reason) {
    if (!plan.refused) plan.refused = Refusal{code, std::move(reason)};
  }
  // Whether planning must stop here.
  bool MustStop() const { return plan.refused || facts.HasMissingFacts(); }
};

// The transaction compares everything that was read, so that any change meanwhile becomes a conflict. Uses only the
// snapshot, the store and `facts`. When a fact is missing, the plan is incomplete and must be made again. Errors: those
// of the store.
Result<EditPlan> PlanEdit(const EditOptions& options, const std::string& guest_id, const EditRequest& request,
                          const NewIds& ids, const store::Snapshot& snapshot, FileFacts& facts);

// edit_nics.cpp
Status EditNics(EditedGuest& edited);
// The reason for refusing an edit that adds more network interfaces than a guest may have.
std::string TooManyNics();
// edit_disks.cpp
void EditDisks(EditedGuest& edited);

}  // namespace vexa::guests
