#include "host/guests/creation/os_defaults.h"

#include <algorithm>
#include <array>
#include <utility>

#include "host/guests/edit/edit_request.h"
#include "host/records/keys.h"
#include "json/readers.h"

namespace vexa::guests {
namespace {

// The values of "vdisk_mode" and "vnic_type".
constexpr int kVirtioDisk = 1;
constexpr int kSataDisk = 3;
constexpr int kVirtioNic = 1;
constexpr int kE1000Nic = 2;

struct OsRow {
  std::string_view name;
  int vcpus;
  int memory_mib;
  const char* video_card;
  bool has_efi;
  bool sees_host_cpu;
  bool has_hyperv;
  int disk_mode;
  int nic_type;
};

// Linux has drivers for VirtIO devices. The installer of Windows has none, needs EFI firmware since version 11, and
// runs much faster with the enlightenments, which need the host's own processor. "other" is what most systems have
// drivers for.
constexpr std::array kRows = {
    OsRow{"linux", 1, 1024, "virtio", false, false, false, kVirtioDisk, kVirtioNic},
    OsRow{"windows", 2, 4096, "vga", true, true, true, kSataDisk, kE1000Nic},
    OsRow{"other", 1, 512, "vga", false, false, false, kSataDisk, kE1000Nic},
};

void AddMissing(Json::Value& object, const char* name, const Json::Value& value) {
  if (!json::FindMember(object, name)) object[name] = value;
}

void AddMissingToElements(Json::Value& parameters, const char* list, const char* name, int value) {
  if (!json::FindMember(parameters, list) || !parameters[list].isArray()) return;
  for (Json::Value& element : parameters[list]) {
    if (element.isObject()) AddMissing(element, name, value);
  }
}

}  // namespace

std::vector<std::string_view> OsNames() {
  std::vector<std::string_view> names;
  for (const OsRow& row : kRows) names.push_back(row.name);
  return names;
}

bool AddOsDefaults(const std::string& os, Json::Value& parameters) {
  const auto* const row = std::ranges::find(kRows, os, &OsRow::name);
  if (row == kRows.end()) return false;
  // A caller who refuses the host's processor cannot have the enlightenments.
  const Json::Value* const passthru = json::FindMember(parameters, keys::cpu_passthru);
  const bool has_hyperv = row->has_hyperv && !(passthru && passthru->isBool() && !json::Bool(*passthru));
  Json::Value empty_drive(Json::arrayValue);
  empty_drive.append(kUnmounted);
  const std::pair<const char*, Json::Value> defaults[] = {{keys::vcpu_num, row->vcpus},
                                                          {keys::vram_size, row->memory_mib},
                                                          {keys::video_card, row->video_card},
                                                          {keys::use_ovmf, row->has_efi},
                                                          {keys::cpu_passthru, row->sees_host_cpu},
                                                          {keys::hyperv_enlighten, has_hyperv},
                                                          {keys::desc, ""},
                                                          {keys::autorun, 0},
                                                          // An empty disk is skipped, so an installer on an ISO image
                                                          // starts once, and the installed system after that.
                                                          {keys::boot_from, "disk"},
                                                          {keys::kb_layout, "Default"},
                                                          {keys::usb_version, 2},
                                                          {keys::usbs, Json::Value(Json::arrayValue)},
                                                          {keys::cpu_pin_num, 0},
                                                          {keys::cpu_weight, 256},
                                                          {keys::iso_images, empty_drive}};
  for (const auto& [name, value] : defaults) AddMissing(parameters, name, value);
  AddMissingToElements(parameters, "vdisks_add", keys::vdisk_mode, row->disk_mode);
  AddMissingToElements(parameters, "vnics_add", keys::vnic_type, row->nic_type);
  return true;
}

}  // namespace vexa::guests
