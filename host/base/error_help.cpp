#include "host/base/error_help.h"

#include <fmt/format.h>

#include <algorithm>

#include "webapi/error_codes.h"

namespace vexa {
namespace {

constexpr ErrorHelp kHelp[] = {
    {user_error::kInternal, "Look for the request's id in the system log of the host, with 'journalctl -u vexad'.",
     "Something that the host relies on failed: the user database, a file of the host, or memory. The caller cannot "
     "change it; the lines with the request's id say what it was."},
    {user_error::kMalformed, "Send the parameters as one JSON object; 'vexa call' does that.",
     "The request is not HTTP/1.1, or its body is not one JSON object in UTF-8: names that occur twice, comments, or "
     "bytes after the object are refused as well. The reason has the place where reading stopped, when it is known."},
    {user_error::kUnreachable, "'vexa host list' shows which hosts answer.",
     "Another host had to be asked and gave no answer: its machine is off, its daemon is stopped, the network between "
     "the hosts is interrupted, or one of the two certificates is not accepted. A host that sends no heartbeats is "
     "listed as inaccessible, with the time of the last one."},
    {user_error::kNotLoggedIn, "Log in with 'vexa login', or on the host itself run the command as root.",
     "No token was sent, or the token is not one of a session of this host. A session ends 30 minutes after its last "
     "use, 12 hours after the login, with 'vexa logout', and with its user's account or password. On the Unix socket, "
     "the system account of the caller is not a user of the host."},
    {user_error::kDenied, "Ask an administrator, or log in as one with 'vexa login'.",
     "The method is for administrators, or for other hosts of the cluster. 'vexa whoami' shows the groups of the "
     "caller; a member of \"administrators\" can put another user there with 'vexa user group'."},
    {user_error::kBadCsrfToken, "Send the csrf_token of the login's reply in the header X-Vexa-CSRF.",
     "The session is in a cookie, so each call must prove that it comes from the page that logged in. The token "
     "belongs to one session: after a new login, the old one is refused."},
    {user_error::kWrongPassword,
     "Check the name and the password; an administrator can set a new one with 'vexa user passwd NAME'.",
     "The user does not exist, or the password is not theirs; the reply is the same for both, so that it does not help "
     "to find users. With accounts from PAM, an account that is locked or has expired is refused like this too."},
    {user_error::kTooManyLogins, "Wait as long as the header Retry-After says, then log in with the right password.",
     "An address, or a user, has had more failed logins than the limits allow. Only failures count, and the addresses "
     "from which a user has logged in before keep limits of their own."},
    {user_error::kHostBusy, "Try again in a second; 'vexa health' shows whether the host answers.",
     "As many requests of this caller, or of all callers, wait as the host takes. It is usually over within seconds; "
     "when it stays, calls hang at a host or a disk that does not answer."},
    {user_error::kNoSuchAddress, "Methods are at /webapi/API/METHOD; GET /openapi.json describes them.",
     "The path is not one of the server's. Methods are called with POST below /webapi/, and the pages beside them are "
     "/healthz, /metrics and /openapi.json."},
    {user_error::kHttpMethodNotAllowed, "Use the method that the header Allow of the reply names.",
     "Methods of the API are called with POST, pages are read with GET, and pieces of uploads are sent with PUT. The "
     "header Allow of the reply has the right one."},
    {user_error::kNotJson, "Send the header 'Content-Type: application/json'.",
     "Only JSON is accepted, so that a form of another site cannot call a method. Some clients send another type "
     "by default."},
    {user_error::kBodyTooLarge, "Send less in one request; large images go through 'vexa image add --upload'.",
     "A body has at most 1 MiB and 2,048 values, 9 MiB and 200,000 values for 'import', and 16 KiB without a login. "
     "The "
     "reason or the details have the limit that was exceeded."},
    {user_error::kHeaderTooLarge, "Send fewer and shorter headers; cookies of other services often fill them.",
     "The header of the request has more bytes or more lines than the server reads. Cookies of other services on the "
     "same name are the usual cause with browsers."},
    {user_error::kRequestTimeout, "Send the whole request without a pause.",
     "The header or the body came too slowly, or stopped. A client that announces more bytes than it sends waits for "
     "this reply."},
    {user_error::kNotImplemented, "Use POST with a Content-Length.",
     "The request has an HTTP method or a transfer coding that the server does not know. Bodies come with a "
     "Content-Length, or in chunks, and without compression."},
    {user_error::kHttpVersionNotSupported, "Use HTTP/1.1.",
     "The server speaks HTTP/1.1 and HTTP/1.0 only. A proxy in front of it can offer other versions."},
    {user_error::kExpectationFailed, "Leave the header Expect out.",
     "The only expectation that the server meets is 100-continue. Any other value is refused before the body is read."},
    {user_error::kTargetTooLong, "Put the parameters into the body.",
     "The path with its query is longer than any of the server's. Parameters belong into the body as JSON; the query "
     "has only the version of the method."},
    {user_error::kBadParameter, "'vexa COMMAND --help' lists what it takes; for the API, GET /openapi.json does.",
     "A parameter is missing, has another type, or has a value that the method does not accept. The reason has its "
     "name, and the accepted values where they are known."},
    {user_error::kNotFoundOrUnreadable,
     "The lists show what there is: 'vexa guest list', and likewise of 'host', 'network', 'image' and 'repository'.",
     "The id does not belong to a record, a record that it refers to has been removed, or the database cannot be read. "
     "The reason says which record, and which of the three."},
    {user_error::kNameInUse, "Choose another name, or rename the guest that has it with 'vexa guest set'.",
     "Names of guests are unique in the cluster. The reason says which guest has the name."},
    {user_error::kIncompatibleHost, "Upgrade the package on the host that is named in the reason.",
     "The host that has to act runs a version that lacks what was asked for. Until it is upgraded, other hosts and "
     "other settings of the guest can be used."},
    {user_error::kNotPermitted, "An administrator can grant a guest with 'vexa user grant USER GUEST'.",
     "The guest was not granted to the caller or one of the caller's groups, or the action is for administrators and "
     "advanced users. The reply is the same when the guest does not exist, so that ids cannot be tried out."},
    {host_error::kTooManyDisks, "Remove a disk with 'vexa guest set GUEST --del-disk ID' first.",
     "A guest has a limited number of disks. An edit that adds disks beyond it changes nothing."},
    {user_error::kNewDisksExceedLunLimit,
     "Remove disks that are no longer needed with 'vexa guest set GUEST --del-disk ID'.",
     "The new disks would exceed the number that a guest, or its host, can have. Nothing was added."},
    {user_error::kUnknownDiskTypeOrNotReserved,
     "'vexa guest get GUEST' and 'vexa host show HOST' show the disks and what the host has left.",
     "When a guest is read: another program has written a disk with a type that does not exist. When a guest is "
     "edited: the edited guest needs more than its host could reserve. The reason says which of the two."},
    {user_error::kClusterIsUpgrading,
     "Wait for the end of the upgrade; 'vexa cluster settings --upgrading off' ends it.",
     "The cluster is marked as being upgraded, and the guest is on another host. Guests of the host that is asked can "
     "be shut down meanwhile."},
    {user_error::kUnknownApi, "GET /openapi.json lists the methods of this host.",
     "The name of the API or the method is misspelled, or the host is older than the method. Names are case-sensitive, "
     "and '?version=' selects a version other than 1."},
    {user_error::kNotPermittedByHost, "Try again once the host permits it; 'vexa host list' shows its state.",
     "The guest's host refuses the action in its present state. The reason has what the host says about it."},
    {user_error::kActionFailed,
     "The reason has what the host found; 'vexa guest status GUEST' shows the guest's state.",
     "The guest's host could not do what was asked: the guest runs and cannot be deleted, a device cannot be saved, or "
     "a file of the guest cannot be read or written. A running guest is shut down with 'vexa guest stop' first."},
    {user_error::kPowerOnFailed, "'vexa guest status GUEST' shows the state of the guest and its disks.",
     "The host could not start the guest's machine: a disk or an image does not exist or is in use, the hypervisor "
     "refused the machine, or the host did not answer. Administrators see in the reason which file or device it is."},
    {user_error::kShutdownFailed, "'vexa guest kill GUEST' powers the guest off without its help.",
     "The guest was asked to shut down and is still on, or it could not be asked. Systems without ACPI or an agent "
     "ignore the request; a guest that is off already is refused with the reason that it does not run."},
    {user_error::kPowerOffFailed, "'vexa guest status GUEST' shows whether the guest still runs.",
     "The hypervisor could not end the guest's machine, the guest is off already, or its host did not answer. A "
     "process that waits for a disk ends only when the disk answers."},
    {user_error::kRebootFailed,
     "'vexa guest status GUEST' shows whether the guest runs; a guest that is off is started with 'vexa guest start'.",
     "The guest does not run, or its system could not be asked to reboot. Its host may also not have answered; the "
     "reason says which."},
    {user_error::kEditFailed,
     "The reason names the setting, disk or file; 'vexa guest set --help' lists what each accepts.",
     "The guest's host refused a value, or could not read or write what the edit needs. An edit changes everything or "
     "nothing, so the guest is as it was."},
    {user_error::kAddressInUseOrGuestRuns,
     "'vexa guest list' shows which guests run; leave the MAC address out to get a free one.",
     "When a guest is edited: another interface has the MAC address. For every other action: the guest runs, or a host "
     "still has it. The reason says which of the two."},
    {user_error::kNotRunning, "Start the guest with 'vexa guest start GUEST'.",
     "The action needs a running guest, and no host runs it. For 'restore' and 'discard-saved': the guest has no saved "
     "memory."},
    {user_error::kGuestBusy,
     "Wait for the other operation, and try again; 'vexa guest status GUEST' shows its progress.",
     "One operation at a time changes a guest: a start, an edit, a deletion, an import. The reason says which one is "
     "in "
     "progress, as far as it is known."},
    {user_error::kNoCpuOrMemory,
     "'vexa host list' shows which hosts have room; shut guests down or give this one less.",
     "The host's processors or memory are used by guests that run. Memory that other guests could take at their "
     "maximum counts too."},
    {user_error::kNoNetwork,
     "'vexa network list' and 'vexa network show NETWORK' show which hosts have it, and why others lack it.",
     "An interface of the guest is in a network that its host does not have now: the bridge does not exist, the uplink "
     "is missing, or the network was removed. The reason names the network."},
    {host_error::kNoNetwork, "'vexa network list' shows the networks and which hosts have them.",
     "A network of the guest does not exist on the host that was asked. The host may lack the bridge, or its uplink."},
    {user_error::kBadNetworkSettings, "'vexa network list' shows the networks that interfaces can be in.",
     "An interface names a network that does not exist, an interface that the guest does not have, or a MAC address "
     "that cannot be used. The reason says which interface, and what is wrong."},
    {user_error::kDiskNotEditable,
     "'vexa guest get GUEST' shows the guest's disks and their sizes; a disk whose file is lost can be removed with "
     "'vexa guest set GUEST --del-disk DISK'.",
     "The disk is not the guest's, cannot become smaller, or cannot be changed while the guest runs. The reason says "
     "which disk, and why."},
    {host_error::kTooOldToRemoveDisk, "Shut the guest down with 'vexa guest stop GUEST', and remove the disk then.",
     "The host cannot take a disk out of a running guest. It works while the guest is off."},
    {user_error::kTooOldToRemoveDisk, "Shut the guest down with 'vexa guest stop GUEST', and remove the disk then.",
     "The running machine is older than the removal of disks. It works while the guest is off."},
    {user_error::kTooManyVcpus,
     "Shut guests of the host down, or set fewer processors with 'vexa guest set GUEST vcpu_num=N'.",
     "All running guests of a host together have a limited number of virtual processors. The reason has the numbers."},
    {user_error::kNoMemory,
     "Shut guests of the host down, set less memory with 'vexa guest set GUEST vram_size=MIB', or use another host.",
     "The host does not have as much free memory as the guest needs, also for the guest's machine itself. The reason "
     "has how much is needed and how much is free."},
    {user_error::kImagesNotChanged,
     "'vexa image list' shows the images; 'vexa guest apply GUEST --force-eject' opens drives that the guest has "
     "locked.",
     "The drives of the guest could not be changed: an image does not exist, or the guest has locked the drive. The "
     "reason names the image or the drive."},
    {user_error::kNoHostChosen, "'vexa host list' shows which hosts are alive and what they have left.",
     "The guest has no host, and none of the cluster's hosts can start it now: too little memory, a missing network, "
     "or "
     "no host that may be chosen. 'vexa network show' says which hosts have a network, 'vexa host show' what a host "
     "has."},
    {user_error::kRemoteNotVirtio, "Start the guest on the repository's host, or change the type of its disks.",
     "The guest's disks are in a repository of another host than the one that was asked. Only VirtIO disks can be used "
     "over the network."},
    {user_error::kImageUnusable, "'vexa image list' shows the images; 'vexa image add' adds one.",
     "The path is not a file below one of the daemon's 'image-roots', or the image was removed. The reason has the "
     "path for administrators."},
    {user_error::kUsbNotPassedThrough,
     "'lsusb' on the host shows its devices; name them by vendor and product, or bus and device.",
     "The USB device does not exist, is named twice, or cannot be passed through. The same code is given when the "
     "repository belongs to another host and a disk is not VirtIO; the reason says which."},
    {host_error::kBadUsb, "'lsusb' on the host shows its devices; name them by vendor and product, or bus and device.",
     "The name of a USB device is not understood, or a device is named twice. Hosts answer this to each other."},
    {user_error::kNoUsbPort,
     "Set a USB controller with 'vexa guest set GUEST usb_version=3', or pass fewer devices through.",
     "The guest has no free USB port for the device, or no controller at all. A controller can be added while the "
     "guest is off."},
    {host_error::kNoUsbPort,
     "Set a USB controller with 'vexa guest set GUEST usb_version=3', or pass fewer devices through.",
     "The guest has no free USB port for the device, or no controller at all. Hosts answer this to each other."},
    {user_error::kAlreadyRunning, "'vexa guest status GUEST' shows the guest's state and host.",
     "The guest runs, or a host has its saved memory, so it cannot be started again. Nothing has to be done when it "
     "was "
     "meant to run."},
    {host_error::kNoCpuThreads, "Dedicate fewer processors with 'vexa guest set GUEST cpu_pin_num=N'.",
     "The host does not have as many processors that no other guest has been dedicated. Hosts answer this to each "
     "other."},
    {user_error::kCpuThreadsNotReserved, "Dedicate fewer processors with 'vexa guest set GUEST cpu_pin_num=N'.",
     "The running guest asks for more dedicated processors than its host can give it. The guest was not changed."},
    {user_error::kNoCpuThreads,
     "Dedicate fewer processors with 'vexa guest set GUEST cpu_pin_num=N', or shut guests down that have some.",
     "The host does not have as many processors that no other guest has been dedicated. The reason has the numbers."},
    {host_error::kRemoteEfi, "Start the guest on the repository's host.",
     "The guest has EFI firmware, whose variables are in its repository, and the repository belongs to another host. "
     "Hosts answer this to each other."},
    {user_error::kSuspended, "Let the guest run with 'vexa guest resume GUEST', or shut it down.",
     "The guest is suspended, and a machine that does not run cannot take part in a change of its disks. The edit "
     "works once it runs, or is off."},
    {user_error::kRemoteEfi, "Start the guest on the repository's host.",
     "The guest has EFI firmware, whose variables are in its repository, and the repository belongs to another host "
     "than the one that was asked. The repository's host can start it."},
    {user_error::kUnavailable, "'vexa repository list' shows the storage, and 'vexa health' the host.",
     "The hypervisor of the host does not answer, a folder with disks is not mounted, the cluster database cannot be "
     "read, or the host is stopping. The reason says which; it usually passes without a change of the guest."},
    {user_error::kStartExceedsLunLimit, "Remove disks that are no longer needed, or shut other guests down.",
     "The guest's disks would exceed the number that the host can serve. Guests that run count."},
    {host_error::kIncompatibleCpu, "Give it the common processor model with 'vexa guest set GUEST cpu_passthru=false'.",
     "The guest's processor model has features that the host's processor lacks. Hosts answer this to each other."},
    {user_error::kTemporarilyUnavailable, "Try again in a moment.",
     "Something that the guest needs to start is in use by another operation. It is usually free again within "
     "seconds; the reason has more where it is known."},
    {user_error::kIncompatibleCpu, "Give it the common processor model with 'vexa guest set GUEST cpu_passthru=false'.",
     "The guest sees the processor of a host, and this host's processor lacks features of it. A host with a newer "
     "processor can start it, or a model that all hosts have."},
    {user_error::kHostIsAlive, "Use the guest's usual commands: its host answers.",
     "Guests are taken from a host only when it is gone, and this host has sent a heartbeat recently. 'vexa host list' "
     "shows the time of the last one."},
    {user_error::kNotConfirmed, "Switch the machine off, and repeat the command with --machine-is-off.",
     "A machine that does not answer may still run its guests. When two machines write to the same disks, the disks "
     "are "
     "destroyed, so a person has to confirm that it is off."},
    {user_error::kHostHasGuests,
     "Repeat the command with --recover-guests, or recover them with 'vexa guest recover' first.",
     "The host still has guests according to the cluster's records. Forgetting it would leave them without a host that "
     "can free them."},
    {user_error::kSavedMemoryLost, "Repeat the command with --discard-saved if the saved memory may be lost.",
     "The guest's memory was saved to a file of the host that is gone. Without it, the guest starts as after a power "
     "failure."},
    {user_error::kNoAccount, "'vexa user list' and 'vexa group list' show the accounts.",
     "No user or group has the name or the id. Users of the operating system are named with --system, where the daemon "
     "takes its users from PAM."},
    {user_error::kAccountTaken, "Choose another name; 'vexa user list' shows the ones in use.",
     "Names that differ only in case count as the same, because they are easily confused. An id that belonged to a "
     "deleted account is not given again, since its grants would come back."},
    {user_error::kWrongOldPassword, "Enter your present password; an administrator can set a new one without it.",
     "Changing one's own password needs the old one, so that an open session is not enough. It was not given, or it is "
     "another one."},
    {user_error::kAccountsFromPam,
     "Use 'useradd', 'passwd' and 'usermod' on the host, and --system with 'vexa user grant'.",
     "The daemon's setting 'accounts' is \"pam\", so users and groups belong to the operating system. What they may do "
     "is still granted here."},
    {user_error::kGrantsOfOtherAccount, "Remove the old grants with 'vexa user drop-grants', then grant again.",
     "The grants under this id were given to an account with another name. They do not count for the new one, and are "
     "not added to."},
    {user_error::kAccountDamaged,
     "'vexa user drop-grants' or 'vexa user del' removes the record that is named in the reason.",
     "A record of an account or of grants is not as this program writes it. The reason has its name for "
     "administrators."},
    {user_error::kGroupCannotBeDeleted, "Take the members out with 'vexa user group' first.",
     "Groups with members stay, and so do the built-in ones. 'vexa group list' shows the members."},
    {user_error::kLastAdministrator,
     "Put another user into the group with 'vexa user group NAME administrators' first.",
     "Without a member of \"administrators\" the cluster could be changed only by root on a host. The last one can "
     "therefore neither leave nor be deleted."},
    {user_error::kAccountsUnavailable, "Try again; 'vexa health' shows whether the cluster database can be used.",
     "The records of accounts or grants could not be read or written: the disk is full, the database cannot be "
     "reached, or others changed them at the same time. Nothing was changed."},
    {user_error::kNoSession, "'vexa session list' shows the sessions.",
     "The session has ended, is one of another host, or belongs to another user. The reply is the same for all of "
     "these."},
    {user_error::kRecordExists, "Choose another one, or rename or remove what the reason names.",
     "Names and ids of images, networks and repositories are unique in the cluster, and a file belongs to one image. "
     "The reason says what has the name."},
    {user_error::kRecordInUse,
     "Take it out of the guests that the reason names with 'vexa guest set', or remove what uses it, first.",
     "Guests or disks still refer to it, so removing it would break their next start. The reason names them."},
    {user_error::kRecordFailed, "Try again; 'vexa health' shows whether the cluster database can be used.",
     "The cluster database could not be read or written: its disk is full or failing, or it is on a host that does not "
     "answer. Nothing was changed."},
    {user_error::kUploadOffset,
     "Continue from the offset in the details; 'vexa image add --upload' does that by itself.",
     "The piece does not begin where the last one ended, usually after an interruption. The details have the number of "
     "bytes that have arrived."},
    {user_error::kUploadDamaged, "Upload the file again.",
     "The digest of what arrived differs from the announced one: the file was changed while it was sent, or bytes were "
     "damaged on the way. It was not kept."},
    {user_error::kNoRoom,
     "Remove what is no longer needed; 'vexa repository list' and 'df' show the space that is left.",
     "The file system of the folder does not have as much free space as is needed. The reason has both numbers for "
     "administrators."},
    {user_error::kUploadLimit, "'vexa image uploads' shows the uploads; 'vexa image cancel-upload' removes one.",
     "A host takes a limited number of uploads at the same time, and files up to a limited size. The reason says which "
     "limit it is."},
    {user_error::kRightsNotSet, "Repeat the rights alone with 'vexa user grant' or 'vexa user revoke'.",
     "The settings of the guest were changed, but the rights of some users or groups were not: they do not exist, or "
     "the accounts could not be changed. The rest of the edit holds."},
    {host_error::kEditedWithoutReservation, "'vexa host show HOST' shows what the hosts have left.",
     "The guest was edited, but some hosts could not reserve its memory or processors. The details have the names of "
     "these hosts; hosts answer this to each other."},
    {user_error::kEditedWithoutReservation, "'vexa host show HOST' shows what the hosts in the details have left.",
     "The guest was edited, but some hosts could not reserve its memory or processors. It may not be able to start on "
     "the hosts that the details name."},
    {host_error::kPartsNotReserved, "'vexa host show HOST' shows what the host has left.",
     "The guest was not edited, since its host could not reserve what it would need. The details list the parts; users "
     "get 413 or 943 for it."},
};

static_assert(std::ranges::is_sorted(kHelp, std::ranges::less_equal{}, &ErrorHelp::code),
              "one row per code, in ascending order");

const ErrorHelp* Find(int code) {
  const auto* const found = std::ranges::lower_bound(kHelp, code, {}, &ErrorHelp::code);
  return found != std::end(kHelp) && found->code == code ? found : nullptr;
}

// The text with the commands in it marked as code.
std::string WithMarkedCommands(std::string_view text) {
  constexpr std::string_view kCommands[] = {"'vexa ",    "'journalctl ", "'lsusb'",  "'df'",
                                            "'useradd'", "'passwd'",     "'usermod'"};
  std::string marked(text);
  for (const std::string_view command : kCommands) {
    for (std::size_t at = marked.find(command); at != std::string::npos; at = marked.find(command, at + 1)) {
      const std::size_t end = marked.find('\'', at + 1);
      if (end == std::string::npos) break;
      marked[at] = '`';
      marked[end] = '`';
    }
  }
  return marked;
}

}  // namespace

std::span<const ErrorHelp> ErrorHelpTable() { return kHelp; }

std::string_view HintFor(int code) {
  const ErrorHelp* const row = Find(code);
  return row ? row->hint : std::string_view();
}

std::string_view CausesOf(int code) {
  const ErrorHelp* const row = Find(code);
  return row ? row->causes : std::string_view();
}

std::string_view WhereCauseLies(int http_status) {
  constexpr int kConflict = 409;
  constexpr int kFirstHostStatus = 500;
  if (http_status >= kFirstHostStatus) return "the host, or another host that it asked";
  return http_status == kConflict ? "the state of the guest, the record or the host"
                                  : "the request, or the caller's rights";
}

std::string ErrorPage(const ErrorRow& row) {
  return fmt::format("{}: {}\n\nHTTP status: {}; the cause lies in {}.\nUsual causes: {}\nWhat to do: {}\n", row.code,
                     row.sentence, row.http_status, WhereCauseLies(row.http_status), CausesOf(row.code),
                     HintFor(row.code));
}

std::string ErrorPagesAsMarkdown() {
  std::string text =
      "# Error codes\n\n"
      "Every failure has a `code`, the `message` of the code, a `reason` (what the host found this time) and a `hint`\n"
      "(what helps). [api.md](api.md#failures) describes the reply. `vexa error CODE` prints what is below.\n\n"
      "`vexa error --markdown` prints this page. It is made from `host/base/error_table.cpp` and\n"
      "`host/base/error_help.cpp`: change these, and print it again.\n";
  for (const ErrorRow& row : ErrorTable()) {
    text += fmt::format("\n## {}\n\n**{}**\n\nHTTP {}; the cause lies in {}.\n\n{}\n\nWhat to do: {}\n", row.code,
                        row.sentence, row.http_status, WhereCauseLies(row.http_status),
                        WithMarkedCommands(CausesOf(row.code)), WithMarkedCommands(HintFor(row.code)));
  }
  return text;
}

}  // namespace vexa
