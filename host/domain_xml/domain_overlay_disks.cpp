// Disks. An element belongs to the record whose id matches its target.
#include <algorithm>
#include <map>

#include "host/domain_xml/domain_overlay.h"
#include "json/readers.h"

namespace vexa::domain_xml::overlay {
namespace {

// Parts of a disk that apply only to its old bus.
constexpr const char* kBusSpecificDriverAttributes[] = {"iothread", "queues", "queue_size",  "event_idx", "ioeventfd",
                                                        "iommu",    "ats",    "page_per_vq", "packed"};
constexpr const char* kBusSpecificTargetAttributes[] = {"rotation_rate", "removable"};
constexpr const char* kBusSpecificElements[] = {"address", "wwn", "vendor", "product"};
constexpr const char* kBusSpecificDiskAttributes[] = {"model", "sgio", "rawio"};

// A disk of the base.
struct DiskSlot {
  pugi::xml_node element;
  const Json::Value* base_record = nullptr;  // the record parsed from the element
};

bool IsHardDisk(pugi::xml_node disk) {
  const std::string_view device = disk.attribute("device").as_string("disk");
  return device == "disk" || device == "lun";
}

// By the disk's id. The base's records are in the order of its elements.
std::map<std::string, DiskSlot> DiskSlotsOf(const Overlay& overlay) {
  std::map<std::string, DiskSlot> slots;
  auto base_disk = overlay.base.disks.begin();
  for (const pugi::xml_node disk : overlay.devices.children("disk")) {
    if (!IsHardDisk(disk) || base_disk == overlay.base.disks.end()) continue;
    slots.emplace(base_disk->first, DiskSlot{disk, &base_disk->second});
    ++base_disk;
  }
  return slots;
}

// The builder's <disk> for a record with the target name `target`, and the controllers that it needs.
Status Build(const Overlay& overlay, const std::string& id, const Json::Value& record, const std::string& target,
             pugi::xml_document& scratch) {
  GuestRecords one;
  one.id = overlay.records.id;
  one.guest = Json::Value(Json::objectValue);
  one.disks.emplace_back(id, record);
  if (one.disks[0].second.isObject()) one.disks[0].second["name"] = target;
  build::Context context{one, overlay.options};
  context.devices = scratch.append_child("devices");
  return build::WriteDisks(context);
}

void AddControllers(Overlay& overlay, pugi::xml_node built) {
  for (const pugi::xml_node controller : built.children("controller")) {
    const auto existing = overlay.devices.children("controller");
    const bool exists = std::any_of(existing.begin(), existing.end(), [&](pugi::xml_node other) {
      return HasAttributeValue(other, "type", "scsi") &&
             std::string_view(other.attribute("index").as_string("0")) == controller.attribute("index").value();
    });
    if (!exists) Insert(overlay.devices, controller);
  }
}

bool Differs(const DiskSlot& slot, const Json::Value& record, const char* member) {
  return !SameValue(json::Member(*slot.base_record, member), json::Member(record, member));
}

bool FormatDiffers(const DiskSlot& slot, const std::string& format) {
  return json::Member(*slot.base_record, "driver") != Json::Value(format);
}

// Puts another image behind the same disk.
void ChangeSource(pugi::xml_node disk, pugi::xml_node built) {
  const bool same_type = HasAttributeValue(built, "type", disk.attribute("type").as_string("file"));
  pugi::xml_node source = ChildOf(disk, "source");
  if (!same_type) source = Replace(disk, source, built.child("source"));
  const pugi::xml_attribute path = built.child("source").first_attribute();
  Put(source, path.name(), path.value());
  Put(disk, "type", built.attribute("type").value());
  // What libvirt added about the old image.
  disk.remove_child("backingStore");
  source.remove_attribute("index");
  source.remove_child("slices");
}

void ChangeDriver(pugi::xml_node disk, pugi::xml_node built) {
  const bool is_new = !disk.child("driver");
  pugi::xml_node driver = ChildOf(disk, "driver");
  if (is_new) Put(driver, "name", "qemu");
  Put(driver, "type", built.child("driver").attribute("type").value());
}

void ChangeDiscard(pugi::xml_node disk, bool unmap) {
  pugi::xml_node driver = ChildOf(disk, "driver");
  if (unmap) {
    Put(driver, "discard", "unmap");
  } else {
    driver.remove_attribute("discard");
  }
}

void ChangeBus(pugi::xml_node disk, const build::Bus& bus) {
  RemoveAttributes(disk.child("driver"), kBusSpecificDriverAttributes);
  RemoveAttributes(disk.child("target"), kBusSpecificTargetAttributes);
  RemoveAttributes(disk, kBusSpecificDiskAttributes);
  RemoveChildren(disk, kBusSpecificElements);
  if (HasAttributeValue(disk, "device", "lun") && bus.mode != build::kScsi) Put(disk, "device", "disk");
  Put(ChildOf(disk, "target"), "bus", bus.name);
}

Status Change(Overlay& overlay, const std::string& id, const Json::Value& record, const DiskSlot& slot) {
  const Result<std::string> format = build::FormatOf(record);
  const Result<std::int64_t> mode = build::ModeOf(record);
  const Result<std::string> name = build::StringOf(record, "name", "");
  if (!format) return format.error();
  if (!mode) return mode.error();
  if (!name) return name.error();
  const bool path_differs = Differs(slot, record, "path");
  const bool bus_differs = json::Int64(json::Member(*slot.base_record, "vdisk_mode")) != *mode;
  const bool unmap = build::FlagOf(record, "unmap");
  const bool unmap_differs = build::FlagOf(*slot.base_record, "unmap") != unmap;
  const build::Bus& bus = build::BusOf(static_cast<int>(*mode));
  pugi::xml_node disk = slot.element;

  std::string target = disk.child("target").attribute("dev").value();
  if (bus_differs) {
    const Result<std::string> assigned = AssignTarget(overlay, bus, *name, disk);
    if (!assigned) return assigned.error();
    target = *assigned;
  }
  if (!path_differs && !bus_differs && !unmap_differs && !FormatDiffers(slot, *format)) return {};
  pugi::xml_document scratch;
  if (Status built = Build(overlay, id, record, target, scratch); !built) return built;
  const pugi::xml_node built = scratch.child("devices").child("disk");
  if (path_differs) ChangeSource(disk, built);
  if (FormatDiffers(slot, *format)) ChangeDriver(disk, built);
  if (unmap_differs) ChangeDiscard(disk, unmap);
  if (bus_differs) {
    ChangeBus(disk, bus);
    Put(disk.child("target"), "dev", target);
    AddControllers(overlay, scratch.child("devices"));
  }
  return {};
}

Result<pugi::xml_node> AddDisk(Overlay& overlay, const std::string& id, const Json::Value& record) {
  const Result<std::int64_t> mode = build::ModeOf(record);
  const Result<std::string> name = build::StringOf(record, "name", "");
  if (!mode) return mode.error();
  if (!name) return name.error();
  const Result<std::string> target =
      AssignTarget(overlay, build::BusOf(static_cast<int>(*mode)), *name, pugi::xml_node());
  if (!target) return target.error();
  pugi::xml_document scratch;
  if (Status built = Build(overlay, id, record, *target, scratch); !built) return built.error();
  pugi::xml_node disk = Insert(overlay.devices, scratch.child("devices").child("disk"));
  disk.remove_child("boot");  // ApplyBootOrder writes the boot order of all devices later
  AddControllers(overlay, scratch.child("devices"));
  return disk;
}

}  // namespace

Status ApplyDisks(Overlay& overlay) {
  const auto& records = overlay.records.disks;
  if (records.size() > kMaxDisks) return parse::TooManyDisks();
  std::map<std::string, DiskSlot> slots = DiskSlotsOf(overlay);
  // Disks are removed first, so that other disks can take their positions.
  for (const auto& [id, slot] : slots) {
    const bool stays =
        std::any_of(records.begin(), records.end(),
                    [&, wanted = std::string_view(id)](const auto& disk) { return disk.first == wanted; });
    if (!stays) overlay.devices.remove_child(slot.element);
  }
  for (const auto& [id, record] : records) {
    const auto slot = slots.find(id);
    if (slot == slots.end()) continue;
    if (Status changed = Change(overlay, id, record, slot->second); !changed) return changed;
  }
  for (const auto& [id, record] : records) {
    const auto slot = slots.find(id);
    if (slot != slots.end()) {
      overlay.disks.push_back(slot->second.element);
      continue;
    }
    const Result<pugi::xml_node> added = AddDisk(overlay, id, record);
    if (!added) return added.error();
    overlay.disks.push_back(*added);
  }
  return {};
}

}  // namespace vexa::domain_xml::overlay
