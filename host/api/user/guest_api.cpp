#include "host/api/user/guest_api.h"

#include "host/api/user/gone_host.h"
#include "webapi/guest/guest.h"
#include "webapi/guest/guest_action.h"

namespace vexa::daemon {

using webapi::Access;
using webapi::LaneKind;
using webapi::Necessity;
using webapi::ParameterType;

namespace {

webapi::Parameter Optional(std::string_view name, ParameterType type, std::string_view description) {
  return {name, type, Necessity::kOptional, description};
}

// In the order in which they are checked.
std::vector<webapi::Parameter> SetParameters() {
  using enum ParameterType;
  return {
      {"guest_id", kString, Necessity::kRequired, "The guest's id, a UUID."},
      Optional("name", kString, "The new name, not empty."),
      Optional("vcpu_num", kInteger, "The number of virtual CPUs."),
      Optional("vram_size", kInteger, "The memory in MiB."),
      Optional("video_card", kString, "The model of the video card."),
      Optional("repo_id", kString, "The storage repository, a UUID. It is checked and changes nothing."),
      Optional("desc", kString, "The description."),
      Optional("cpu_passthru", kBoolean, "Whether the guest sees the host's own processor."),
      Optional("autorun", kInteger, "Whether and how the guest is started with its host."),
      Optional("boot_from", kString, "\"iso\" or \"disk\"."),
      Optional("use_ovmf", kBoolean,
               "Whether the guest has EFI firmware. Users who were granted the guest may set it."),
      Optional(
          "vnics_add", kArray,
          "Network interfaces to add: [{\"network_id\" (a UUID or \"\"), \"prefer_sriov\" (boolean), \"vnic_type\" "
          "(integer), \"mac\" (optional; in use by no guest)}]."),
      Optional("vnics_del", kArray, "Network interfaces to remove: [{\"vnic_id\"}]."),
      Optional(
          "vnics_edit", kArray,
          "Network interfaces to change: [{\"vnic_id\", \"network_id\" (a UUID or \"\"), \"mac\" and \"vnic_type\" "
          "(optional)}]."),
      Optional("vdisks_add", kArray, "Virtual disks to add: [{\"vdisk_size\" (GiB, at least 1)}]."),
      Optional("vdisks_del", kArray, "Virtual disks to remove: [{\"vdisk_id\"}]."),
      Optional("vdisks_edit", kArray, "Virtual disks to change: [{\"vdisk_id\", \"vdisk_size\" (GiB, at least 1)}]."),
      Optional("vdisks_order", kArray, "The virtual disks in their new order: [{\"vdisk_id\"}]."),
      Optional(
          "guest_privilege", kArray,
          "Rights to grant or take back: [{\"uid\" or \"gid\", \"allow\" (boolean), \"type\", \"name\"}]. Who is not "
          "named keeps their rights."),
      Optional("iso_images", kArray,
               "The contents of the drives: ids of images, paths in shared folders, or \"unmounted\". Users who were "
               "granted the "
               "guest may set it."),
      Optional("usb_version", kInteger, "The version of the USB controller, 0 to 3."),
      Optional("usbs", kArray, "The USB devices to pass through."),
      Optional("hyperv_enlighten", kBoolean,
               "Whether the guest has Hyper-V's enlightenments; not together with \"cpu_passthru\" false."),
      Optional("kb_layout", kString, "The keyboard layout."),
      Optional("cpu_pin_num", kInteger, "The number of CPU threads set apart for the guest."),
      Optional("cpu_weight", kInteger, "The guest's weight against others when processors are short."),
  };
}

}  // namespace

std::vector<webapi::ApiRow> GuestRows() {
  return {
      {.api = "VEXA.Virtualization.Guest",
       .method = "get",
       .version = 1,
       .access = Access::kUser,
       .lane = LaneKind::kQuick,
       .handler = webapi::Plain(VexaVirtualization::Guest::Get),
       .summary = "The stored configuration of one guest: general settings, disks and network interfaces.",
       .parameters = {{"guest_id", ParameterType::kString, Necessity::kRequired, "The guest's id, a UUID."}},
       .errors = {401, 403, 409, 413}},
      {.api = "VEXA.Virtualization.Guest",
       .method = "set",
       .version = 1,
       .access = Access::kUser,
       .lane = LaneKind::kLong,
       .handler = webapi::Plain(VexaVirtualization::Guest::Set),
       .summary = "Edit a guest; members that are not given stay unchanged. For administrators and advanced users. "
                  "Users who were granted "
                  "the guest may change \"iso_images\" and \"use_ovmf\".",
       .parameters = SetParameters(),
       .errors = {401, 403, 406, 407, 409, 411, 413, 909, 910,  919,
                  920, 926, 930, 934, 935, 937, 943, 946, 1001, 1600}},
      {.api = "VEXA.Virtualization.Guest",
       .method = "delete",
       .version = 1,
       .access = Access::kUser,
       .lane = LaneKind::kLong,
       .handler = services::WithGoneHostReason(webapi::Plain(VexaVirtualization::Guest::Delete),
                                               services::NeededHost::kHolder),
       .summary = "Delete a guest with its disks. It must not run. For administrators, and for advanced users who were "
                  "granted the guest.",
       .parameters = {{"guest_id", ParameterType::kString, Necessity::kRequired, "The guest's id, a UUID."}},
       .errors = {401, 403, 407, 409, 901}},
      {.api = "VEXA.Virtualization.Guest.Action",
       .method = "pwr_ctl",
       .version = 1,
       .access = Access::kUser,
       .lane = LaneKind::kLong,
       .handler = services::WithGoneHostReason(webapi::Plain(VexaVirtualization::GuestAction::PwrCtl),
                                               services::NeededHost::kHolderOrNamed),
       .summary =
           "Power a guest on or off, shut it down or reboot it. \"poweroff_by_ha\" powers it off on several hosts "
           "and answers for each of them.",
       .parameters = {{"guest_id", ParameterType::kString, Necessity::kRequired, "The guest's id."},
                      {"action", ParameterType::kString, Necessity::kRequired,
                       "\"poweron\", \"shutdown\", \"poweroff\", \"reboot\" or \"poweroff_by_ha\"."},
                      {"host_ids", ParameterType::kArray, Necessity::kOptional,
                       "For \"poweroff_by_ha\", which needs it: the ids of the hosts to ask."}},
       .errors = {401, 403, 407, 409, 415, 620, 902, 903, 904, 905, 912, 914,
                  915, 927, 928, 932, 933, 939, 944, 947, 954, 959, 965}},
  };
}

}  // namespace vexa::daemon
