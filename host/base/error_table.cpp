#include "host/base/error_table.h"

#include <algorithm>

#include "webapi/error_codes.h"

namespace vexa {
namespace {

constexpr ErrorRow kErrors[] = {
    {user_error::kInternal, 500, "The request failed for an internal reason. The system log has the request's id."},
    {user_error::kMalformed, 400, "The request is malformed."},
    {user_error::kUnreachable, 502, "The host could not be reached, or did not answer in time."},
    {user_error::kNotLoggedIn, 401, "You are not logged in, or the session has ended."},
    {user_error::kDenied, 403, "You may not call this method."},
    {user_error::kBadCsrfToken, 403, "The X-Vexa-CSRF header is missing or does not belong to this session."},
    {user_error::kWrongPassword, 401, "The user name or the password is wrong."},
    {user_error::kTooManyLogins, 429, "Too many failed logins. Wait before you try again."},
    {user_error::kHostBusy, 503, "The host is busy. Try again later."},
    {user_error::kNoSuchAddress, 404, "There is nothing at this address."},
    {user_error::kHttpMethodNotAllowed, 405, "This HTTP method is not allowed here."},
    {user_error::kNotJson, 415, "The body must be JSON, sent with the Content-Type application/json."},
    {user_error::kBodyTooLarge, 413, "The request's body is too large."},
    {user_error::kHeaderTooLarge, 431, "The request's header is too large."},
    {user_error::kRequestTimeout, 408, "The request did not arrive in time."},
    {user_error::kNotImplemented, 501, "The HTTP method or transfer coding is not implemented."},
    {user_error::kHttpVersionNotSupported, 505, "This HTTP version is not supported."},
    {user_error::kExpectationFailed, 417, "The value of the Expect header is not supported."},
    {user_error::kTargetTooLong, 414, "The request's target is too long."},
    {user_error::kBadParameter, 400, "A parameter is missing or not valid."},
    {user_error::kNotFoundOrUnreadable, 404, "A record, host or repository could not be read."},
    {user_error::kNameInUse, 409, "The name is already in use."},
    {user_error::kIncompatibleHost, 409, "A host runs an incompatible version."},
    {user_error::kNotPermitted, 403, "You may not act on this guest."},
    {host_error::kTooManyDisks, 409,
     "The disks could not be added: the guest would exceed the maximum number of disks."},
    {user_error::kNewDisksExceedLunLimit, 409,
     "The disks could not be added: the limit of iSCSI LUNs has been reached."},
    {user_error::kUnknownDiskTypeOrNotReserved, 500,
     "A virtual disk has an unknown type, or the host could not reserve what the edited guest needs."},
    {user_error::kClusterIsUpgrading, 409,
     "The cluster is being upgraded: guests of other hosts cannot be shut down or powered off meanwhile."},
    {user_error::kUnknownApi, 404, "There is no such API, method or version."},
    {user_error::kNotPermittedByHost, 409, "The guest's host does not permit this now."},
    // Codes of power, deletion and editing. Some of them have a different meaning between hosts: see kHostErrors. The
    // codes of host_error are not replied to users, who may still see them in the reply to "poweroff_by_ha" and in the
    // system log.
    {user_error::kActionFailed, 409, "The guest could not be deleted, or its host could not do what was asked."},
    {user_error::kPowerOnFailed, 409, "The guest could not be powered on."},
    {user_error::kShutdownFailed, 409, "The guest could not be shut down."},
    {user_error::kPowerOffFailed, 409, "The guest could not be powered off."},
    {user_error::kRebootFailed, 409, "The guest could not be rebooted."},
    {user_error::kEditFailed, 409,
     "The guest could not be edited: its host refused, or could not read or write what it needed. The system log has "
     "the reason."},
    {user_error::kAddressInUseOrGuestRuns, 409, "The MAC address is in use, or the guest runs."},
    {user_error::kNotRunning, 409, "The guest does not run, or has no saved memory."},
    {user_error::kGuestBusy, 409, "The guest is busy: another operation on it is in progress. Try again later."},
    {user_error::kNoCpuOrMemory, 409, "The host does not have enough processors or memory left for the guest."},
    {user_error::kNoNetwork, 409, "The host lacks a network that the guest needs."},
    {host_error::kNoNetwork, 409, "A network of the guest does not exist on this host."},
    {user_error::kBadNetworkSettings, 409, "The guest could not be edited because of its network configuration."},
    {user_error::kDiskNotEditable, 409,
     "The guest could not be edited because one of its virtual disks cannot be edited."},
    {host_error::kTooOldToRemoveDisk, 409,
     "A virtual disk cannot be removed while the guest runs: the host reports that its version is too old."},
    {user_error::kTooOldToRemoveDisk, 409,
     "A virtual disk cannot be removed while the guest runs: the guest's version is too old."},
    {user_error::kTooManyVcpus, 409, "The host does not have enough virtual CPUs left for the guest."},
    {user_error::kNoMemory, 409, "The host does not have enough memory left for the guest."},
    {user_error::kImagesNotChanged, 409, "The guest could not be edited: its ISO images could not be changed."},
    {user_error::kNoHostChosen, 409, "No host could be chosen for the guest."},
    {user_error::kRemoteNotVirtio, 409,
     "The guest's repository is on another host. Only guests whose disks are all VirtIO can run from another host's "
     "repository."},
    {user_error::kImageUnusable, 400, "The path of an ISO image does not lead to an image that can be used."},
    {user_error::kUsbNotPassedThrough, 409,
     "A USB device could not be passed through, or the repository belongs to another host and a disk of the guest is "
     "not VirtIO."},
    {host_error::kBadUsb, 400, "This USB device cannot be passed through. Use vendor and product, or bus and device."},
    {user_error::kNoUsbPort, 409, "A USB device could not be passed through to the guest."},
    {host_error::kNoUsbPort, 409, "The guest has no USB port left, or no USB controller, for a device."},
    {user_error::kAlreadyRunning, 409, "The guest is running already."},
    {host_error::kNoCpuThreads, 409, "This host does not have enough processors left to dedicate to the guest."},
    {user_error::kCpuThreadsNotReserved, 409,
     "The guest could not be edited: the host could not dedicate CPU threads to it."},
    {user_error::kNoCpuThreads, 409, "The host does not have enough CPU threads left to dedicate to the guest."},
    {host_error::kRemoteEfi, 409, "The repository belongs to another host, and the guest has EFI firmware."},
    {user_error::kSuspended, 409, "A virtual disk cannot be edited while the guest is suspended."},
    {user_error::kRemoteEfi, 409,
     "The guest's repository is on another host. Guests with EFI firmware cannot run from another host's repository."},
    {user_error::kUnavailable, 503, "The repository, a disk or the hypervisor cannot be used now."},
    {user_error::kStartExceedsLunLimit, 409, "The limit of iSCSI LUNs has been reached."},
    {host_error::kIncompatibleCpu, 409, "This host's processor does not meet the guest's needs."},
    {user_error::kTemporarilyUnavailable, 503,
     "A resource that the guest needs is temporarily unavailable. Try again later."},
    {user_error::kIncompatibleCpu, 409, "The host's processor is not compatible with the guest."},
    {user_error::kHostIsAlive, 409, "The host is alive. This method is only for hosts that are gone."},
    {user_error::kNotConfirmed, 409, "Make sure that the machine of the host is off, and confirm it."},
    {user_error::kHostHasGuests, 409, "The host still has guests. Recover them first."},
    {user_error::kSavedMemoryLost, 409,
     "The guest's saved memory is on the host and would be lost. Confirm that it may be."},
    {user_error::kNoAccount, 404, "There is no such user or group."},
    {user_error::kAccountTaken, 409,
     "Another user has this name (upper and lower case count as the same), or the id has been used before."},
    {user_error::kWrongOldPassword, 403, "The old password is missing or wrong."},
    {user_error::kAccountsFromPam, 409,
     "The daemon takes its users from PAM: change them with the operating system's tools, and name them with --system "
     "in "
     "'vexa user grant' and the other commands for grants."},
    {user_error::kGrantsOfOtherAccount, 409, "These grants belong to an account with a different name."},
    {user_error::kAccountDamaged, 500, "A record of the accounts or grants is damaged. Repair or delete it."},
    {user_error::kGroupCannotBeDeleted, 409, "The group cannot be deleted: it has members, or it is built in."},
    {user_error::kLastAdministrator, 409,
     "The user is the last one in the group \"administrators\". Put another user into it first."},
    {user_error::kAccountsUnavailable, 503, "The accounts or grants cannot be read or changed now. Try again later."},
    {user_error::kNoSession, 404, "There is no such session."},
    {user_error::kRecordExists, 409, "The name, the id or the file is already in use."},
    {user_error::kRecordInUse, 409, "Guests or disks still use it."},
    {user_error::kRecordFailed, 500, "The cluster database could not be read or written."},
    {user_error::kUploadOffset, 409,
     "The upload continues at another offset: send what is missing, from the offset in the details."},
    {user_error::kUploadDamaged, 409, "The file that arrived is not the one that was announced. It has been removed."},
    {user_error::kNoRoom, 507, "The file system does not have enough free space."},
    {user_error::kUploadLimit, 409, "The host does not take so many, or so large, uploads."},
    {user_error::kRightsNotSet, 500,
     "The guest was edited, but the rights of some users or groups on it could not be set."},
    {host_error::kEditedWithoutReservation, 409,
     "The guest was edited, but some hosts could not reserve memory or processors for it."},
    {user_error::kEditedWithoutReservation, 409,
     "The guest was edited, but some hosts could not reserve memory or processors for it."},
    {host_error::kPartsNotReserved, 409,
     "The guest was not edited: the host could not reserve what it would need. The details list the parts."},
};

static_assert(std::ranges::is_sorted(kErrors, std::ranges::less_equal{}, &ErrorRow::code),
              "one row per code, in ascending order");

// The codes whose meaning between hosts differs from their meaning to users; docs/guests.md explains them at length. A
// call between hosts is often one step of a user's request, so these sentences describe the step.
constexpr ErrorRow kHostErrors[] = {
    {host_error::kBadParameter, 400, "A parameter is missing or not valid, or has a value that no guest can have."},
    {host_error::kNotFoundOrUnreadable, 404, "What was asked about does not exist here, or cannot be read."},
    {host_error::kTooManyDisks, 409, "The guest would exceed the maximum number of disks."},
    {host_error::kFailed, 500, "The host could not perform the operation. See the details."},
    {host_error::kNameTaken, 409, "Another guest has the name."},
    {host_error::kBadNic, 409,
     "A network, network interface or MAC address is not available, or the guest would have too many interfaces."},
    {host_error::kBadDisk, 409,
     "A disk does not belong to the guest, or cannot be changed like this, or not while the guest runs."},
    {host_error::kAlreadyRunning, 409, "The guest runs, or a host has it or its saved memory."},
    {host_error::kNotRunning, 409, "The guest does not run, or has no saved memory."},
    {host_error::kOnOtherHost, 409, "The guest, or its repository, belongs to another host."},
    {host_error::kBusy, 409, "Another operation on the guest is in progress."},
    {host_error::kNoNetwork, 409, "The host lacks the network or bridge of one of the guest's interfaces."},
    {host_error::kTooManyVcpus, 409, "The guests on the host would have too many virtual CPUs."},
    {host_error::kNoMemory, 409, "The host does not have enough free memory for the guest."},
    {host_error::kNoImage, 409, "An ISO image does not exist."},
    {host_error::kRemoteNotVirtio, 409,
     "The guest's repository is on another host, and a disk of the guest is not VirtIO."},
    {host_error::kBadUsb, 400, "The name of a USB device is invalid, or a device is named twice."},
    {host_error::kNoUsbPort, 409, "The guest has no USB port left, or no USB controller, for a device."},
    {host_error::kNoCpuThreads, 409, "The host does not have enough processors left to dedicate to the guest."},
    {host_error::kSuspended, 409, "The guest is suspended, so its disks cannot be edited."},
    {host_error::kRemoteEfi, 409, "The guest's repository is on another host, and the guest has EFI firmware."},
    {host_error::kUnavailable, 503,
     "The hypervisor, the repository or a disk cannot be used now, or the host is stopping."},
    {host_error::kIncompatibleCpu, 409, "The host's processor lacks features that the guest needs."},
    {host_error::kPartsNotReserved, 409,
     "The host could not dedicate as many processors to the running guest. See the details."},
};

static_assert(std::ranges::is_sorted(kHostErrors, std::ranges::less_equal{}, &ErrorRow::code),
              "one row per code, in ascending order");

const ErrorRow* Find(std::span<const ErrorRow> rows, int code) {
  const auto found = std::ranges::lower_bound(rows, code, {}, &ErrorRow::code);
  return found != rows.end() && found->code == code ? &*found : nullptr;
}

// The codes of requests that the HTTP server refuses by itself, to map a status back to a code. Several codes share a
// status such as 503 or 404, so the code to use is chosen here.
constexpr int kServerErrors[] = {
    user_error::kMalformed,      user_error::kRequestTimeout,    user_error::kBodyTooLarge,
    user_error::kTargetTooLong,  user_error::kExpectationFailed, user_error::kHeaderTooLarge,
    user_error::kNotImplemented, user_error::kHostBusy,          user_error::kHttpVersionNotSupported};

}  // namespace

std::span<const ErrorRow> ErrorTable() { return kErrors; }

std::span<const ErrorRow> HostErrorTable() { return kHostErrors; }

const ErrorRow* FindError(int code, Audience audience) {
  const ErrorRow* const row = audience == Audience::kHosts ? Find(kHostErrors, code) : nullptr;
  return row ? row : Find(kErrors, code);
}

const ErrorRow& ErrorForHttpStatus(int http_status) {
  for (const int code : kServerErrors) {
    const ErrorRow* row = FindError(code);
    if (row->http_status == http_status) return *row;
  }
  return *FindError(user_error::kInternal);
}

}  // namespace vexa
