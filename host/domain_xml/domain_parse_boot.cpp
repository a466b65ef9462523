// Firmware, features and boot order.
#include <algorithm>
#include <vector>

#include "host/domain_xml/domain_parse_internal.h"

namespace vexa::domain_xml::parse {
namespace {

struct BootDevice {
  std::uint64_t order = 0;
  std::string kind;  // "hd", "cdrom", "network" or another value from the XML
};

std::string KindOf(pugi::xml_node device) {
  const std::string_view element = device.name();
  if (element == "interface") return "network";
  if (element != "disk") return std::string(element);
  const std::string_view type = device.attribute("device").value();
  if (type.empty() || type == "disk" || type == "lun") return "hd";
  return std::string(type);
}

// The devices with <boot order='…'>, in that order; those with equal order as in the XML.
Result<std::vector<BootDevice>> OrderedDevices(pugi::xml_node devices) {
  std::vector<BootDevice> found;
  for (const pugi::xml_node device : devices.children()) {
    const pugi::xml_node boot = device.child("boot");
    if (!boot) continue;
    const std::string_view text = boot.attribute("order").value();
    const auto order = ParseUnsigned(text);
    if (!order || *order == 0) {
      return Invalid("<boot> of the device {} has the order {}: an order is a number from 1", Quote(device.name()),
                     Quote(text));
    }
    found.push_back({*order, KindOf(device)});
  }
  std::stable_sort(found.begin(), found.end(),
                   [](const BootDevice& left, const BootDevice& right) { return left.order < right.order; });
  return found;
}

bool HasEnlightenments(pugi::xml_node hyperv) {
  if (std::string_view(hyperv.attribute("mode").value()) == "passthrough") return true;
  return std::any_of(hyperv.begin(), hyperv.end(), [](pugi::xml_node feature) {
    return std::string_view(feature.attribute("state").value()) == "on";
  });
}

// The location of the guest's UEFI variables. Like its disks, the file belongs to the guest from now on.
void ReadNvram(pugi::xml_node nvram, Context& context) {
  if (!nvram) return;
  const std::string_view type = nvram.attribute("type").as_string("file");
  const std::string path = NvramPath(nvram);
  if (type != "file") {
    context.Note(
        "The UEFI variables have the type {}: they were not recorded, and are not managed with the guest's files.",
        Quote(type));
  } else if (!path.empty() && !IsPlainPath(path)) {
    context.Note("The UEFI variables are at {}, which is not an absolute path. They were not recorded.", Quote(path));
  } else if (!path.empty()) {
    context.guest()["nvram"] = path;
  }
}

}  // namespace

Status ReadFirmware(pugi::xml_node domain, Context& context) {
  const pugi::xml_node os = domain.child("os");
  const std::string type = TextOf(os.child("type"));
  if (Trim(type) == "exe") {
    return Invalid("<type> of <os> is 'exe', which is a container. Only virtual machines can be imported");
  }
  if (!type.empty() && Trim(type) != "hvm") {
    context.Note("The guest has the type {}: it was recorded as fully virtualized.", Quote(type));
  }
  const std::string_view architecture = os.child("type").attribute("arch").value();
  if (!architecture.empty() && architecture != "x86_64") {
    context.Note("The guest has the architecture {}: a host needs an emulator for it, and new guests are x86_64.",
                 Quote(architecture));
  }
  context.guest()["use_ovmf"] = std::string_view(os.attribute("firmware").value()) == "efi" ||
                                std::string_view(os.child("loader").attribute("type").value()) == "pflash";
  ReadNvram(os.child("nvram"), context);
  const pugi::xml_node hyperv = domain.child("features").child("hyperv");
  if (hyperv) context.guest()["hyperv_enlighten"] = HasEnlightenments(hyperv);
  return {};
}

Status ReadBootOrder(pugi::xml_node domain, Context& context) {
  Result<std::vector<BootDevice>> ordered = OrderedDevices(domain.child("devices"));
  if (!ordered) return ordered.error();
  if (ordered->empty()) {
    // libvirt allows only one of the two forms.
    for (const pugi::xml_node boot : domain.child("os").children("boot")) {
      ordered->push_back({0, boot.attribute("dev").value()});
    }
  }
  context.guest()["boot_from"] = "disk";
  for (const BootDevice& device : *ordered) {
    if (device.kind == "cdrom") context.guest()["boot_from"] = "iso";
    if (device.kind == "cdrom" || device.kind == "hd") break;
    context.Note(
        "The guest boots from {} first, which the records cannot express. This stays until its disks, drives or "
        "'boot_from' are edited.",
        Quote(device.kind));
  }
  return {};
}

}  // namespace vexa::domain_xml::parse
