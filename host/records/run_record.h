// Which host runs a guest or holds its saved memory, and which guests are being deleted, edited or created.
//
//   /run/<guest id>       {"host_id", "incarnation", "since" (Unix seconds), "starting", "restoring" and
//                         "state_before" (while starting), "saved", "vcpus", "memory_mib", "pinned_cpus": [0, …],
//                         "kept_off": [1, …] or null, "virtual_functions": {"<interface id>": {"address",
//                         "network"}}}
//                         from before the guest is defined in its host's hypervisor until it is off and has no saved
//                         memory: a guest that libvirt saved still belongs to the host that has its memory
//   /deletion/<guest id>  see deletion.h; from before the first file is touched until it is finished or undone
//   /edit/<guest id>      see edit.h; the same for an edit of files
//   /creation/<guest id>  see creation.h; the same for a guest that does not exist yet
//
// A guest has at most one of these records, whichever hosts try to write them: the commit that writes one compares that
// the others are absent. So a guest that runs somewhere is not deleted, and one that is being deleted is not started.
// As an exception, disks can be added to a running guest.
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::records {

// A virtual function of a network card that an interface of a guest has.
struct VirtualFunction {
  std::string address;  // PCI, "0000:3b:02.1"
  std::string network;  // the bridge for which it was chosen
  bool operator==(const VirtualFunction&) const = default;
};

struct Run {
  std::string host_id;
  std::uint64_t incarnation = 0;                // of the host's daemon that wrote it; see cluster/host_claim.h
  std::chrono::system_clock::time_point since;  // whole seconds
  bool starting = false;                        // set before the hypervisor is asked to start the guest
  bool restoring = false;                       // while starting: from saved memory, so it is paused at first
  std::string state_before;                     // while starting: the guest's earlier state, in case the start fails
  bool saved = false;                           // it does not run: its memory is in a file of the host
  std::uint64_t vcpus = 0;
  std::uint64_t memory_mib = 0;
  std::vector<unsigned> pinned_cpus;  // the host's processors dedicated to it
  // Processors dedicated to other guests, which the threads of this one have been kept off. Not set: unknown, because
  // the guest did not get the definition of this run, or got more virtual CPUs while it ran.
  std::optional<std::set<unsigned>> kept_off = std::set<unsigned>();
  // By the ids of the interfaces.
  std::map<std::string, VirtualFunction> virtual_functions;
};

// The time for a number of Unix seconds in a record, limited to the clock's range; anything that is not a number reads
// as 1970-01-01.
std::chrono::system_clock::time_point TimeFromJson(const Json::Value& seconds);

std::string RunKey(const std::string& guest_id);
std::string DeletionKey(const std::string& guest_id);
std::string EditKey(const std::string& guest_id);
std::string CreationKey(const std::string& guest_id);

// A key without a meaning of its own, which every commit that gives a guest a name compares and writes: of two
// concurrent commits that assign the same name, one gets a conflict and checks the name again.
std::string GuestNamesGuardKey();

// A key without a meaning of its own, which every commit writes that adds a reference to a file (of a disk, a drive, an
// image, UEFI variables) to a record. Code that removes or changes a file compares the key with its revision from
// before it searched for other users of the file, so a reference added in between makes the commit a conflict.
std::string FileReferencesGuardKey();

struct StoredRun {
  Run run;
  store::Revision revision = 0;
};

// A damaged record has "" as its host_id; in any other, members of a wrong type count as absent.
Run ParseRun(std::string_view text);

// Not set: no host has the guest. A damaged record counts as one without a host ("" as host_id), so that nothing is
// deleted or started by mistake; in one that names a host, members of a wrong type count as absent. The overload
// with a store reads its newest state. Errors: those of the store.
Result<std::optional<StoredRun>> ReadRun(const store::Snapshot& snapshot, const std::string& guest_id);
Result<std::optional<StoredRun>> ReadRun(const store::Store& store, const std::string& guest_id);

// The guests that `host_id` has, by id. Damaged records belong to "". The overload with a store reads its newest
// state.
Result<std::vector<std::pair<std::string, StoredRun>>> RunsOf(const store::Snapshot& snapshot,
                                                              const std::string& host_id);
Result<std::vector<std::pair<std::string, StoredRun>>> RunsOf(const store::Store& store, const std::string& host_id);

// The JSON text of the record.
std::string SerializeRun(const Run& run);

}  // namespace vexa::records
