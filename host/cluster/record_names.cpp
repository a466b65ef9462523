#include "host/cluster/record_names.h"

#include <string_view>
#include <unordered_set>
#include <utility>

#include "webapi/platform/ccc_constants.h"

namespace vexa::cluster {
namespace {

namespace k = VexaCCC::DB::_k;

// The keys of the cluster's records, and what an import adds.
const std::unordered_set<std::string_view>& SharedNames() {
  static const std::unordered_set<std::string_view> names{
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
      k::vcpu_num,
      k::vram_size,
      k::video_card,
      k::cpu_passthru,
      k::vdisks,
      k::vnics,
      k::autorun,
      k::ha_group_id,
      k::desc,
      k::boot_from,
      k::use_ovmf,
      k::usb_version,
      k::usbs,
      k::kb_layout,
      k::cpu_pin_num,
      k::cpu_weight,
      k::hyperv_enlighten,
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
  };
  return names;
}

}  // namespace

Json::Value WithSharedNames(Json::Value&& record) {
  if (!record.isObject()) return std::move(record);
  Json::Value shared(Json::objectValue);
  for (auto member = record.begin(); member != record.end(); ++member) {
    const char* end = nullptr;
    const char* const begin = member.memberName(&end);
    const auto found = SharedNames().find(std::string_view(begin, end));
    Json::Value& place =
        found != SharedNames().end() ? shared[Json::StaticString(found->data())] : *shared.demand(begin, end);
    place.swap(*member);
  }
  return shared;
}

}  // namespace vexa::cluster
