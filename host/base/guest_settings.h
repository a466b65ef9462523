// The single table of guest settings. The checks of requests, the rows of the API, the command line's options, and the
// "pending" marks of changes that apply at the next start all come from it.
//
// A new setting is a new row here. CONTRIBUTING.md lists the other places to change; tests compare them with the rows.
// Threads: the table never changes.
#pragma once

#include <json/value.h>

#include <algorithm>
#include <array>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

#include "host/base/guest_setting.h"

namespace vexa {

// Text formats.
bool IsGuestName(const std::string& text);
bool IsGuestDescription(const std::string& text);
bool IsKeyboardLayout(const std::string& text);  // "" is one, too

inline constexpr std::array<std::string_view, 5> kVideoCards = {"cirrus", "vga", "vmvga", "qxl", "virtio"};
inline constexpr std::array<std::string_view, 2> kBootDevices = {"disk", "iso"};

// In the order in which the settings of a user's request are checked.
inline constexpr GuestSetting kGuestSettings[] = {
    {.name = "name",
     .type = SettingType::kString,
     .takes_effect = TakesEffect::kImmediately,
     .topic = SettingTopic::kIdentity,
     .format = TextFormat::kGuestName,
     .expected = "a string of 1 to 128 bytes without control characters",
     .label = "Name",
     .help = "its name: 1 to 128 bytes that no other guest is called",
     .for_users = "The new name, not empty.",
     .for_hosts = "1 to 128 bytes that no other guest is called."},
    {.name = "vcpu_num",
     .type = SettingType::kNumber,
     .takes_effect = TakesEffect::kWhileRunning,
     .topic = SettingTopic::kProcessors,
     .min = 1,
     .max = 512,
     .label = "Virtual CPUs",
     .help = "virtual CPUs, 1 to 512",
     .for_users = "The number of virtual CPUs.",
     .for_hosts = "Virtual CPUs, 1 to 512."},
    // "get" reports memory as a number of KiB with 31 bits.
    {.name = "vram_size",
     .type = SettingType::kNumber,
     .takes_effect = TakesEffect::kWhileRunning,
     .topic = SettingTopic::kMemory,
     .min = 1,
     .max = 2'097'151,
     .unit = Unit::kMib,
     .label = "Memory",
     .help = "memory in MiB, 1 to 2097151",
     .for_users = "The memory in MiB; \"get\" reports it in KiB.",
     .for_hosts = "Memory in MiB, 1 to 2097151."},
    {.name = "video_card",
     .type = SettingType::kString,
     .takes_effect = TakesEffect::kAtNextStart,
     .topic = SettingTopic::kScreen,
     .allowed_values = kVideoCards,
     .expected = "cirrus, vga, vmvga, qxl or virtio",
     .label = "Video card",
     .help = "cirrus, vga, vmvga, qxl or virtio",
     .for_users = "The model of the video card.",
     .for_hosts = "cirrus, vga, vmvga, qxl or virtio."},
    {.name = "repo_id",
     .type = SettingType::kId,
     .takes_effect = TakesEffect::kImmediately,
     .topic = SettingTopic::kRepository,
     .label = "Repository",
     .for_users = "The storage repository, a UUID. It is checked and changes nothing.",
     .for_hosts = nullptr},
    {.name = "desc",
     .type = SettingType::kString,
     .takes_effect = TakesEffect::kImmediately,
     .topic = SettingTopic::kIdentity,
     .format = TextFormat::kDescription,
     .expected = "a string of at most 65536 bytes",
     .label = "Description",
     .help = "its description",
     .for_users = "The description.",
     .for_hosts = "Its description."},
    {.name = "cpu_passthru",
     .type = SettingType::kBoolean,
     .takes_effect = TakesEffect::kAtNextStart,
     .topic = SettingTopic::kProcessorFeatures,
     .label = "CPU passthrough",
     .help = "whether it sees the host's own processor",
     .for_users = "Whether the guest sees the host's own processor.",
     .for_hosts = "Whether it sees the host's processor."},
    {.name = "autorun",
     .type = SettingType::kNumber,
     .takes_effect = TakesEffect::kImmediately,
     .topic = SettingTopic::kHostStart,
     .min = 0,
     .max = 2,
     .label = "Autorun",
     .help = "its start with the host, 0 to 2: 0 never, 1 always, 2 as it was before",
     .for_users = "Whether the guest is started with its host: 0 never, 1 always, 2 as it was before.",
     .for_hosts = "0 never, 1 always, 2 as it was before."},
    {.name = "boot_from",
     .type = SettingType::kString,
     .takes_effect = TakesEffect::kAtNextStart,
     .topic = SettingTopic::kBoot,
     .allowed_values = kBootDevices,
     .expected = "'disk' or 'iso'",
     .label = "Boots from",
     .help = "disk or iso",
     .for_users = "\"iso\" or \"disk\".",
     .for_hosts = "disk or iso."},
    {.name = "use_ovmf",
     .type = SettingType::kBoolean,
     .takes_effect = TakesEffect::kAtNextStart,
     .topic = SettingTopic::kBoot,
     .label = "UEFI firmware",
     .help = "whether its firmware is UEFI",
     .for_users = "Whether the guest has EFI firmware. Users who were granted the guest may set it.",
     .for_hosts = "Whether its firmware is EFI."},
    {.name = "vnics_add",
     .type = SettingType::kList,
     .takes_effect = TakesEffect::kWhileRunning,
     .topic = SettingTopic::kParts,
     .for_users =
         "Network interfaces to add: [{\"network_id\" (a UUID or \"\"), \"prefer_sriov\" (boolean), \"vnic_type\" "
         "(integer), \"mac\" (optional; not in use by any guest)}].",
     .for_hosts = "Network interfaces: network_id, vnic_type, prefer_sriov, mac."},
    {.name = "vnics_del",
     .type = SettingType::kList,
     .takes_effect = TakesEffect::kWhileRunning,
     .topic = SettingTopic::kParts,
     .for_users = "Network interfaces to remove: [{\"vnic_id\"}].",
     .for_hosts = "Each with vnic_id."},
    {.name = "vnics_edit",
     .type = SettingType::kList,
     .takes_effect = TakesEffect::kWhileRunning,
     .topic = SettingTopic::kParts,
     .for_users =
         "Network interfaces to change: [{\"vnic_id\", \"network_id\" (a UUID or \"\"), \"mac\" and \"vnic_type\" "
         "(optional)}].",
     .for_hosts = "Each with vnic_id and what is to change."},
    {.name = "vdisks_add",
     .type = SettingType::kList,
     .takes_effect = TakesEffect::kWhileRunning,
     .topic = SettingTopic::kParts,
     .for_users = "Virtual disks to add: [{\"vdisk_size\" (GiB, at least 1)}].",
     .for_hosts = "Disks: vdisk_size (MiB), vdisk_mode, unmap, format."},
    {.name = "vdisks_del",
     .type = SettingType::kList,
     .takes_effect = TakesEffect::kWhileRunning,
     .topic = SettingTopic::kParts,
     .for_users = "Virtual disks to remove: [{\"vdisk_id\"}].",
     .for_hosts = "Each with vdisk_id."},
    {.name = "vdisks_edit",
     .type = SettingType::kList,
     .takes_effect = TakesEffect::kWhileRunning,
     .topic = SettingTopic::kParts,
     .for_users = "Virtual disks to change: [{\"vdisk_id\", \"vdisk_size\" (GiB, at least 1)}].",
     .for_hosts = "Each with vdisk_id, vdisk_size (MiB) and what is to change."},
    {.name = "vdisks_order",
     .type = SettingType::kList,
     .takes_effect = TakesEffect::kAtNextStart,
     .topic = SettingTopic::kParts,
     .for_users = "The virtual disks in their new order: [{\"vdisk_id\"}].",
     .for_hosts = "Each with vdisk_id; disks that are not named follow."},
    {.name = "guest_privilege",
     .type = SettingType::kList,
     .takes_effect = TakesEffect::kImmediately,
     .topic = SettingTopic::kGrants,
     .for_users =
         "Rights to grant or take back: [{\"uid\" or \"gid\", \"allow\" (boolean), \"type\", \"name\"}]. Users and "
         "groups that are not named keep their rights.",
     .for_hosts = nullptr},
    {.name = "iso_images",
     .type = SettingType::kList,
     .takes_effect = TakesEffect::kWhileRunning,
     .topic = SettingTopic::kDrives,
     .label = "ISO images",
     .for_users = "The contents of the drives: ids of images, paths in shared folders, or \"unmounted\". Users who "
                  "were granted the guest may set it.",
     .for_hosts = "At most two images: an id, an absolute path, or unmounted."},
    {.name = "usb_version",
     .type = SettingType::kNumber,
     .takes_effect = TakesEffect::kAtNextStart,
     .topic = SettingTopic::kUsb,
     .min = 0,
     .max = 3,
     .label = "USB version",
     .help = "its USB controller, 0 (none) to 3",
     .for_users = "The version of the USB controller, 0 to 3.",
     .for_hosts = "0 (no controller) to 3."},
    {.name = "usbs",
     .type = SettingType::kList,
     .takes_effect = TakesEffect::kWhileRunning,
     .topic = SettingTopic::kUsb,
     .label = "USB devices",
     .for_users = "The USB devices to pass through.",
     .for_hosts = "At most four devices: 1234:00ab, 3.14 or unmounted."},
    {.name = "hyperv_enlighten",
     .type = SettingType::kBoolean,
     .takes_effect = TakesEffect::kAtNextStart,
     .topic = SettingTopic::kProcessorFeatures,
     .label = "Hyper-V features",
     .help = "whether it gets Hyper-V's features; not with cpu_passthru=false",
     .for_users = "Whether the guest has Hyper-V's enlightenments; not together with \"cpu_passthru\" false.",
     .for_hosts = "Whether it gets the enlightenments of Hyper-V."},
    {.name = "kb_layout",
     .type = SettingType::kString,
     .takes_effect = TakesEffect::kAtNextStart,
     .topic = SettingTopic::kScreen,
     .format = TextFormat::kKeyboardLayout,
     .expected = "the name of a keyboard layout such as 'en-us'",
     .label = "Keyboard",
     .help = "its keyboard's layout, such as en-us, or Default",
     .for_users = "The keyboard layout.",
     .for_hosts = "Its keyboard's layout."},
    // At most the guest's virtual CPUs, which the plan of the edit checks.
    {.name = "cpu_pin_num",
     .type = SettingType::kNumber,
     .takes_effect = TakesEffect::kAtNextStart,
     .topic = SettingTopic::kProcessors,
     .min = 0,
     .max = 512,
     .label = "Pinned CPUs",
     .help = "dedicated processors, 0 to its virtual CPUs",
     .for_users = "The number of CPU threads dedicated to the guest.",
     .for_hosts = "Dedicated processors, at most its virtual CPUs."},
    {.name = "cpu_weight",
     .type = SettingType::kNumber,
     .takes_effect = TakesEffect::kWhileRunning,
     .topic = SettingTopic::kProcessors,
     .min = 2,
     .max = 262'144,
     .label = "CPU weight",
     .help = "its share under CPU contention, 2 to 262144 (normally 256)",
     .for_users = "The guest's weight against other guests under CPU contention.",
     .for_hosts = "2 to 262144."},
};

// Whether a row has all members that its type needs, and none that its type does not use.
constexpr bool IsComplete(const GuestSetting& setting) {
  if (!setting.IsScalar()) return !setting.help;
  if (!setting.label || !setting.help || !setting.for_hosts) return false;
  const bool has_values = (setting.format == TextFormat::kOneOf) != setting.allowed_values.empty();
  if (setting.type == SettingType::kString) return has_values && setting.expected;
  return setting.allowed_values.empty() && setting.format == TextFormat::kOneOf &&
         (setting.type == SettingType::kNumber) == (setting.min < setting.max) &&
         (setting.type == SettingType::kBoolean || !setting.is_on_by_default);
}
static_assert(std::ranges::all_of(kGuestSettings, IsComplete), "a setting lacks a member that its type needs");

// The row of the setting `name`. An unknown name does not compile.
consteval const GuestSetting& GuestSettingOf(std::string_view name) {
  const auto* const found = std::ranges::find(kGuestSettings, name, &GuestSetting::name);
  if (found == std::end(kGuestSettings)) throw std::logic_error("There is no setting of this name");
  return *found;
}

// Null for an unknown name.
const GuestSetting* FindGuestSetting(std::string_view name);

// All rows in the order in which they are displayed: by topic, and in the order of the table within a topic.
std::span<const GuestSetting* const> GuestSettingsByTopic();

// Whether `value` has the type, range and format of a scalar setting. False for other settings. Rules that involve
// several settings are not checked.
bool IsValidValue(const GuestSetting& setting, const Json::Value& value);

// What IsValidValue accepts, to follow "is not": "a number from 1 to 512".
std::string DescribeValidValue(const GuestSetting& setting);

}  // namespace vexa
