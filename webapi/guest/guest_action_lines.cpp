#include "webapi/guest/guest_action_lines.h"

#include "webapi/guest/incompatible.h"

namespace VexaVirtualization::power {
namespace {

using Target = Action::Target;
using InUpgrade = Action::InUpgrade;

// One line a row where it fits, and no text in two pieces, so that it can be searched for.
// clang-format off

constexpr Action kActions[] = {
    {"poweron", "poweron", Target::kGuestsHost, InUpgrade::kAsUsual,
     {"Powering on the virtual machine [%s] on the host [%s].", Fill::kGuestAndHost},
     902, {"Failed to power on the virtual machine [%s] on the host [%s].", Fill::kGuestAndHost}},
    {"shutdown", "shutdown", Target::kGuestsHost, InUpgrade::kRefused,
     {"Shutting down the virtual machine [%s].", Fill::kGuest},
     903, {"Failed to shut down the virtual machine [%s].", Fill::kGuest}},
    {"poweroff", "poweroff", Target::kGuestsHost, InUpgrade::kRefused,
     {"The virtual machine [%s] has been successfully powered off.", Fill::kGuest},
     904, {"Failed to power off the virtual machine [%s].", Fill::kGuest}},
    {"reboot", "reboot", Target::kGuestsHost, InUpgrade::kAsUsual,
     {"Rebooting the virtual machine [%s].", Fill::kGuest},
     905, {"Failed to reboot the virtual machine [%s].", Fill::kGuest}},
    {"poweroff_by_ha", "poweroff", Target::kListedHosts, InUpgrade::kAsUsual, {}, 0, {}},
};

struct FailureRow {
  int host_code;
  std::string_view action;  // empty: any
  int answer;
  Line line;
};

// The first row that fits counts. Intentional: the wordings of a power-on stand whatever the action was, and those of a
// reboot for all but a shutdown.
constexpr FailureRow kFailures[] = {
    {410, "", 954,
     {"Failed to power on the virtual machine [%s] because the number of iSCSI LUN has reached the system limit.", Fill::kGuest}},
    {kHostTooOld, "", kIncompatibleHost, {kIncompatibleLine, Fill::kOperation}},
    {528, "", 620, {}},
    {910, "", 939,
     {"Failed to power on the virtual machine [%s] on the host [%s] since VM is already running.", Fill::kGuestAndHost}},
    {915, "shutdown", 912,
     {"Failed to shut down the virtual machine [%s] because it is currently busy.", Fill::kGuest}},
    {915, "", 912,
     {"Failed to reboot the virtual machine [%s] because it is currently busy.", Fill::kGuest}},
    {916, "", 914,
     {"Failed to power on the virtual machine [%s] on the host [%s] due to insufficient CPU or memory on the host.", Fill::kGuestAndHost}},
    {917, "", 915,
     {"Failed to power on the virtual machine [%s] on the host [%s] because there is no corresponding networking on the host.", Fill::kGuestAndHost}},
    {927, "", 927,
     {"Failed to power on the virtual machine [%s] on the host [%s] due to insufficient vCPU on the host.", Fill::kGuestAndHost}},
    {928, "", 928,
     {"Failed to power on the virtual machine [%s] on the host [%s] due to insufficient memory on the host.", Fill::kGuestAndHost}},
    {935, "", 933,
     {"Failed to power on the virtual machine [%s] on the host [%s] because only booting VM on a remote host with VirtIO hard drives is supported.", Fill::kGuestAndHost}},
    {942, "", 944,
     {"Failed to power on the virtual machine [%s] on the host [%s] due to insufficient CPU threads on the host.", Fill::kGuestAndHost}},
    {945, "", 947,
     {"Failed to power on the virtual machine [%s] on the host [%s] because booting VM on a remote host with EFI firmware is not supported.", Fill::kGuestAndHost}},
    {949, "", 959,
     {"Failed to power on the virtual machine [%s] because the resource is temporarily unavailable.", Fill::kGuest}},
    {955, "", 965,
     {"Failed to power on the virtual machine [%s] because the guest kernel is incompatible with host cpu.", Fill::kGuest}},
};

// clang-format on

constexpr bool AreSound() {
  for (const Action& action : kActions) {
    if (!IsSound(action.success) || !IsSound(action.other_failure)) return false;
  }
  for (const FailureRow& row : kFailures) {
    if (!IsSound(row.line)) return false;
  }
  return true;
}
static_assert(AreSound(), "each line has one %s for each of its values, and no other placeholder");

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
    if (row.action.empty() || row.action == action.name) return {row.answer, row.line};
  }
  return {action.other_answer, action.other_failure};
}

Line IncompatibleLine() { return {kIncompatibleLine, Fill::kOperation}; }

}  // namespace VexaVirtualization::power
