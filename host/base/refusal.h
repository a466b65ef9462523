// Why this host refuses an operation on a guest.
#pragma once

#include <optional>
#include <string>

#include "host/base/result.h"

namespace vexa::guests {

// Codes of the reply. The callers in webapi/guest understand the codes from 910 on and advise users accordingly.
inline constexpr int kUnreadable = 403;       // the guest, a disk or an interface has no readable record
inline constexpr int kFailed = 901;           // for a reason that has no code of its own
inline constexpr int kRunsAlready = 910;      // the guest is already running
inline constexpr int kNotRunning = 911;       // the guest does not run
inline constexpr int kElsewhere = 912;        // the guest belongs to another host
inline constexpr int kBusy = 915;             // another operation on the guest is in progress
inline constexpr int kNoNetwork = 917;        // a network of the guest does not exist on this host
inline constexpr int kNoVcpu = 927;           // the guests here would have too many virtual CPUs
inline constexpr int kNoMemory = 928;         // not enough memory
inline constexpr int kRemoteNotVirtio = 935;  // the repository belongs to another host, and a disk is not VirtIO
inline constexpr int kNoCpuThreads = 942;     // not enough processors to dedicate
inline constexpr int kRemoteEfi = 945;        // the repository belongs to another host, and the firmware is EFI
inline constexpr int kUnavailable = 949;      // the repository, a disk or the hypervisor cannot be used now
inline constexpr int kIncompatibleCpu = 955;  // this host's processor does not meet the guest's needs

// Codes of a guest edit; its callers understand these.
inline constexpr int kBadEdit = 401;       // a parameter that a guest cannot have
inline constexpr int kTooManyDisks = 410;  // more disks than a guest may have
inline constexpr int kNameTaken = 902;     // another guest has the name
inline constexpr int kBadNic = 903;        // a network, an interface or a MAC address that is not available
inline constexpr int kBadDisk = 904;       // a disk that is not the guest's, or cannot be changed like this or now
inline constexpr int kNoImage = 932;       // an ISO image that does not exist
inline constexpr int kBadUsb = 936;        // a USB device that does not exist or cannot be passed through
inline constexpr int kNoUsbPort = 938;     // a USB device without a port to plug it into
inline constexpr int kSuspended = 944;     // the guest is suspended
inline constexpr int kNotPinned = 2101;    // the dedicated processors of a running guest cannot be reserved

struct Refusal {
  int code = kFailed;
  std::string reason;  // a sentence for the administrator, with the values that decided
};

// Empty: the operation was done.
using Refused = std::optional<Refusal>;

// For reasons without a code of their own.
Refusal FailedBecause(const Error& error);
// The same for the results of file operations on disks: 910 when a machine has a file open.
Refusal FileFailedBecause(const Error& error);

}  // namespace vexa::guests
