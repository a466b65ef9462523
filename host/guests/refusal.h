// Why this host does not do what it was asked to do with a guest.
#pragma once

#include <optional>
#include <string>

namespace vexa::guests {

// Codes of the reply. Those from 910 on are understood by the callers in webapi/guest, which tell users what to do.
inline constexpr int kUnreadable = 403;       // the guest, a disk or an interface has no readable record
inline constexpr int kFailed = 901;           // for a reason that has no code of its own
inline constexpr int kRunsAlready = 910;      // the guest runs
inline constexpr int kNotRunning = 911;       // the guest does not run
inline constexpr int kElsewhere = 912;        // the guest belongs to another host
inline constexpr int kBusy = 915;             // something else is being done with the guest
inline constexpr int kNoNetwork = 917;        // a network of the guest is not on this host
inline constexpr int kNoVcpu = 927;           // the guests here would have too many virtual CPUs
inline constexpr int kNoMemory = 928;         // not enough memory
inline constexpr int kRemoteNotVirtio = 935;  // the repository is another host's, and a disk is not VirtIO
inline constexpr int kNoCpuThreads = 942;     // not enough processors to set apart
inline constexpr int kRemoteEfi = 945;        // the repository is another host's, and the firmware is EFI
inline constexpr int kUnavailable = 949;      // the repository, a disk or the hypervisor cannot be used now
inline constexpr int kIncompatibleCpu = 955;  // this host's processor is not what the guest needs

struct Refusal {
  int code = kFailed;
  std::string reason;  // a sentence for the administrator, with the values that decided
};

// Nothing: it was done.
using Refused = std::optional<Refusal>;

}  // namespace vexa::guests
