// Strings of the cluster-control library: keys of records, and states of objects. Other code uses these constants and
// never repeats their values.
#pragma once

#pragma GCC visibility push(default)

namespace VexaCCC {

namespace DB {
namespace _k {

extern const char* const object;
extern const char* const name;
extern const char* const state;
extern const char* const host_id;
extern const char* const repository_id;
extern const char* const guest_id;
extern const char* const guest;
extern const char* const guests;
extern const char* const authlevel;
extern const char* const is_forced_shutdown;
extern const char* const shutdownreasonvalue;
extern const char* const vcpu_num;
extern const char* const vram_size;
extern const char* const video_card;
extern const char* const cpu_passthru;
extern const char* const vdisks;
extern const char* const vnics;
extern const char* const autorun;
extern const char* const ha_group_id;
extern const char* const desc;
extern const char* const boot_from;
extern const char* const use_ovmf;
extern const char* const usb_version;
extern const char* const usbs;
extern const char* const kb_layout;
extern const char* const cpu_pin_num;
extern const char* const cpu_weight;
extern const char* const hyperv_enlighten;
extern const char* const iso_images;
extern const char* const is_general_vm;
extern const char* const size;
extern const char* const type;
extern const char* const format;
extern const char* const vdisk_mode;
extern const char* const is_dummy;
extern const char* const unmap;
extern const char* const is_meta_disk;
extern const char* const network_group_id;
extern const char* const prefer_sriov;
extern const char* const mac_address;
extern const char* const vnic_type;
extern const char* const prefer_connect_ip;
extern const char* const cpu_cores;
extern const char* const cpu_clock_speed;
extern const char* const nics;
extern const char* const running;
extern const char* const bridge_name;
extern const char* const nic_id;

}  // namespace _k
}  // namespace DB

// The states of objects. The values are distinct across all kinds of object.
namespace State {

namespace Host {
extern const char* const running;
extern const char* const inaccessible;
extern const char* const network_warn;
extern const char* const control_unavail;
}  // namespace Host

namespace Version {
extern const char* const version_matched;
extern const char* const upgrade_suggested;
extern const char* const upgrade_required;
extern const char* const package_upgrade_suggested;
extern const char* const package_upgrade_required;
extern const char* const unknown;
}  // namespace Version

namespace Repo {
extern const char* const online;
extern const char* const inaccessible;
extern const char* const unavailable;
extern const char* const degraded;
extern const char* const crashed;
extern const char* const full;
extern const char* const provision_warning;
}  // namespace Repo

namespace Guest {
extern const char* const creating;
extern const char* const importing;
extern const char* const running;
extern const char* const shutdown;
extern const char* const booting;
extern const char* const shutting_down;
extern const char* const moving;
extern const char* const stor_migrating;
extern const char* const preparing;
extern const char* const ha_standby;
extern const char* const saved;
extern const char* const inaccessible;
extern const char* const crashed;
extern const char* const unknown;
extern const char* const freeze;
}  // namespace Guest

namespace vDisk {
extern const char* const online;
extern const char* const inaccessible;
extern const char* const unavailable;
extern const char* const degraded;
extern const char* const crashed;
extern const char* const provision_warning;
extern const char* const full;
}  // namespace vDisk

namespace HAGroup {
extern const char* const normal;
extern const char* const error;
extern const char* const failover;
extern const char* const switchover;
extern const char* const warning;
extern const char* const pause;
extern const char* const switchover_waiting;
}  // namespace HAGroup

namespace Etcd {
extern const char* const inaccessible;
}  // namespace Etcd

}  // namespace State

}  // namespace VexaCCC

#pragma GCC visibility pop
