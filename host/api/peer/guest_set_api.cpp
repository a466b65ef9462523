#include "host/api/peer/guest_set_api.h"

#include <utility>

#include "host/api/peer/rows.h"
#include "host/guests/guest_control.h"
#include "webapi/platform/ccc.h"

namespace vexa::services {
namespace {

using webapi::Call;
using webapi::Necessity;
using webapi::Parameter;
using webapi::ParameterType;

// For processors that could not be dedicated to a running guest, the details in the form that callers read; otherwise a
// sentence.
Json::Value DetailsOf(const guests::Refusal& refusal) {
  if (refusal.code != guests::kNotPinned) return refusal.reason;
  Json::Value details(Json::objectValue);
  details["pin_reserved"] = false;
  return details;
}

void Set(guests::GuestControl* control, const store::Store* store, const Call& call) {
  const auto guest_id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  if (guest_id.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  if (!control) return call.response->SetError(guests::kUnavailable, "This host runs no guests");
  if (const guests::Refused refused = RefusedByDatabase(store)) {
    return call.response->SetError(refused->code, refused->reason);
  }
  const guests::Refused refused =
      control->Edit(guest_id.Get(), call.request->GetParam("", Json::Value()), RequesterOf(call));
  if (refused) return call.response->SetError(refused->code, DetailsOf(*refused));
  call.response->SetSuccess(Json::Value());
}

Parameter Optional(std::string_view name, ParameterType type, std::string_view description) {
  return {name, type, Necessity::kOptional, description};
}

}  // namespace

std::vector<webapi::ApiRow> GuestSetRows(const ServiceParts& parts) {
  using enum ParameterType;
  return {HostRow(
      "VEXA.CCC.Guest", "set", webapi::LaneKind::kLong,
      [control = parts.guests, store = parts.store](const Call& call) { Set(control, store.get(), call); },
      "Changes a guest: all that is given, or nothing. What a guest that runs cannot take counts from its next start.",
      {Text("guest_id", "The guest's id, a UUID."),
       Optional("name", kString, "1 to 128 bytes that no other guest is called."),
       Optional("desc", kString, "Its description."),
       Optional("vcpu_num", kInteger, "Virtual CPUs, 1 to 512."),
       Optional("vram_size", kInteger, "Memory in MiB, 1 to 2097151."),
       Optional("video_card", kString, "cirrus, vga, vmvga, qxl or virtio."),
       Optional("cpu_passthru", kBoolean, "Whether it sees the host's processor."),
       Optional("hyperv_enlighten", kBoolean, "Whether it gets the enlightenments of Hyper-V."),
       Optional("autorun", kInteger, "0 to 2."),
       Optional("kb_layout", kString, "Its keyboard's layout."),
       Optional("cpu_pin_num", kInteger, "Processors of its own, at most its virtual CPUs."),
       Optional("cpu_weight", kInteger, "2 to 262144."),
       Optional("boot_from", kString, "disk or iso."),
       Optional("use_ovmf", kBoolean, "Whether its firmware is EFI."),
       Optional("usb_version", kInteger, "0 (no controller) to 3."),
       Optional("usbs", kArray, "At most four devices: 1234:00ab, 3.14 or unmounted."),
       Optional("iso_images", kArray, "At most two images: an id, an absolute path, or unmounted."),
       Optional("vnics_add", kArray, "Network interfaces: network_id, vnic_type, prefer_sriov, mac."),
       Optional("vnics_del", kArray, "Each with vnic_id."),
       Optional("vnics_edit", kArray, "Each with vnic_id and what is to change."),
       Optional("vdisks_add", kArray, "Disks: vdisk_size (MiB), vdisk_mode, unmap, format."),
       Optional("vdisks_del", kArray, "Each with vdisk_id."),
       Optional("vdisks_edit", kArray, "Each with vdisk_id, vdisk_size (MiB) and what is to change."),
       Optional("vdisks_order", kArray, "Each with vdisk_id; disks that are not named follow.")},
      {401, 403, 410, 901, 902, 903, 904, 912, 915, 932, 936, 938, 944, 949, 2101})};
}

}  // namespace vexa::services
