#include "host/records/record_names.h"

#include <string_view>
#include <unordered_set>

#include "host/base/guest_settings.h"
#include "webapi/platform/ccc_constants.h"

namespace vexa::records {
namespace {

namespace k = VexaCCC::DB::_k;

// The names of members in the cluster's records, including those from an import and in guests' states. The names of
// guests' settings come from their table.
const std::unordered_set<std::string_view>& InternedNames() {
  static const std::unordered_set<std::string_view> names = [] {
    std::unordered_set<std::string_view> all{
        k::object,
        k::name,
        k::state,
        k::host_id,
        k::repository_id,
        k::guest_id,
        k::guest,
        k::guests,
        k::authlevel,
        k::is_forced_shutdown,
        k::shutdownreasonvalue,
        k::vdisks,
        k::vnics,
        k::ha_group_id,
        k::usbs,
        k::iso_images,
        k::is_general_vm,
        k::size,
        k::type,
        k::format,
        k::vdisk_mode,
        k::is_dummy,
        k::unmap,
        k::is_meta_disk,
        k::network_group_id,
        k::prefer_sriov,
        k::mac_address,
        k::vnic_type,
        k::prefer_connect_ip,
        k::cpu_cores,
        k::cpu_clock_speed,
        k::nics,
        k::running,
        k::bridge_name,
        k::nic_id,
        "driver",
        "network_name",
        "path",
        "status",
        "status_type",
    };
    for (const GuestSetting& setting : kGuestSettings) {
      if (setting.IsScalar()) all.insert(setting.name);
    }
    return all;
  }();
  return names;
}

}  // namespace

const char* InternedName(std::string_view name) {
  const auto found = InternedNames().find(name);
  return found == InternedNames().end() ? nullptr : found->data();
}

}  // namespace vexa::records
