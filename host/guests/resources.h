// Whether this host can run a guest now.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "host/guests/guest_records.h"
#include "host/guests/refusal.h"

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

// Pure but for has_network and has_file.
Rating Rate(const Guest& guest, const HostResources& host);

// The word for a refusal in the "status" of a rating: "no_memory", "no_network", …; "failed" for any other code.
std::string_view RefusalWord(int code);

// {"available", "status": [the refusals' words, "best_io"], "reasons": [sentences]}
Json::Value RatingData(const Rating& rating);

}  // namespace vexa::guests
