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

// What the host has, and what its guests have taken of it.
struct HostResources {
  std::string host_id;
  unsigned cpus = 0;                  // logical ones
  std::uint64_t free_memory_mib = 0;  // that a further guest could get
  std::uint64_t vcpus_taken = 0;      // of the guests that run or start here
  std::vector<unsigned> pinned_cpus;  // set apart for them, in any order
  unsigned vcpus_per_cpu = 8;         // how many virtual CPUs of guests a logical one may serve
  bool is_connected = true;           // whether the hypervisor can be asked
  // Whether the host has the network or bridge of this name. Not set: it has all.
  std::function<bool(const std::string& name)> has_network;
  // Whether a disk's file can be opened here. Not set: all can.
  std::function<bool(const std::string& path)> has_file;
};

struct Rating {
  std::vector<Refusal> refusals;      // everything that is in the way, the most lasting first; empty: it can run here
  bool has_best_io = false;           // the guest's repository is this host's
  std::vector<unsigned> pinned_cpus;  // the processors to set apart for it, when it can run here
};

// The refusals, each with the values that decided, in this order; the first is what a power-on answers.
//   945, 935  the repository is another host's, and the firmware is EFI, or a disk (the first is named) not VirtIO. A
//             guest whose repository names no host is on no other host's.
//   942       the record asks for more processors of its own than it has virtual CPUs, or for all of the host's
//   927       too many virtual CPUs; also a record whose number of them is none from 1 to 512
//   917       one for each network that is missing
//   928       too little memory; also a record that does not say how much
//   949       the hypervisor is not connected; the repository cannot be used (see IsUsableRepository); one for each
//   disk whose
//             file is missing
//   942       too many processors are set apart for other guests
// Of a host that is not connected nothing is known but its id: 942, 927 and 928 are of what records say wrongly then,
// and nothing is asked of has_network. Processors to set apart are the highest-numbered free ones, in rising order.
// Pure but for has_network and has_file, which are asked about 64 interfaces and disks at most.
Rating Rate(const Guest& guest, const HostResources& host);

// The word for a refusal in the "status" of a rating: "no_memory", "no_network", …; "failed" for any other code.
// docs/services.md lists them.
std::string_view RefusalWord(int code);

// {"available", "status": [the refusals' words, each once, "best_io"], "reasons": [sentences]}
Json::Value RatingData(const Rating& rating);

}  // namespace vexa::guests
