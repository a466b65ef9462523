// The value of a key is its name. The value of a state is the kind of object and the name of the state, so that states
// of different kinds differ.
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_constants.h"

namespace VexaCCC {

namespace DB {

constinit const DashCate DashCate::Host("host");
constinit const DashCate DashCate::Guest("guest");
constinit const DashCate DashCate::Repository("repository");
constinit const DashCate DashCate::vDisk("vdisk");
constinit const DashCate DashCate::vNic("vnic");
constinit const DashCate DashCate::GuestAdmin("guest_admin");

namespace _k {

constinit const char* const object = "object";
constinit const char* const name = "name";
constinit const char* const state = "state";
constinit const char* const host_id = "host_id";
constinit const char* const repository_id = "repository_id";
constinit const char* const guest_id = "guest_id";
constinit const char* const guest = "guest";
constinit const char* const guests = "guests";
constinit const char* const authlevel = "authlevel";
constinit const char* const is_forced_shutdown = "is_forced_shutdown";
constinit const char* const shutdownreasonvalue = "shutdownreasonvalue";
constinit const char* const vcpu_num = "vcpu_num";
constinit const char* const vram_size = "vram_size";
constinit const char* const video_card = "video_card";
constinit const char* const cpu_passthru = "cpu_passthru";
constinit const char* const vdisks = "vdisks";
constinit const char* const vnics = "vnics";
constinit const char* const autorun = "autorun";
constinit const char* const ha_group_id = "ha_group_id";
constinit const char* const desc = "desc";
constinit const char* const boot_from = "boot_from";
constinit const char* const use_ovmf = "use_ovmf";
constinit const char* const usb_version = "usb_version";
constinit const char* const usbs = "usbs";
constinit const char* const kb_layout = "kb_layout";
constinit const char* const cpu_pin_num = "cpu_pin_num";
constinit const char* const cpu_weight = "cpu_weight";
constinit const char* const hyperv_enlighten = "hyperv_enlighten";
constinit const char* const iso_images = "iso_images";
constinit const char* const is_general_vm = "is_general_vm";
constinit const char* const size = "size";
constinit const char* const type = "type";
constinit const char* const format = "format";
constinit const char* const vdisk_mode = "vdisk_mode";
constinit const char* const is_dummy = "is_dummy";
constinit const char* const unmap = "unmap";
constinit const char* const is_meta_disk = "is_meta_disk";
constinit const char* const network_group_id = "network_group_id";
constinit const char* const prefer_sriov = "prefer_sriov";
constinit const char* const mac_address = "mac_address";
constinit const char* const vnic_type = "vnic_type";
constinit const char* const prefer_connect_ip = "prefer_connect_ip";
constinit const char* const cpu_cores = "cpu_cores";
constinit const char* const cpu_clock_speed = "cpu_clock_speed";
constinit const char* const nics = "nics";
constinit const char* const running = "running";
constinit const char* const bridge_name = "bridge_name";
constinit const char* const nic_id = "nic_id";

}  // namespace _k
}  // namespace DB

namespace State {

namespace Host {
constinit const char* const running = "host_running";
constinit const char* const inaccessible = "host_inaccessible";
constinit const char* const network_warn = "host_network_warn";
constinit const char* const control_unavail = "host_control_unavail";
}  // namespace Host

namespace Version {
constinit const char* const version_matched = "version_version_matched";
constinit const char* const upgrade_suggested = "version_upgrade_suggested";
constinit const char* const upgrade_required = "version_upgrade_required";
constinit const char* const package_upgrade_suggested = "version_package_upgrade_suggested";
constinit const char* const package_upgrade_required = "version_package_upgrade_required";
constinit const char* const unknown = "version_unknown";
}  // namespace Version

namespace Repo {
constinit const char* const online = "repo_online";
constinit const char* const inaccessible = "repo_inaccessible";
constinit const char* const unavailable = "repo_unavailable";
constinit const char* const degraded = "repo_degraded";
constinit const char* const crashed = "repo_crashed";
constinit const char* const full = "repo_full";
constinit const char* const provision_warning = "repo_provision_warning";
}  // namespace Repo

namespace Guest {
constinit const char* const creating = "guest_creating";
constinit const char* const importing = "guest_importing";
constinit const char* const running = "guest_running";
constinit const char* const shutdown = "guest_shutdown";
constinit const char* const booting = "guest_booting";
constinit const char* const shutting_down = "guest_shutting_down";
constinit const char* const moving = "guest_moving";
constinit const char* const stor_migrating = "guest_stor_migrating";
constinit const char* const preparing = "guest_preparing";
constinit const char* const ha_standby = "guest_ha_standby";
constinit const char* const saved = "guest_saved";
constinit const char* const inaccessible = "guest_inaccessible";
constinit const char* const crashed = "guest_crashed";
constinit const char* const unknown = "guest_unknown";
constinit const char* const freeze = "guest_freeze";
}  // namespace Guest

namespace vDisk {
constinit const char* const online = "vdisk_online";
constinit const char* const inaccessible = "vdisk_inaccessible";
constinit const char* const unavailable = "vdisk_unavailable";
constinit const char* const degraded = "vdisk_degraded";
constinit const char* const crashed = "vdisk_crashed";
constinit const char* const provision_warning = "vdisk_provision_warning";
constinit const char* const full = "vdisk_full";
}  // namespace vDisk

namespace HAGroup {
constinit const char* const normal = "hagroup_normal";
constinit const char* const error = "hagroup_error";
constinit const char* const failover = "hagroup_failover";
constinit const char* const switchover = "hagroup_switchover";
constinit const char* const warning = "hagroup_warning";
constinit const char* const pause = "hagroup_pause";
constinit const char* const switchover_waiting = "hagroup_switchover_waiting";
}  // namespace HAGroup

namespace Etcd {
constinit const char* const inaccessible = "etcd_inaccessible";
}  // namespace Etcd

}  // namespace State

}  // namespace VexaCCC
