#include "host/base/error_table.h"

#include <algorithm>

namespace vexa::webapi {
namespace {

constexpr ErrorRow kErrors[] = {
    {kErrorInternal, 500, "The request failed for an internal reason. The system log has the request's id."},
    {kErrorMalformed, 400, "The request is malformed."},
    {kErrorUnreachable, 502, "The host could not be reached, or did not answer in time."},
    {kErrorNotLoggedIn, 401, "You are not logged in, or the session has ended."},
    {kErrorDenied, 403, "You may not call this method."},
    {kErrorCsrf, 403, "The X-Vexa-CSRF header is missing or does not belong to this session."},
    {kErrorWrongPassword, 401, "The user name or the password is wrong."},
    {kErrorTooManyLogins, 429, "Too many failed logins. Wait before you try again."},
    {kErrorBusy, 503, "The host is busy. Try again later."},
    {kErrorNotFound, 404, "There is nothing at this address."},
    {kErrorMethodNotAllowed, 405, "This HTTP method is not allowed here."},
    {kErrorNotJson, 415, "The body must be JSON, sent with the Content-Type application/json."},
    {kErrorTooLarge, 413, "The request's body is too large."},
    {kErrorHeaderTooLarge, 431, "The request's header is too large."},
    {kErrorTimeout, 408, "The request did not arrive in time."},
    {kErrorNotImplemented, 501, "The HTTP method or transfer coding is not implemented."},
    {kErrorVersionNotSupported, 505, "This HTTP version is not supported."},
    {kErrorExpectation, 417, "The Expect header asks for something that is not offered."},
    {kErrorTargetTooLong, 414, "The request's target is too long."},
    {kErrorBadParameter, 400, "A parameter is missing or not valid."},
    {403, 404, "A record, host or repository could not be read."},
    {406, 409, "The name is already in use."},
    {407, 409, "A host runs an incompatible version."},
    {409, 403, "You may not act on this guest."},
    {410, 409, "The disks could not be added: the guest would have more than a guest may have."},
    {411, 409, "The disks could not be added: the limit of iSCSI LUNs has been reached."},
    {413, 500, "A virtual disk has an unknown type, or the host could not reserve what the edited guest needs."},
    {415, 409, "The cluster is being upgraded: guests of other hosts cannot be shut down or powered off meanwhile."},
    {kErrorUnknownApi, 404, "There is no such API, method or version."},
    {620, 409, "The guest's host does not permit this now."},
    // Of power, deletion and editing. Some of the numbers mean something else between hosts: kHostErrors.
    {901, 500, "The guest could not be deleted, or its host could not do what was asked."},
    {902, 500, "The guest could not be powered on."},
    {903, 409, "The guest could not be shut down."},
    {904, 409, "The guest could not be powered off."},
    {905, 409, "The guest could not be rebooted."},
    {909, 500,
     "The guest could not be edited: its host refused, or could not read or write what it needed. The system log has "
     "the reason."},
    {910, 409, "The MAC address is in use, or the guest runs."},
    {911, 409, "The guest does not run, or has no saved memory."},
    {912, 409, "The guest is busy: something else is being done with it. Try again later."},
    {914, 409, "The host has not enough processors or memory left for the guest."},
    {915, 409, "The host has no network that the guest needs."},
    {917, 409, "A network of the guest is not on this host."},
    {919, 409, "The guest could not be edited because of its network configuration."},
    {920, 409, "The guest could not be edited because a virtual disk of it cannot be edited."},
    {924, 409, "A virtual disk cannot be removed while the guest runs: the host says its version is too old."},
    {926, 409, "A virtual disk cannot be removed while the guest runs: the guest's version is too old."},
    {927, 409, "The host has not enough virtual CPUs left for the guest."},
    {928, 409, "The host has not enough memory left for the guest."},
    {930, 409, "The guest could not be edited: its ISO images could not be changed."},
    {932, 409, "No host could be chosen for the guest."},
    {933, 409,
     "The guest's repository is on another host, and only guests whose disks are all VirtIO can run that way."},
    {934, 400, "The path of an ISO image does not lead to an image that can be used."},
    {935, 409,
     "A USB device could not be passed through, or the repository is another host's and a disk of the guest is not "
     "VirtIO."},
    {936, 400, "This USB device cannot be passed through. Use vendor and product, or bus and device."},
    {937, 409, "A USB device could not be passed through to the guest."},
    {938, 409, "The guest has no USB port left, or no USB controller, for a device."},
    {939, 409, "The guest is running already."},
    {942, 409, "This host has not enough processors left to set apart for the guest."},
    {943, 409, "The guest could not be edited: the host could not set CPU threads apart for it."},
    {944, 409, "The host has not enough CPU threads left to set apart for the guest."},
    {945, 409, "The repository is another host's, and the guest has EFI firmware."},
    {946, 409, "A virtual disk cannot be edited while the guest is suspended."},
    {947, 409, "The guest's repository is on another host, and guests with EFI firmware cannot run that way."},
    {949, 503, "The repository, a disk or the hypervisor cannot be used now."},
    {954, 409, "The limit of iSCSI LUNs has been reached."},
    {955, 409, "This host's processor is not what the guest needs."},
    {959, 503, "What the guest needs is temporarily unavailable. Try again later."},
    {965, 409, "The host's processor is not compatible with the guest."},
    {971, 409, "The host gives signs of life: what is meant for hosts that are gone is refused."},
    {972, 409, "Make sure that the machine of the host is off, and confirm it."},
    {973, 409, "The host still has guests. Recover them first."},
    {974, 409, "The guest's saved memory is on the host and would be lost. Confirm that it may be."},
    {kErrorNoAccount, 404, "There is no such user or group."},
    {kErrorAccountTaken, 409,
     "Another user has this name (upper and lower case count as the same), or the id has been used before."},
    {kErrorOldPassword, 403, "The old password is missing or wrong."},
    {kErrorAccountsFromPam, 409,
     "The daemon takes its users from PAM: change them with the machine's own tools, and name them with --system in "
     "'vexa user grant' and the other commands for grants."},
    {kErrorGrantsOfAnother, 409, "These grants belong to an account with a different name."},
    {kErrorAccountDamaged, 500, "A record of the accounts or grants cannot be understood. Repair or delete it."},
    {kErrorGroupStays, 409, "The group cannot be deleted: it has members, or every cluster has it."},
    {kErrorLastAdministrator, 409,
     "The user is the last one in the group \"administrators\". Put another user into it first."},
    {kErrorAccountsUnavailable, 503, "The accounts or grants cannot be read or changed now. Try again later."},
    {kErrorRecordExists, 409, "The name, the id or the file is already in use."},
    {kErrorRecordInUse, 409, "Guests or disks still use it."},
    {kErrorRecordFailed, 500, "The cluster database could not be read or written."},
    {1001, 500, "The guest was edited, but the rights of some users or groups on it could not be set."},
    {1503, 409, "The guest was edited, but some hosts could not reserve memory or processors for it."},
    {1600, 409, "The guest was edited, but some hosts could not reserve memory or processors for it."},
    {2101, 409,
     "The guest was not edited: the host could not reserve what it would need. The details say which parts."},
};

static_assert(std::ranges::is_sorted(kErrors, std::ranges::less_equal{}, &ErrorRow::code), "one row a code, rising");

// What a host's answer to another host means, where it is not what the number means to users; docs/guests.md has the
// same meanings at length. What is asked of a host is often a step of what a user asked, so the sentences name the
// step.
constexpr ErrorRow kHostErrors[] = {
    {kErrorBadParameter, 400, "A parameter is missing or not valid, or no guest could be set so."},
    {403, 404, "What was asked about does not exist here, or cannot be read."},
    {410, 409, "The guest would have more disks than a guest may have."},
    {901, 500, "The host could not do it. The details have the reason."},
    {902, 409, "Another guest has the name."},
    {903, 409,
     "A network, network interface or MAC address cannot be had, or the guest would have too many interfaces."},
    {904, 409, "A disk is not the guest's, or cannot be changed so, or not while the guest runs."},
    {910, 409, "The guest runs, or a host has it or its saved memory."},
    {911, 409, "The guest does not run, or has no saved memory."},
    {912, 409, "The guest, or its repository, belongs to another host."},
    {915, 409, "Something else is being done with the guest."},
    {917, 409, "The host has no network or bridge of an interface of the guest."},
    {927, 409, "The guests on the host would have too many virtual CPUs."},
    {928, 409, "Less memory is free on the host than the guest has."},
    {932, 409, "An ISO image does not exist."},
    {935, 409, "The guest's repository is on another host, and a disk of the guest is not VirtIO."},
    {936, 400, "A USB device is named in a way that is not understood, or twice."},
    {938, 409, "The guest has no USB port left, or no USB controller, for a device."},
    {942, 409, "The host has not enough processors left to set apart for the guest."},
    {944, 409, "The guest is suspended, and its disks stay as they are."},
    {945, 409, "The guest's repository is on another host, and the guest has EFI firmware."},
    {949, 503, "The hypervisor, the repository or a disk cannot be used now, or the host is stopping."},
    {955, 409, "The host's processor lacks what the guest's has."},
    {2101, 409, "The host could not set apart as many processors for the running guest. The details say so."},
};

static_assert(std::ranges::is_sorted(kHostErrors, std::ranges::less_equal{}, &ErrorRow::code),
              "one row a code, rising");

const ErrorRow* Find(std::span<const ErrorRow> rows, int code) {
  const auto found = std::ranges::lower_bound(rows, code, {}, &ErrorRow::code);
  return found != rows.end() && found->code == code ? &*found : nullptr;
}

// What the HTTP server refuses by itself. 503 and 404 have several codes, so the way back is a choice.
constexpr int kServerErrors[] = {kErrorMalformed,      kErrorTimeout,     kErrorTooLarge,
                                 kErrorTargetTooLong,  kErrorExpectation, kErrorHeaderTooLarge,
                                 kErrorNotImplemented, kErrorBusy,        kErrorVersionNotSupported};

}  // namespace

std::span<const ErrorRow> ErrorTable() { return kErrors; }

std::span<const ErrorRow> HostErrorTable() { return kHostErrors; }

const ErrorRow* FindError(int code, Audience audience) {
  const ErrorRow* const row = audience == Audience::kHosts ? Find(kHostErrors, code) : nullptr;
  return row ? row : Find(kErrors, code);
}

const ErrorRow& ErrorOfHttpStatus(int http_status) {
  for (const int code : kServerErrors) {
    const ErrorRow* row = FindError(code);
    if (row->http_status == http_status) return *row;
  }
  return *FindError(kErrorInternal);
}

}  // namespace vexa::webapi
