// CD-ROM drives: those of the base, in their order, with their current media.
#include <algorithm>

#include "host/domain_xml/domain_overlay.h"
#include "host/domain_xml/domain_xml_internal.h"
#include "json/readers.h"

namespace vexa::hypervisor::domain_overlay {
namespace {

// The builder's drive for one entry of "iso_images".
Status Build(const Overlay& overlay, const Json::Value& entry, pugi::xml_document& scratch) {
  GuestRecords one;
  one.id = overlay.records.id;
  one.guest = Json::Value(Json::objectValue);
  one.guest["iso_images"].append(entry);
  domain_build::Context context{one, overlay.options};
  context.devices = scratch.append_child("devices");
  return domain_build::WriteDisks(context);
}

// Puts another medium into the same drive, or removes it.
void ChangeMedium(pugi::xml_node drive, const std::string& path) {
  const std::string policy = drive.child("source").attribute("startupPolicy").value();
  drive.remove_child("backingStore");
  Put(drive, "type", "file");
  if (path.empty()) {
    drive.remove_child("source");
    return;
  }
  if (drive.child("driver").attribute("type")) Put(drive.child("driver"), "type", "raw");
  pugi::xml_node source = drive.child("source");
  source = source ? drive.insert_child_before("source", source) : drive.append_child("source");
  Put(source, "file", path);
  if (!policy.empty()) Put(source, "startupPolicy", policy);
  if (const pugi::xml_node old = source.next_sibling("source"); old) drive.remove_child(old);
}

Status Change(const Overlay& overlay, pugi::xml_node drive, const Json::Value& before, const Json::Value& now) {
  if (SameValue(before, now)) return {};
  pugi::xml_document scratch;
  if (Status built = Build(overlay, now, scratch); !built) return built;
  const std::string path = scratch.child("devices").child("disk").child("source").attribute("file").value();
  // An image of the library may be the file that the base names.
  const bool is_empty = !before.isString() || before == "unmounted";
  const std::string old = is_empty ? "" : json::String(before);
  if (path != old) ChangeMedium(drive, path);
  return {};
}

Result<pugi::xml_node> AddDrive(Overlay& overlay, const Json::Value& entry) {
  pugi::xml_document scratch;
  if (Status built = Build(overlay, entry, scratch); !built) return built.error();
  pugi::xml_node drive = scratch.child("devices").child("disk");
  const domain_build::Bus* bus = &domain_build::BusOf(HasIde(overlay) ? domain_build::kIde : domain_build::kSata);
  Result<std::string> target = TakeTarget(overlay, *bus, "", pugi::xml_node());
  if (!target) {
    bus = &domain_build::BusOf(domain_build::kSata);
    target = TakeTarget(overlay, *bus, "", pugi::xml_node());
  }
  if (!target) return target.error();
  Put(drive.child("target"), "dev", *target);
  Put(drive.child("target"), "bus", bus->name);
  drive.remove_child("boot");
  return Insert(overlay.devices, drive);
}

}  // namespace

Status ApplyDrives(Overlay& overlay) {
  const Json::Value& before = json::Member(overlay.before.guest, "iso_images");
  const Json::Value& images = json::Member(overlay.guest(), "iso_images");
  if (!images.isNull() && (!images.isArray() || images.size() > domain_build::kMaxIsoImages)) {
    return domain_xml::Refused("The member 'iso_images' of the guest is not a list of at most two images");
  }
  std::vector<pugi::xml_node> existing;
  for (const pugi::xml_node disk : overlay.devices.children("disk")) {
    if (Says(disk, "device", "cdrom")) existing.push_back(disk);
  }
  const Json::Value& now = json::Elements(images);
  for (Json::ArrayIndex i = 0; i < existing.size(); ++i) {
    if (i >= now.size()) {
      overlay.devices.remove_child(existing[i]);
      continue;
    }
    const Status changed = Change(overlay, existing[i], json::Element(before, i), json::Element(now, i));
    if (!changed) return changed;
    overlay.drives.push_back(existing[i]);
  }
  for (auto i = static_cast<Json::ArrayIndex>(existing.size()); i < now.size(); ++i) {
    const Result<pugi::xml_node> added = AddDrive(overlay, json::Element(now, i));
    if (!added) return added.error();
    overlay.drives.push_back(*added);
  }
  return {};
}

}  // namespace vexa::hypervisor::domain_overlay
