// CD-ROM drives. The base's drives stay in their order and get their current media.
#include <algorithm>

#include "host/domain_xml/domain_overlay.h"
#include "json/readers.h"

namespace vexa::domain_xml::overlay {
namespace {

// The builder's drive for one entry of "iso_images".
Status Build(const Overlay& overlay, const Json::Value& entry, pugi::xml_document& scratch) {
  GuestRecords one;
  one.id = overlay.records.id;
  one.guest = Json::Value(Json::objectValue);
  one.guest["iso_images"].append(entry);
  build::Context context{one, overlay.options};
  context.devices = scratch.append_child("devices");
  return build::WriteDisks(context);
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

Status Change(const Overlay& overlay, pugi::xml_node drive, const Json::Value& base_image, const Json::Value& image) {
  if (SameValue(base_image, image)) return {};
  pugi::xml_document scratch;
  if (Status built = Build(overlay, image, scratch); !built) return built;
  const std::string path = scratch.child("devices").child("disk").child("source").attribute("file").value();
  // The entries can differ although the file is the same: one is an image's id, the other its path.
  const bool is_empty = !base_image.isString() || base_image == "unmounted";
  const std::string old = is_empty ? "" : json::String(base_image);
  if (path != old) ChangeMedium(drive, path);
  return {};
}

Result<pugi::xml_node> AddDrive(Overlay& overlay, const Json::Value& entry) {
  pugi::xml_document scratch;
  if (Status built = Build(overlay, entry, scratch); !built) return built.error();
  pugi::xml_node drive = scratch.child("devices").child("disk");
  const build::Bus* bus = &build::BusOf(HasIde(overlay) ? build::kIde : build::kSata);
  Result<std::string> target = AssignTarget(overlay, *bus, "", pugi::xml_node());
  if (!target) {
    bus = &build::BusOf(build::kSata);
    target = AssignTarget(overlay, *bus, "", pugi::xml_node());
  }
  if (!target) return target.error();
  Put(drive.child("target"), "dev", *target);
  Put(drive.child("target"), "bus", bus->name);
  drive.remove_child("boot");
  return Insert(overlay.devices, drive);
}

}  // namespace

Status ApplyDrives(Overlay& overlay) {
  const Json::Value& base_images = json::Member(overlay.base.guest, "iso_images");
  const Result<Json::Value> images = build::IsoImagesOf(overlay.guest());
  if (!images) return images.error();
  std::vector<pugi::xml_node> existing;
  for (const pugi::xml_node disk : overlay.devices.children("disk")) {
    if (HasAttributeValue(disk, "device", "cdrom")) existing.push_back(disk);
  }

  for (Json::ArrayIndex i = 0; i < existing.size(); ++i) {
    if (i >= images->size()) {
      overlay.devices.remove_child(existing[i]);
      continue;
    }
    const Status changed = Change(overlay, existing[i], json::Element(base_images, i), json::Element(*images, i));
    if (!changed) return changed;
    overlay.drives.push_back(existing[i]);
  }
  for (auto i = static_cast<Json::ArrayIndex>(existing.size()); i < images->size(); ++i) {
    const Result<pugi::xml_node> added = AddDrive(overlay, json::Element(*images, i));
    if (!added) return added.error();
    overlay.drives.push_back(*added);
  }
  return {};
}

}  // namespace vexa::domain_xml::overlay
