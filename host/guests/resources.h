// Whether this host can run a guest now.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/refusal.h"
#include "host/records/guest_records.h"

namespace vexa::guests {

// The resources of the host, and what its guests use of them.
struct HostResources {
  std::string host_id;
  unsigned cpus = 0;                  // logical processors
  std::uint64_t free_memory_mib = 0;  // available to one more guest
  std::uint64_t vcpus_taken = 0;      // by the guests that run or start here
  std::vector<unsigned> pinned_cpus;  // dedicated to them, in any order
  unsigned vcpus_per_cpu = 8;         // how many virtual CPUs of guests one logical processor may serve
  bool is_connected = true;           // to the hypervisor
  // Whether the host has the network or bridge of this name. Not set: it has all.
  std::function<bool(const std::string& name)> has_network;
  // Whether a disk's file can be opened here. Not set: all can.
  std::function<bool(const std::string& path)> has_file;
};

struct Rating {
  std::vector<Refusal> refusals;      // all obstacles, in the order below; empty: it can run here
  bool has_best_io = false;           // the guest's repository belongs to this host
  std::vector<unsigned> pinned_cpus;  // the processors to dedicate to it, when it can run here
  // Why the host is not chosen for guests without a host, although this one may be able to run here: a sentence. "": it
  // may be chosen.
  std::string not_placed{};
};

// The refusals, each with the values that it is based on, in this order; a power-on returns the first.
//   945, 935  the repository belongs to another host, and the firmware is EFI, or a disk (the first is named) is not
//             VirtIO. If a guest's repository names no host, it does not count as another host's.
//   942       the record requests more dedicated processors than it has virtual CPUs, or all of the host's
//   927       too many virtual CPUs; also a record with a number of them that is not from 1 to 512
//   917       one for each missing network
//   928       too little memory; also a record without a valid amount
//   949       the hypervisor is not connected; the repository cannot be used (see IsUsableRepository); one for each
//             disk whose file is missing
//   942       too many processors are dedicated to other guests
// If the host is not connected, its resources are unknown: 942, 927 and 928 then only report errors in records, and
// has_network is not called. Dedicated processors are the highest-numbered free ones, in ascending order. Pure except
// for has_network and has_file, which are called for at most 64 interfaces and disks.
Rating Rate(const records::Guest& guest, const HostResources& host);

// The keyword for a refusal in the "status" of a rating: "no_memory", "no_network", …; "failed" for any other code.
// docs/services.md lists them.
std::string_view RefusalKeyword(int code);

// {"available", "status": [the keywords of the refusals without duplicates, "no_placement", "best_io"], "reasons":
// [sentences]}
Json::Value RatingData(const Rating& rating);

}  // namespace vexa::guests
