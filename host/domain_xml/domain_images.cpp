#include "host/domain_xml/domain_images.h"

#include <utility>

#include "host/base/uuid.h"
#include "host/domain_xml/domain_build_internal.h"
#include "host/domain_xml/domain_overlay.h"

namespace vexa::domain_xml {
namespace {

using parse::Invalid;
using parse::Quote;

// CD-ROM and floppy drives keep their media.
bool IsDisk(pugi::xml_node disk) {
  const std::string_view device = disk.attribute("device").as_string("disk");
  return device != "cdrom" && device != "floppy";
}

std::string TargetOf(pugi::xml_node disk) { return disk.child("target").attribute("dev").value(); }

Status CheckCanBeCopied(pugi::xml_node disk, const std::string& name) {
  const std::string type = disk.attribute("type").as_string("file");
  const pugi::xml_node source = disk.child("source");
  if (type != "file") {
    return Invalid("The disk {} has the type {}. Only images in files can be copied: copy it into a file first",
                   Quote(name), Quote(type));
  }
  if (source.child("slices")) {
    return Invalid("The disk {} is a part of its image. Copy that part into a file first", Quote(name));
  }
  // libvirt writes <backingStore/> for an image that has none.
  const pugi::xml_node backing = disk.child("backingStore");
  if (backing.attribute("type") || backing.child("source")) {
    return Invalid(
        "The disk {} has a backing image. Merge both into one image with 'qemu-img convert', and remove "
        "<backingStore>",
        Quote(name));
  }
  if (source.child("dataStore")) {
    return Invalid(
        "The disk {} has its data in another file. Merge both into one image with 'qemu-img convert', and remove "
        "<dataStore>",
        Quote(name));
  }
  return {};
}

}  // namespace

Result<DomainImages> ParseDomainImages(std::string_view xml) {
  pugi::xml_document document;
  if (Status loaded = parse::Load(xml, document); !loaded) return loaded.error();
  const pugi::xml_node domain = document.document_element();
  DomainImages images;
  images.id = NormalizeUuid(std::string(parse::Trim(parse::TextOf(domain.child("uuid")))));
  for (const pugi::xml_node disk : domain.child("devices").children("disk")) {
    if (!IsDisk(disk)) continue;
    const std::string name = TargetOf(disk);
    if (Status checked = CheckCanBeCopied(disk, name); !checked) return checked.error();
    DiskImage image{disk.child("source").attribute("file").value(),
                    disk.child("driver").attribute("type").as_string("raw")};
    if (!images.disks.emplace(name, std::move(image)).second) {
      return Invalid("Two disks have the target {}. Give each a different one", Quote(name));
    }
    if (images.disks.size() > kMaxDisks) return parse::TooManyDisks();
  }
  return images;
}

Result<std::string> ReplaceDomainImages(std::string_view xml, const std::map<std::string, DiskImage>& disks) {
  pugi::xml_document document;
  if (Status loaded = parse::Load(xml, document); !loaded) return loaded.error();
  for (pugi::xml_node disk : document.document_element().child("devices").children("disk")) {
    const auto image = disks.find(TargetOf(disk));
    if (!IsDisk(disk) || image == disks.end()) continue;
    pugi::xml_node source = overlay::ChildOf(disk, "source");
    overlay::Put(source, "file", image->second.path);
    source.remove_attribute("index");
    disk.remove_child("backingStore");
    disk.remove_child("mirror");
    overlay::Put(overlay::ChildOf(disk, "driver"), "type", image->second.format);
  }
  return build::TextOf(document);
}

}  // namespace vexa::domain_xml
