// Which host has which guest, and which guest is being deleted.
//
//   /run/<guest id>       {"host_id", "incarnation", "since" (Unix seconds), "starting", "state_before" (while
//   starting),
//                         "saved", "vcpus", "memory_mib", "pinned_cpus": [0, …]}
//                         from before the guest is defined for the hypervisor of its host until it is off and its
//                         memory is nowhere: a guest that libvirt saved still belongs to the host that has its memory
//   /deletion/<guest id>  see deletion.h; from before a file is touched until none is left
//   /edit/<guest id>      see edit.h; the same
//
// None is begun while another is there, whichever hosts want it: the commit that writes one compares that the others
// are absent. So a guest that runs somewhere is not deleted, and one that is being deleted is not started. Only disks
// are also added to a guest that runs.
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::guests {

struct Run {
  std::string host_id;
  std::uint64_t incarnation = 0;                // of the host's daemon that noted it; see cluster/host_claim.h
  std::chrono::system_clock::time_point since;  // whole seconds
  bool starting = false;                        // what the hypervisor says then decides whether it ever ran
  std::string state_before;                     // while starting: the guest's state, for a start that fails
  bool saved = false;                           // it does not run: its memory is in a file of the host
  std::uint64_t vcpus = 0;
  std::uint64_t memory_mib = 0;
  std::vector<unsigned> pinned_cpus;  // the host's processors that are set apart for it
};

// A time in a record, in Unix seconds, within what the clock can tell; whatever is no number is 1970.
std::chrono::system_clock::time_point StoredTime(const Json::Value& seconds);

std::string RunKey(const std::string& guest_id);
std::string DeletionKey(const std::string& guest_id);
std::string EditKey(const std::string& guest_id);

// The key that everybody compares and commits who gives a name to a guest, so that of two who give the same at the same
// time one looks again.
std::string RenamesKey();

// The key that everybody commits who makes a record name a file (a disk's, a drive's, an image's, UEFI variables).
// Whoever removes or changes a file compares it with its revision from before it searched for other users of the file,
// so that a record which comes in between makes the commit a conflict.
std::string FilesKey();

struct StoredRun {
  Run run;
  store::Revision revision = 0;
};

// A damaged record is one of no host; of one that names a host, members of a wrong type are as if absent.
Run ParseRun(std::string_view text);

// Not set: no host has the guest. A damaged record counts as one of no host ("" as host_id), so that nothing is deleted
// or started by mistake; of one that names a host, members of a wrong type are as if absent. Errors: what the store
// says.
Result<std::optional<StoredRun>> ReadRun(const store::Store& store, const std::string& guest_id);

// The guests that `host_id` has, by id. Damaged records are those of "".
Result<std::vector<std::pair<std::string, StoredRun>>> RunsOf(const store::Store& store, const std::string& host_id);

// JSON text of the record.
std::string RunText(const Run& run);

}  // namespace vexa::guests
