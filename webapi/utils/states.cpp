#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string>

#include "webapi/platform/ccc_constants.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization {
namespace {

namespace Host = VexaCCC::State::Host;
namespace Version = VexaCCC::State::Version;
namespace Repo = VexaCCC::State::Repo;
namespace GuestIs = VexaCCC::State::Guest;  // Guest is the class of the handlers
namespace vDisk = VexaCCC::State::vDisk;
namespace HAGroup = VexaCCC::State::HAGroup;

}  // namespace

// Intentional: the displayed names differ from the platform's for inaccessible repositories and virtual disks
// ("missing") and for three states of high-availability groups. "full" comes before "provision_warning" for
// repositories, and after it for virtual disks.
const VirtualizationState StateTable[] = {
    {STATE_CATE_HOST, Host::running, "running", "healthy", ""},
    {STATE_CATE_HOST, Host::inaccessible, "inaccessible", "error", ""},
    {STATE_CATE_HOST, Host::network_warn, "network_warn", "warning", ""},
    {STATE_CATE_HOST, Host::control_unavail, "control_unavail", "error", ""},
    {STATE_CATE_VERSION, Version::version_matched, "version_matched", "healthy", ""},
    {STATE_CATE_VERSION, Version::upgrade_suggested, "upgrade_suggested", "healthy", ""},
    {STATE_CATE_VERSION, Version::upgrade_required, "upgrade_required", "warning", ""},
    {STATE_CATE_VERSION, Version::package_upgrade_suggested, "package_upgrade_suggested", "healthy", ""},
    {STATE_CATE_VERSION, Version::package_upgrade_required, "package_upgrade_required", "warning", ""},
    {STATE_CATE_REPOSITORY, Repo::online, "online", "healthy", ""},
    {STATE_CATE_REPOSITORY, Repo::inaccessible, "missing", "error", ""},
    {STATE_CATE_REPOSITORY, Repo::unavailable, "unavailable", "error", ""},
    {STATE_CATE_REPOSITORY, Repo::degraded, "degraded", "warning", ""},
    {STATE_CATE_REPOSITORY, Repo::crashed, "crashed", "error", ""},
    {STATE_CATE_REPOSITORY, Repo::full, "full", "error", ""},
    {STATE_CATE_REPOSITORY, Repo::provision_warning, "provision_warning", "warning", ""},
    {STATE_CATE_GUEST, GuestIs::creating, "creating", "healthy", ""},
    {STATE_CATE_GUEST, GuestIs::importing, "importing", "healthy", ""},
    {STATE_CATE_GUEST, GuestIs::running, "running", "healthy", ""},
    {STATE_CATE_GUEST, GuestIs::shutdown, "shutdown", "healthy", ""},
    {STATE_CATE_GUEST, GuestIs::booting, "booting", "healthy", ""},
    {STATE_CATE_GUEST, GuestIs::shutting_down, "shutting_down", "healthy", ""},
    {STATE_CATE_GUEST, GuestIs::moving, "moving", "healthy", ""},
    {STATE_CATE_GUEST, GuestIs::stor_migrating, "stor_migrating", "healthy", ""},
    {STATE_CATE_GUEST, GuestIs::preparing, "preparing", "healthy", ""},
    {STATE_CATE_GUEST, GuestIs::ha_standby, "ha_standby", "healthy", ""},
    {STATE_CATE_GUEST, GuestIs::saved, "saved", "healthy", ""},
    {STATE_CATE_GUEST, GuestIs::inaccessible, "inaccessible", "error", ""},
    {STATE_CATE_GUEST, GuestIs::crashed, "crashed", "error", ""},
    {STATE_CATE_GUEST, GuestIs::unknown, "unknown", "error", ""},
    {STATE_CATE_GUEST, GuestIs::freeze, "freeze", "error", ""},
    {STATE_CATE_VDISK, vDisk::online, "online", "healthy", ""},
    {STATE_CATE_VDISK, vDisk::inaccessible, "missing", "error", ""},
    {STATE_CATE_VDISK, vDisk::unavailable, "unavailable", "error", ""},
    {STATE_CATE_VDISK, vDisk::degraded, "degraded", "warning", ""},
    {STATE_CATE_VDISK, vDisk::crashed, "crashed", "error", ""},
    {STATE_CATE_VDISK, vDisk::provision_warning, "provision_warning", "warning", ""},
    {STATE_CATE_VDISK, vDisk::full, "full", "error", ""},
    {STATE_CATE_HA_GROUP, HAGroup::normal, "enabled", "healthy", ""},
    {STATE_CATE_HA_GROUP, HAGroup::error, "error", "error", ""},
    {STATE_CATE_HA_GROUP, HAGroup::failover, "failovering", "healthy", ""},
    {STATE_CATE_HA_GROUP, HAGroup::switchover, "switchovering", "healthy", ""},
    {STATE_CATE_HA_GROUP, HAGroup::warning, "warning", "warning", ""},
    {STATE_CATE_HA_GROUP, HAGroup::pause, "pause", "warning", ""},
    {STATE_CATE_HA_GROUP, HAGroup::switchover_waiting, "switchover_waiting", "healthy", ""},
    {STATE_CATE_NONE, "", "", "", ""},
};

