// Firmware, features and what the guest boots from.
#include <algorithm>
#include <vector>

#include "host/hypervisor/domain_xml_internal.h"

namespace vexa::hypervisor::domain_xml {
namespace {

struct BootDevice {
  std::uint64_t order = 0;
  std::string kind;  // "hd", "cdrom", "network" or what else the XML says
};

std::string KindOf(pugi::xml_node device) {
  const std::string_view element = device.name();
  if (element == "interface") return "network";
  if (element != "disk") return std::string(element);
  const std::string_view type = device.attribute("device").value();
  if (type.empty() || type == "disk" || type == "lun") return "hd";
  return std::string(type);
}

// The devices that say <boot order='…'>, in their order; those of equal order as in the XML.
Result<std::vector<BootDevice>> OrderedDevices(pugi::xml_node devices) {
  std::vector<BootDevice> found;
  for (const pugi::xml_node device : devices.children()) {
    const pugi::xml_node boot = device.child("boot");
    if (!boot) continue;
    const std::string_view text = boot.attribute("order").value();
    const auto order = ParseUnsigned(text);
    if (!order || *order == 0) {
      return Refused("<boot> of the device " + Quote(device.name()) + " has the order " + Quote(text) +
                     ": an order is a number from 1");
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

}  // namespace

Status ReadFirmware(pugi::xml_node domain, Context& context) {
  const pugi::xml_node os = domain.child("os");
  const std::string type = TextOf(os.child("type"));
  if (Trim(type) == "exe") {
    return Refused("<type> of <os> says 'exe': that is a container; only virtual machines can be imported");
  }
  if (!type.empty() && Trim(type) != "hvm") {
    context.Note("The guest is of the type " + Quote(type) + ": it was recorded as a fully virtualized one.");
  }
  const std::string_view architecture = os.child("type").attribute("arch").value();
  if (!architecture.empty() && architecture != "x86_64") {
    context.Note("The architecture " + Quote(architecture) + " was left out: guests here are x86_64.");
  }
  context.guest()["use_ovmf"] = std::string_view(os.attribute("firmware").value()) == "efi" ||
                                std::string_view(os.child("loader").attribute("type").value()) == "pflash";
  for (const char* name : {"kernel", "initrd", "cmdline", "dtb", "bootmenu"}) {
    if (os.child(name)) context.Note("The element <" + std::string(name) + "> of <os> was left out.");
  }
  const pugi::xml_node hyperv = domain.child("features").child("hyperv");
  if (hyperv) context.guest()["hyperv_enlighten"] = HasEnlightenments(hyperv);
  return {};
}

Status ReadBootOrder(pugi::xml_node domain, Context& context) {
  Result<std::vector<BootDevice>> ordered = OrderedDevices(domain.child("devices"));
  if (!ordered) return ordered.error();
  if (ordered->empty()) {
    // libvirt allows only one of the two ways to say it.
    for (const pugi::xml_node boot : domain.child("os").children("boot")) {
      ordered->push_back({0, boot.attribute("dev").value()});
    }
  }
  context.guest()["boot_from"] = "disk";
  for (const BootDevice& device : *ordered) {
    if (device.kind == "cdrom") context.guest()["boot_from"] = "iso";
    if (device.kind == "cdrom" || device.kind == "hd") break;
    context.Note("Booting from " + Quote(device.kind) + " was left out: a guest boots from a disk or an ISO image.");
  }
  return {};
}

}  // namespace vexa::hypervisor::domain_xml
