// Why this host does not do what it was asked to do with a guest.
#pragma once

#include <optional>
#include <string>

#include "host/base/result.h"

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

// Of an edit of a guest; its callers understand these.
inline constexpr int kBadEdit = 401;       // a parameter that no guest can have
inline constexpr int kTooManyDisks = 410;  // more disks than a guest may have
inline constexpr int kNameTaken = 902;     // another guest has the name
inline constexpr int kBadNic = 903;        // a network, an interface or a MAC address that cannot be had
inline constexpr int kBadDisk = 904;       // a disk that is not the guest's, or cannot be changed so, or not now
inline constexpr int kNoImage = 932;       // an ISO image that is not there
inline constexpr int kBadUsb = 936;        // a USB device that is none
inline constexpr int kNoUsbPort = 938;     // a USB device and nothing to plug it into
inline constexpr int kSuspended = 944;     // the guest is suspended
inline constexpr int kNotPinned = 2101;    // a running guest's processors of its own cannot be set apart

struct Refusal {
  int code = kFailed;
  std::string reason;  // a sentence for the administrator, with the values that decided
};

// Nothing: it was done.
using Refused = std::optional<Refusal>;

// For reasons that have no code of their own.
Refusal FailedBecause(const Error& error);
// The same for what the file calls of disks answer: 910 when a machine has a file open.
Refusal FileFailedBecause(const Error& error);

}  // namespace vexa::guests
