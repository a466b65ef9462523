// The numbers in "error.code" of replies. The library and the host share them; no other file defines error codes.
//
// Some numbers have one meaning in replies to users and another in replies between hosts, so there are two namespaces:
// user_error and host_error. host/base/error_table.cpp has the HTTP status and the message of each code.
#pragma once

namespace vexa::user_error {

// Requests that did not reach a method, or failed inside the host.
inline constexpr int kInternal = 100;     // also: a host failed without sending a readable code
inline constexpr int kMalformed = 101;    // the request is not HTTP, or its body is not a JSON object
inline constexpr int kUnreachable = 102;  // a host did not answer
inline constexpr int kNotLoggedIn = 103;
inline constexpr int kDenied = 104;  // the caller may not call the method
inline constexpr int kBadCsrfToken = 105;
inline constexpr int kWrongPassword = 106;  // or unknown user
inline constexpr int kTooManyLogins = 107;  // too many failed ones in a short time
inline constexpr int kHostBusy = 108;       // too many requests are waiting
inline constexpr int kNoSuchAddress = 109;
inline constexpr int kHttpMethodNotAllowed = 110;
inline constexpr int kNotJson = 111;  // the Content-Type
inline constexpr int kBodyTooLarge = 112;
inline constexpr int kHeaderTooLarge = 113;
inline constexpr int kRequestTimeout = 114;  // the request did not arrive in time
inline constexpr int kNotImplemented = 115;  // the HTTP method or transfer coding
inline constexpr int kHttpVersionNotSupported = 116;
inline constexpr int kExpectationFailed = 117;  // the Expect header
inline constexpr int kTargetTooLong = 118;

// The request, the caller's permissions, and records that cannot be read.
inline constexpr int kBadParameter = 401;
inline constexpr int kNotFoundOrUnreadable = 403;  // a record, interface or volume does not exist or cannot be read
inline constexpr int kCheckFailed = 404;  // of a guest's repository; internal to the library, never sent in a reply
inline constexpr int kNameInUse = 406;
inline constexpr int kIncompatibleHost = 407;  // its version does not support the operation
inline constexpr int kNotPermitted = 409;      // the user may not access the guest, or not call the method
inline constexpr int kNewDisksExceedLunLimit = 411;
inline constexpr int kUnknownDiskTypeOrNotReserved = 413;  // "get": unknown type; "set": resources not reserved
inline constexpr int kClusterIsUpgrading = 415;
inline constexpr int kUnknownApi = 507;          // unknown API, method or version
inline constexpr int kNotPermittedByHost = 620;  // the guest's host does not permit it now

// Guest operations. Lower codes concern the request, the caller's permissions, or records that cannot be read.
inline constexpr int kFirstGuestOperationCode = 900;
inline constexpr int kActionFailed = 901;  // a deletion, or an action without a code of its own
inline constexpr int kPowerOnFailed = 902;
inline constexpr int kShutdownFailed = 903;
inline constexpr int kPowerOffFailed = 904;
inline constexpr int kRebootFailed = 905;
inline constexpr int kEditFailed = 909;
inline constexpr int kAddressInUseOrGuestRuns = 910;  // "set": MAC address in use; others: guest runs
inline constexpr int kNotRunning = 911;               // and it has no saved memory
inline constexpr int kGuestBusy = 912;                // another operation on the guest is in progress
inline constexpr int kNoCpuOrMemory = 914;
inline constexpr int kNoNetwork = 915;
inline constexpr int kBadNetworkSettings = 919;
inline constexpr int kDiskNotEditable = 920;
inline constexpr int kTooOldToRemoveDisk = 926;  // while the guest runs
inline constexpr int kTooManyVcpus = 927;
inline constexpr int kNoMemory = 928;
inline constexpr int kImagesNotChanged = 930;
inline constexpr int kNoHostChosen = 932;
inline constexpr int kRemoteNotVirtio = 933;  // the repository belongs to another host, and a disk is not VirtIO
inline constexpr int kImageUnusable = 934;    // its path does not lead to a file in an image folder
inline constexpr int kUsbNotPassedThrough = 935;
inline constexpr int kNoUsbPort = 937;
inline constexpr int kAlreadyRunning = 939;
inline constexpr int kCpuThreadsNotReserved = 943;  // for an edited guest
inline constexpr int kNoCpuThreads = 944;           // to start the guest
inline constexpr int kSuspended = 946;
inline constexpr int kRemoteEfi = 947;    // the repository belongs to another host, and the firmware is EFI
inline constexpr int kUnavailable = 949;  // the repository, a disk or the hypervisor cannot be used now
inline constexpr int kStartExceedsLunLimit = 954;
inline constexpr int kTemporarilyUnavailable = 959;  // a resource that the guest needs
inline constexpr int kIncompatibleCpu = 965;

// Hosts that have failed.
inline constexpr int kHostIsAlive = 971;      // it still sends heartbeats
inline constexpr int kNotConfirmed = 972;     // the user did not confirm that it is powered off
inline constexpr int kHostHasGuests = 973;    // so it cannot be removed yet
inline constexpr int kSavedMemoryLost = 974;  // the host has a guest's saved memory, which would be lost

// Accounts and grants.
inline constexpr int kNoAccount = 980;
inline constexpr int kAccountTaken = 981;          // the name or the id is in use
inline constexpr int kWrongOldPassword = 982;      // or it is missing
inline constexpr int kAccountsFromPam = 983;       // so they cannot be changed here
inline constexpr int kGrantsOfOtherAccount = 984;  // the id's grants were given to an account with another name
inline constexpr int kAccountDamaged = 985;
inline constexpr int kGroupCannotBeDeleted = 986;
inline constexpr int kLastAdministrator = 987;
inline constexpr int kAccountsUnavailable = 988;
inline constexpr int kNoSession = 989;

// Images and repositories.
inline constexpr int kRecordExists = 990;   // another record has the id, the name or the file
inline constexpr int kRecordInUse = 991;    // guests or disks refer to the record
inline constexpr int kRecordFailed = 992;   // the database could not be read or written
inline constexpr int kUploadOffset = 993;   // the upload continues at another offset
inline constexpr int kUploadDamaged = 994;  // what arrived is not the file that was announced
inline constexpr int kNoRoom = 995;         // on the file system
inline constexpr int kUploadLimit = 996;    // of the number or the size of uploads

// Guest edits that were only partly applied.
inline constexpr int kRightsNotSet = 1001;
inline constexpr int kEditedWithoutReservation = 1600;

}  // namespace vexa::user_error