// Intentional: there are no rows for inaccessible hosts with the two package versions.
const HostState HostStateTable[] = {
    {Host::running, Version::version_matched, STATE_CATE_HOST},
    {Host::running, Version::upgrade_suggested, STATE_CATE_VERSION},
    {Host::running, Version::upgrade_required, STATE_CATE_VERSION},
    {Host::running, Version::package_upgrade_suggested, STATE_CATE_VERSION},
    {Host::running, Version::package_upgrade_required, STATE_CATE_VERSION},
    {Host::running, Version::unknown, STATE_CATE_HOST},
    {Host::network_warn, Version::version_matched, STATE_CATE_HOST},
    {Host::network_warn, Version::upgrade_suggested, STATE_CATE_HOST},
    {Host::network_warn, Version::upgrade_required, STATE_CATE_HOST},
    {Host::network_warn, Version::package_upgrade_suggested, STATE_CATE_HOST},
    {Host::network_warn, Version::package_upgrade_required, STATE_CATE_HOST},
    {Host::network_warn, Version::unknown, STATE_CATE_HOST},
    {Host::control_unavail, Version::version_matched, STATE_CATE_HOST},
    {Host::control_unavail, Version::upgrade_suggested, STATE_CATE_HOST},
    {Host::control_unavail, Version::upgrade_required, STATE_CATE_HOST},
    {Host::control_unavail, Version::package_upgrade_suggested, STATE_CATE_HOST},
    {Host::control_unavail, Version::package_upgrade_required, STATE_CATE_HOST},
    {Host::control_unavail, Version::unknown, STATE_CATE_HOST},
    {Host::inaccessible, Version::version_matched, STATE_CATE_HOST},
    {Host::inaccessible, Version::upgrade_suggested, STATE_CATE_HOST},
    {Host::inaccessible, Version::upgrade_required, STATE_CATE_HOST},
    {Host::inaccessible, Version::unknown, STATE_CATE_HOST},
    {"", "", STATE_CATE_NONE},
};

// The order differs from StateTable.
const std::string VersionStatePriorityTable[] = {
    Version::version_matched,          Version::package_upgrade_suggested, Version::upgrade_suggested,
    Version::package_upgrade_required, Version::upgrade_required,
};

namespace {

// -1 for a state that is not in the table.
std::ptrdiff_t VersionPriority(const std::string& state) {
  const auto* const begin = std::begin(VersionStatePriorityTable);
  const auto* const end = std::end(VersionStatePriorityTable);
  const auto* const found = std::find(begin, end, state);
  return found == end ? -1 : found - begin;
}

}  // namespace

int GetHostStateCate(const std::string& host_state, const std::string& version_state) {
  for (const HostState* row = HostStateTable; !row->host_state.empty(); ++row) {
    if (row->host_state == host_state && row->version_state == version_state) return row->cate;
  }
  return STATE_CATE_NONE;
}

int CompareVersionStatePriority(const std::string& a, const std::string& b) {
  const std::ptrdiff_t priority_a = VersionPriority(a);
  const std::ptrdiff_t priority_b = VersionPriority(b);
  if (priority_a < priority_b) return -1;
  return priority_a == priority_b ? 0 : 1;
}

void GetStateType(const STATE_CATE& cate, const std::string& state, std::string& ui_state, std::string& type,
                  std::string& detail) {
  ui_state = state;
  type = "error";
  for (const VirtualizationState* row = StateTable; row->cate != STATE_CATE_NONE; ++row) {
    if (row->cate != cate || row->state != state) continue;
    ui_state = row->ui_state;
    type = row->type;
    if (!row->detail.empty()) detail = row->detail;
    return;
  }
}

void GetStateType(const STATE_CATE& cate, const std::string& state, std::string& ui_state, std::string& type) {
  std::string detail;
  GetStateType(cate, state, ui_state, type, detail);
}

void GetStateType(const STATE_CATE& cate, const std::string& state, UIState& ui) {
  GetStateType(cate, state, ui.state, ui.type);
}

}  // namespace VexaVirtualization
