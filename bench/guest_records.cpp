#include "bench/guest_records.h"

#include <cstdio>
#include <string_view>
#include <variant>

#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/setting_lists.h"

namespace vexa::bench {
namespace {

constexpr const char* kRepository = "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6";
constexpr const char* kHost = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";
constexpr const char* kNetwork = "03422cd0-4a23-57c4-b939-511a0a1aedce";

struct Setting {
  const char* name;
  std::variant<int, bool, const char*> value;
};
constexpr Setting kSettings[] = {
    {"desc", "Web server of the staff pages"},
    {"autorun", 0},
    {"boot_from", "disk"},
    {"cpu_passthru", false},
    {"cpu_pin_num", 0},
    {"cpu_weight", 256},
    {"kb_layout", "Default"},
    {"usb_version", 3},
    {"use_ovmf", false},
    {"vcpu_num", 2},
    {"video_card", "virtio"},
    {"vram_size", 2048},
};
// The name has a number, and most records do not have Hyper-V's features.
static_assert(test::ListsExactlySettings(
    kSettings,
    [](const GuestSetting& setting) {
      const std::string_view name = setting.name;
      return setting.IsScalar() && name != "name" && name != "hyperv_enlighten";
    },
    {}, &Setting::name));

}  // namespace

std::string Id(unsigned kind, int number) {
  char text[40];
  std::snprintf(text, sizeof text, "%08x-2a7d-4c39-8e14-%012x", 0x0b6c1f5eU + kind, static_cast<unsigned>(number));
  return text;
}

Json::Value GuestRecord(int number) {
  Json::Value guest(Json::objectValue);
  guest["name"] = "guest-" + std::to_string(number);
  guest["host_id"] = kHost;
  guest["repository_id"] = kRepository;
  guest["state"] = "guest_shutdown";
  guest["is_general_vm"] = true;
  for (const auto& [name, value] : kSettings) {
    guest[name] = std::visit([](auto plain) { return Json::Value(plain); }, value);
  }
  for (int port = 0; port < 4; ++port) guest["usbs"].append("unmounted");
  for (int drive = 0; drive < 2; ++drive) guest["iso_images"].append("unmounted");
  return guest;
}

Json::Value DiskRecord(const std::string& guest_id, int number) {
  Json::Value disk(Json::objectValue);
  disk["driver"] = "qcow2";
  disk["format"] = 2;
  disk["guest_id"] = guest_id;
  disk["is_dummy"] = false;
  disk["is_meta_disk"] = false;
  disk["name"] = "vda";
  disk["path"] = "/var/lib/libvirt/images/guest-" + std::to_string(number) + ".qcow2";
  disk["repository_id"] = kRepository;
  disk["size"] = 20480;
  disk["type"] = 2;
  disk["unmap"] = true;
  disk["vdisk_mode"] = 1;
  return disk;
}

Json::Value NicRecord(const std::string& guest_id) {
  Json::Value nic(Json::objectValue);
  nic["guest_id"] = guest_id;
  nic["mac_address"] = "52:54:00:6b:3c:58";
  nic["network_group_id"] = kNetwork;
  nic["network_name"] = "default";
  nic["prefer_connect_ip"] = "";
  nic["prefer_sriov"] = false;
  nic["vnic_type"] = 1;
  return nic;
}

store::Operation Put(std::string_view category, const std::string& id, const Json::Value& record) {
  return {store::MakeKey({"dash", category, id, "object"}), VexaVirtualization::json::ToText(record)};
}

}  // namespace vexa::bench
