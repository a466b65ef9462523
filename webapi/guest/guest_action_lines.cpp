#include "webapi/guest/guest_action_lines.h"

#include "webapi/error_codes.h"
#include "webapi/guest/incompatible.h"

namespace VexaVirtualization::power {
namespace {

using Target = Action::Target;
using InUpgrade = Action::InUpgrade;

// Not formatted: every message stays on one line, so that it can be searched for.
// clang-format off

constexpr Action kActions[] = {
    {"poweron", "poweron", Target::kHostOfGuest, InUpgrade::kAllowed,
     {"Powering on the virtual machine [%s] on the host [%s].", Placeholders::kGuestAndHost},
     user_error::kPowerOnFailed, {"Failed to power on the virtual machine [%s] on the host [%s].", Placeholders::kGuestAndHost}},
    {"shutdown", "shutdown", Target::kHostOfGuest, InUpgrade::kRefused,
     {"Shutting down the virtual machine [%s].", Placeholders::kGuest},
     user_error::kShutdownFailed, {"Failed to shut down the virtual machine [%s].", Placeholders::kGuest}},
    {"poweroff", "poweroff", Target::kHostOfGuest, InUpgrade::kRefused,
     {"The virtual machine [%s] has been successfully powered off.", Placeholders::kGuest},
     user_error::kPowerOffFailed, {"Failed to power off the virtual machine [%s].", Placeholders::kGuest}},
    {"reboot", "reboot", Target::kHostOfGuest, InUpgrade::kAllowed,
     {"Rebooting the virtual machine [%s].", Placeholders::kGuest},
     user_error::kRebootFailed, {"Failed to reboot the virtual machine [%s].", Placeholders::kGuest}},
    {"poweroff_by_ha", "poweroff", Target::kListedHosts, InUpgrade::kAllowed, {}, 0, {}},
};

struct FailureRow {
  int host_code;
  std::string_view action;  // empty: any
  int error;
  Line line;
};

// The first matching row applies. Intentional: the power-on wordings are used for any action, and the reboot wording
// for any action except a shutdown.
constexpr FailureRow kFailures[] = {
    {host_error::kTooManyDisks, "", user_error::kStartExceedsLunLimit,
     {"Failed to power on the virtual machine [%s] because the number of iSCSI LUN has reached the system limit.", Placeholders::kGuest}},
    {host_error::kUnknownApi, "", user_error::kIncompatibleHost, {kIncompatibleLine, Placeholders::kOperation}},
    {host_error::kNotPermittedNow, "", user_error::kNotPermittedByHost, {}},
    {host_error::kAlreadyRunning, "", user_error::kAlreadyRunning,
     {"Failed to power on the virtual machine [%s] on the host [%s] since VM is already running.", Placeholders::kGuestAndHost}},
    {host_error::kBusy, "shutdown", user_error::kGuestBusy,
     {"Failed to shut down the virtual machine [%s] because it is currently busy.", Placeholders::kGuest}},
    {host_error::kBusy, "", user_error::kGuestBusy,
     {"Failed to reboot the virtual machine [%s] because it is currently busy.", Placeholders::kGuest}},
    {host_error::kNoCpuOrMemory, "", user_error::kNoCpuOrMemory,
     {"Failed to power on the virtual machine [%s] on the host [%s] due to insufficient CPU or memory on the host.", Placeholders::kGuestAndHost}},
    {host_error::kNoNetwork, "", user_error::kNoNetwork,
     {"Failed to power on the virtual machine [%s] on the host [%s] because there is no corresponding networking on the host.", Placeholders::kGuestAndHost}},
    {host_error::kTooManyVcpus, "", user_error::kTooManyVcpus,
     {"Failed to power on the virtual machine [%s] on the host [%s] due to insufficient vCPU on the host.", Placeholders::kGuestAndHost}},
    {host_error::kNoMemory, "", user_error::kNoMemory,
     {"Failed to power on the virtual machine [%s] on the host [%s] due to insufficient memory on the host.", Placeholders::kGuestAndHost}},
    {host_error::kRemoteNotVirtio, "", user_error::kRemoteNotVirtio,
     {"Failed to power on the virtual machine [%s] on the host [%s] because only booting VM on a remote host with VirtIO hard drives is supported.", Placeholders::kGuestAndHost}},
    {host_error::kNoCpuThreads, "", user_error::kNoCpuThreads,
     {"Failed to power on the virtual machine [%s] on the host [%s] due to insufficient CPU threads on the host.", Placeholders::kGuestAndHost}},
    {host_error::kRemoteEfi, "", user_error::kRemoteEfi,
     {"Failed to power on the virtual machine [%s] on the host [%s] because booting VM on a remote host with EFI firmware is not supported.", Placeholders::kGuestAndHost}},
    {host_error::kUnavailable, "", user_error::kTemporarilyUnavailable,
     {"Failed to power on the virtual machine [%s] because the resource is temporarily unavailable.", Placeholders::kGuest}},
    {host_error::kIncompatibleCpu, "", user_error::kIncompatibleCpu,
     {"Failed to power on the virtual machine [%s] because the guest kernel is incompatible with host cpu.", Placeholders::kGuest}},
};

// clang-format on

constexpr bool AllPlaceholdersMatch() {
  for (const Action& action : kActions) {
    if (!HasMatchingPlaceholders(action.success) || !HasMatchingPlaceholders(action.default_failure_line)) return false;
  }
  for (const FailureRow& row : kFailures) {
    if (!HasMatchingPlaceholders(row.line)) return false;
  }
  return true;
}
static_assert(AllPlaceholdersMatch(), "each line has one %s for each of its values, and no other placeholder");

}  // namespace

const Action* FindAction(std::string_view name) {
  for (const Action& action : kActions) {
    if (action.name == name) return &action;
  }
  return nullptr;
}

Failure FailureOf(const Action& action, int host_code) {
  for (const FailureRow& row : kFailures) {
    if (row.host_code != host_code) continue;
    if (row.action.empty() || row.action == action.name) return {row.error, row.line};
  }
  return {action.default_error, action.default_failure_line};
}

Line IncompatibleLine() { return {kIncompatibleLine, Placeholders::kOperation}; }

}  // namespace VexaVirtualization::power