namespace vexa::host_error {

// These have the same meaning as for users. A host whose version does not have a method replies kUnknownApi.
using user_error::kBadParameter;
using user_error::kInternal;
using user_error::kNotFoundOrUnreadable;
using user_error::kUnknownApi;
using user_error::kUnreachable;

inline constexpr int kTooManyDisks = 410;  // more than a guest may have; when it starts: the iSCSI LUN limit
inline constexpr int kNotPermittedNow = 528;
inline constexpr int kFailed = 901;          // for a reason without a code of its own
inline constexpr int kNameTaken = 902;       // another guest has the name
inline constexpr int kBadNic = 903;          // a network, interface or MAC address is not available
inline constexpr int kBadDisk = 904;         // it is not the guest's, or this change is not possible (now)
inline constexpr int kAlreadyRunning = 910;  // or a host already has the guest or its saved memory
inline constexpr int kNotRunning = 911;      // and it has no saved memory
inline constexpr int kOnOtherHost = 912;     // the guest, or its repository, belongs to another host
inline constexpr int kBusy = 915;            // another operation on the guest is in progress
inline constexpr int kNoCpuOrMemory = 916;
inline constexpr int kNoNetwork = 917;           // a network of the guest does not exist on this host
inline constexpr int kTooOldToRemoveDisk = 924;  // while the guest runs
inline constexpr int kTooManyVcpus = 927;        // the limit of virtual CPUs on this host is reached
inline constexpr int kNoMemory = 928;
inline constexpr int kNoImage = 932;          // an ISO image does not exist
inline constexpr int kRemoteNotVirtio = 935;  // the repository belongs to another host, and a disk is not VirtIO
inline constexpr int kBadUsb = 936;           // a USB device does not exist or cannot be passed through
inline constexpr int kNoUsbPort = 938;        // no USB port or controller is left for a device
inline constexpr int kNoCpuThreads = 942;     // not enough CPU threads to dedicate
inline constexpr int kSuspended = 944;        // the guest is suspended, so its disks cannot be changed
inline constexpr int kRemoteEfi = 945;        // the repository belongs to another host, and the firmware is EFI
inline constexpr int kUnavailable = 949;      // the repository, a disk or the hypervisor cannot be used now
inline constexpr int kIncompatibleCpu = 955;  // this host's processor does not meet the guest's needs
inline constexpr int kEditedWithoutReservation = 1503;  // some hosts could not reserve memory or processors
inline constexpr int kPartsNotReserved = 2101;  // the guest was not edited; the details list what was not reserved

}  // namespace vexa::host_error

// Also visible in the library's own namespace.
namespace VexaVirtualization {
namespace user_error = vexa::user_error;
namespace host_error = vexa::host_error;
}  // namespace VexaVirtualization
