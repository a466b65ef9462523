// Which host has which guest, and which guest is being deleted.
//
//   /run/<guest id>       {"host_id", "incarnation", "since" (Unix seconds), "starting", "state_before" (while
//                         starting), "saved", "vcpus", "memory_mib", "pinned_cpus": [0, …]}
//                         from before the guest is defined in its host's hypervisor until it is off and has no saved
//                         memory: a guest that libvirt saved still belongs to the host that has its memory
//   /deletion/<guest id>  see deletion.h; from before a file is touched until none is left
//   /edit/<guest id>      see edit.h; the same
//
// None of them begins while another exists, whichever hosts want it: the commit that writes one compares that the
// others are absent. So a guest that runs somewhere is not deleted, and one that is being deleted is not started. As an
// exception, disks can be added to a running guest.
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
  std::uint64_t incarnation = 0;                // of the host's daemon that wrote it; see cluster/host_claim.h
  std::chrono::system_clock::time_point since;  // whole seconds
  bool starting = false;                        // the hypervisor's report then decides whether it ever ran
  std::string state_before;                     // while starting: the guest's earlier state, in case the start fails
  bool saved = false;                           // it does not run: its memory is in a file of the host
  std::uint64_t vcpus = 0;
  std::uint64_t memory_mib = 0;
  std::vector<unsigned> pinned_cpus;  // the host's processors dedicated to it
};

// A time in a record, in Unix seconds, limited to the clock's range; anything that is not a number is 1970.
std::chrono::system_clock::time_point StoredTime(const Json::Value& seconds);

std::string RunKey(const std::string& guest_id);
std::string DeletionKey(const std::string& guest_id);
std::string EditKey(const std::string& guest_id);

// A key that every commit which names a guest compares and writes: of two that assign the same name at the same time,
// one gets a conflict and checks again.
std::string RenamesKey();

// A key that is written by every commit that makes a record name a file (of a disk, a drive, an image, UEFI variables).
// Code that removes or changes a file compares the key with its revision from before it searched for other users of the
// file, so a record added in between makes the commit a conflict.
std::string FilesKey();

struct StoredRun {
  Run run;
  store::Revision revision = 0;
};

// A damaged record belongs to no host; in one that names a host, members of a wrong type count as absent.
Run ParseRun(std::string_view text);

// Not set: no host has the guest. A damaged record counts as one without a host ("" as host_id), so that nothing is
// deleted or started by mistake; in one that names a host, members of a wrong type count as absent. Errors: those of
// the store.
Result<std::optional<StoredRun>> ReadRun(const store::Store& store, const std::string& guest_id);

// The guests that `host_id` has, by id. Damaged records belong to "".
Result<std::vector<std::pair<std::string, StoredRun>>> RunsOf(const store::Store& store, const std::string& host_id);

// The JSON text of the record.
std::string RunText(const Run& run);

}  // namespace vexa::guests
