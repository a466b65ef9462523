#include "host/domain_xml/domain_differences.h"

#include <algorithm>
#include <optional>
#include <set>
#include <utility>

#include "host/base/guest_settings.h"
#include "host/base/uuid.h"
#include "host/domain_xml/domain_build_internal.h"
#include "host/domain_xml/domain_parse_internal.h"
#include "json/readers.h"

namespace vexa::domain_xml {
namespace {

namespace json = VexaVirtualization::json;

constexpr char kEmptyDrive[] = "unmounted";

struct MachineDisk {
  std::string path;
  Json::Value value;  // what is compared
  std::uint64_t boot_order = 0;
};

struct MachineNic {
  std::string mac;
  Json::Value value;
};

// A definition, as far as records cover it.
struct Machine {
  Json::Value settings{Json::objectValue};
  std::vector<MachineDisk> disks;
  std::vector<MachineNic> nics;
  Json::Value drives{Json::arrayValue};
  Json::Value usbs{Json::arrayValue};
};

// The settings that the comparison covers, in the order in which they are listed.
constexpr const char* kSettings[] = {"vcpu_num",     "vram_size", "cpu_weight", "cpu_pin_num",
                                     "cpu_passthru", "boot_from", "use_ovmf",   "hyperv_enlighten",
                                     "video_card",   "kb_layout", "usb_version"};

std::string Attribute(pugi::xml_node element, const char* name) { return element.attribute(name).value(); }

// Without KVM, the builder writes "maximum" for a processor that is passed through.
bool IsPassedThrough(pugi::xml_node cpu) {
  const std::string mode = Attribute(cpu, "mode");
  return mode == "host-passthrough" || mode == "maximum";
}

// Of a bus without a row, the name.
Json::Value ModeOf(const std::string& bus) {
  for (const int mode : {1, build::kIde, build::kSata, build::kScsi}) {
    if (bus == build::BusOf(mode).name) return mode;
  }
  return bus;
}

void ReadDisk(pugi::xml_node disk, Machine& machine) {
  const bool is_block = Attribute(disk, "type") == "block";
  const std::string device = disk.attribute("device").as_string("disk");
  const std::string path = Attribute(disk.child("source"), is_block ? "dev" : "file");
  if (device == "cdrom") {
    machine.drives.append(path.empty() ? kEmptyDrive : path);
    return;
  }
  if (device != "disk" && device != "lun") return;
  MachineDisk found{path, Json::Value(Json::objectValue), 0};
  found.value["path"] = path;
  found.value["vdisk_mode"] = ModeOf(Attribute(disk.child("target"), "bus"));
  found.value["unmap"] = Attribute(disk.child("driver"), "discard") == "unmap";
  found.boot_order = parse::ParseUnsigned(Attribute(disk.child("boot"), "order")).value_or(0);
  machine.disks.push_back(std::move(found));
}

// The records have one type for models that differ in their version only.
Json::Value NicTypeOf(const std::string& model) {
  if (model.starts_with("virtio")) return 1;
  if (model.starts_with("e1000")) return 2;
  if (model == "rtl8139") return 3;
  return model;
}

void ReadNic(pugi::xml_node nic, Machine& machine) {
  MachineNic found{parse::NormalizeMac(Attribute(nic.child("mac"), "address")), Json::Value(Json::objectValue)};
  if (found.mac.empty()) return;
  found.value["mac"] = found.mac;
  if (const std::string function = parse::VirtualFunctionOf(nic); !function.empty()) {
    found.value["virtual_function"] = function;
    machine.nics.push_back(std::move(found));
    return;
  }
  const pugi::xml_node source = nic.child("source");
  // A running interface in a network that leads to a bridge has both.
  const std::string network = Attribute(source, "network");
  found.value["network"] = network.empty() ? Attribute(source, "bridge") : network;
  found.value["vnic_type"] = NicTypeOf(Attribute(nic.child("model"), "type"));
  machine.nics.push_back(std::move(found));
}

void ReadUsbDevices(const Json::Value& usbs, Machine& machine) {
  std::vector<std::string> names;
  for (const Json::Value& usb : json::Elements(usbs)) {
    if (const std::string name = json::String(usb); name != kEmptyDrive) names.push_back(name);
  }
  std::ranges::sort(names);
  for (std::string& name : names) machine.usbs.append(std::move(name));
}

Result<Machine> ReadMachine(std::string_view xml) {
  pugi::xml_document document;
  if (Status loaded = parse::Load(xml, document); !loaded) return loaded.error();
  const pugi::xml_node domain = document.document_element();
  const pugi::xml_node devices = domain.child("devices");
  const ImportOptions options;
  ImportedGuest imported;
  imported.guest = Json::Value(Json::objectValue);
  parse::Context context{options, imported};
  for (const auto read : {parse::ReadProcessor, parse::ReadMemory, parse::ReadFirmware, parse::ReadBootOrder}) {
    if (Status part = read(domain, context); !part) return part.error();
  }
  for (const auto read : {parse::ReadVideo, parse::ReadUsb}) {
    if (Status part = read(devices, context); !part) return part.error();
  }
  Machine machine;
  for (const char* name : kSettings) {
    if (const Json::Value* const value = json::FindMember(imported.guest, name)) machine.settings[name] = *value;
  }
  if (const auto current = parse::ParseUnsigned(Attribute(domain.child("vcpu"), "current"))) {
    machine.settings["vcpu_num"] = static_cast<Json::Int>(*current);
  }
  machine.settings["cpu_passthru"] = IsPassedThrough(domain.child("cpu"));
  machine.settings["hyperv_enlighten"] = json::Bool(json::Member(imported.guest, "hyperv_enlighten"));
  for (const pugi::xml_node disk : devices.children("disk")) ReadDisk(disk, machine);
  for (const pugi::xml_node nic : devices.children("interface")) ReadNic(nic, machine);
  ReadUsbDevices(json::Member(imported.guest, "usbs"), machine);
  return machine;
}

// A file that this system has created is named by its disk's id.
std::string IdInPath(const std::string& path) {
  const std::string name = path.substr(path.rfind('/') + 1);
  const std::string stem = name.substr(0, name.find('.'));
  return NormalizeUuid(stem).empty() ? name : stem;
}

std::string DiskIdOf(const std::string& path, const GuestRecords& records) {
  for (const auto& [id, disk] : records.disks) {
    if (json::StringMember(disk, "path") == path) return id;
  }
  return IdInPath(path);
}

std::string NicIdOf(const std::string& mac, const GuestRecords& records) {
  for (const auto& [id, nic] : records.nics) {
    if (parse::NormalizeMac(json::StringMember(nic, "mac_address")) == mac) return id;
  }
  return mac;
}

void CompareSettings(const Machine& running, const Machine& recorded, std::vector<Difference>& found) {
  for (const char* name : kSettings) {
    const Json::Value& now = json::Member(running.settings, name);
    const Json::Value& next = json::Member(recorded.settings, name);
    if (now != next) found.push_back({name, "", now, next});
  }
}

const MachineDisk* FindDisk(const std::vector<MachineDisk>& disks, const std::string& path) {
  const auto disk = std::ranges::find(disks, path, &MachineDisk::path);
  return disk == disks.end() ? nullptr : &*disk;
}

void CompareSize(const MachineDisk& disk, const GuestRecords& records, const DiskSizes& sizes,
                 std::vector<Difference>& found) {
  const auto size = sizes.find(disk.path);
  if (size == sizes.end()) return;
  for (const auto& [id, record] : records.disks) {
    const std::uint64_t recorded_mib = json::UInt64(json::Member(record, "size"));
    if (json::StringMember(record, "path") != disk.path || recorded_mib == size->second) continue;
    Difference difference{"vdisks", id, Json::Value(Json::objectValue), Json::Value(Json::objectValue)};
    difference.running["path"] = difference.recorded["path"] = disk.path;
    // Of the type that a reader of the text gets.
    difference.running["size"] = static_cast<Json::Int64>(size->second);
    difference.recorded["size"] = static_cast<Json::Int64>(recorded_mib);
    found.push_back(std::move(difference));
  }
}

void CompareDisks(const Machine& running, const Machine& recorded, const GuestRecords& records, const DiskSizes& sizes,
                  std::vector<Difference>& found) {
  // First, because a new disk may have the target name of one that goes.
  for (const MachineDisk& disk : running.disks) {
    if (!FindDisk(recorded.disks, disk.path))
      found.push_back({"vdisks", DiskIdOf(disk.path, records), disk.value, Json::Value()});
  }
  for (const MachineDisk& disk : recorded.disks) {
    const MachineDisk* const now = FindDisk(running.disks, disk.path);
    const std::string id = DiskIdOf(disk.path, records);
    if (!now || now->value != disk.value) {
      found.push_back({"vdisks", id, now ? now->value : Json::Value(), disk.value});
    }
    if (now) CompareSize(*now, records, sizes, found);
  }
}

// The ids of the disks that `machine` boots from, in this order. Disks without an order in `other` are left out: they
// were added to a running guest.
Json::Value BootOrder(const Machine& machine, const Machine& other, const GuestRecords& records) {
  std::vector<const MachineDisk*> disks;
  for (const MachineDisk& disk : machine.disks) {
    const MachineDisk* const same = FindDisk(other.disks, disk.path);
    if (disk.boot_order != 0 && same && same->boot_order != 0) disks.push_back(&disk);
  }
  std::ranges::stable_sort(disks, {}, &MachineDisk::boot_order);
  Json::Value ids(Json::arrayValue);
  for (const MachineDisk* disk : disks) ids.append(DiskIdOf(disk->path, records));
  return ids;
}

void CompareNics(const Machine& running, const Machine& recorded, const GuestRecords& records,
                 std::vector<Difference>& found) {
  const auto find = [](const Machine& machine, const std::string& mac) {
    const auto nic = std::ranges::find(machine.nics, mac, &MachineNic::mac);
    return nic == machine.nics.end() ? nullptr : &*nic;
  };
  for (const MachineNic& nic : recorded.nics) {
    const MachineNic* const now = find(running, nic.mac);
    if (!now || now->value != nic.value) {
      found.push_back({"vnics", NicIdOf(nic.mac, records), now ? now->value : Json::Value(), nic.value});
    }
  }
  for (const MachineNic& nic : running.nics) {
    if (!find(recorded, nic.mac)) found.push_back({"vnics", NicIdOf(nic.mac, records), nic.value, Json::Value()});
  }
}

}  // namespace

Result<std::vector<Difference>> FindDifferences(std::string_view running_xml, std::string_view recorded_xml,
                                                const GuestRecords& records, const RunningFacts& facts) {
  Result<Machine> running = ReadMachine(running_xml);
  if (!running) return running.error();
  const Result<Machine> recorded = ReadMachine(recorded_xml);
  if (!recorded) return recorded.error();
  if (facts.pinned_vcpus) running->settings["cpu_pin_num"] = static_cast<Json::Int>(*facts.pinned_vcpus);
  std::vector<Difference> found;
  CompareSettings(*running, *recorded, found);
  CompareDisks(*running, *recorded, records, facts.sizes, found);
  const Json::Value order_now = BootOrder(*running, *recorded, records);
  const Json::Value order_next = BootOrder(*recorded, *running, records);
  if (order_now != order_next) found.push_back({"vdisks_order", "", order_now, order_next});
  CompareNics(*running, *recorded, records, found);
  if (running->drives != recorded->drives) found.push_back({"iso_images", "", running->drives, recorded->drives});
  if (running->usbs != recorded->usbs) found.push_back({"usbs", "", running->usbs, recorded->usbs});
  return found;
}

Json::Value ToJson(const std::vector<Difference>& differences) {
  Json::Value list(Json::arrayValue);
  for (const Difference& difference : differences) {
    Json::Value& element = list.append(Json::Value(Json::objectValue));
    element["property"] = difference.property;
    if (!difference.id.empty()) element["id"] = difference.id;
    element["running"] = difference.running;
    element["recorded"] = difference.recorded;
  }
  return list;
}

std::vector<Difference> DifferencesFromJson(const Json::Value& list) {
  std::vector<Difference> differences;
  for (const Json::Value& element : json::Elements(list)) {
    if (!json::Member(element, "property").isString()) continue;
    differences.push_back({json::StringMember(element, "property"), json::StringMember(element, "id"),
                           json::Member(element, "running"), json::Member(element, "recorded")});
  }
  return differences;
}

}  // namespace vexa::domain_xml
