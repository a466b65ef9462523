#include "host/domain_xml/domain_devices.h"

#include <fmt/format.h>

#include <functional>
#include <sstream>

#include "host/domain_xml/domain_parse_internal.h"

namespace vexa::domain_xml {
namespace {

std::string Attribute(pugi::xml_node element, const char* name) { return element.attribute(name).value(); }

std::string SourceOf(pugi::xml_node disk) {
  const bool is_block = Attribute(disk, "type") == "block";
  return Attribute(disk.child("source"), is_block ? "dev" : "file");
}

bool IsDrive(pugi::xml_node disk) { return Attribute(disk, "device") == "cdrom"; }

std::string Print(pugi::xml_node element) {
  for (const char* name : {"address", "alias", "boot", "backingStore"}) element.remove_child(name);
  // What libvirt has chosen for an interface of the running machine.
  if (std::string_view(element.name()) == "interface") element.remove_child("target");
  std::ostringstream text;
  element.print(text, "", pugi::format_raw);
  return text.str();
}

std::string Find(std::string_view xml, const char* name, const std::function<bool(pugi::xml_node)>& is_wanted) {
  pugi::xml_document document;
  if (!parse::Load(xml, document)) return "";
  for (const pugi::xml_node device : document.document_element().child("devices").children(name)) {
    if (is_wanted(device)) return Print(device);
  }
  return "";
}

std::string UsbNameOf(pugi::xml_node source) {
  const auto vendor = parse::ParseHex16(Attribute(source.child("vendor"), "id"));
  const auto product = parse::ParseHex16(Attribute(source.child("product"), "id"));
  if (vendor && product) return fmt::format("{:04x}:{:04x}", *vendor, *product);
  const pugi::xml_node address = source.child("address");
  return Attribute(address, "bus") + "." + Attribute(address, "device");
}

}  // namespace

std::string DiskElement(std::string_view xml, const std::string& path) {
  return Find(xml, "disk", [&](pugi::xml_node disk) { return !IsDrive(disk) && SourceOf(disk) == path; });
}

std::string NicElement(std::string_view xml, const std::string& mac) {
  return Find(xml, "interface",
              [&](pugi::xml_node nic) { return parse::NormalizeMac(Attribute(nic.child("mac"), "address")) == mac; });
}

std::string UsbElement(std::string_view xml, const std::string& device) {
  return Find(xml, "hostdev", [&](pugi::xml_node found) {
    return Attribute(found, "type") == "usb" && UsbNameOf(found.child("source")) == device;
  });
}

std::string DriveElement(std::string_view xml, std::size_t index, const std::string& path) {
  std::size_t drive = 0;
  return Find(xml, "disk", [&](pugi::xml_node disk) {
    if (!IsDrive(disk) || drive++ != index) return false;
    disk.attribute("type").set_value("file");
    disk.remove_child("source");
    if (!path.empty()) disk.append_child("source").append_attribute("file").set_value(path.c_str());
    return true;
  });
}

std::map<std::string, std::string> VirtualFunctionsIn(std::string_view xml) {
  std::map<std::string, std::string> functions;
  pugi::xml_document document;
  if (!parse::Load(xml, document)) return functions;
  for (const pugi::xml_node nic : document.document_element().child("devices").children("interface")) {
    const std::string function = parse::VirtualFunctionOf(nic);
    if (!function.empty()) functions[parse::NormalizeMac(Attribute(nic.child("mac"), "address"))] = function;
  }
  return functions;
}

std::string MemoryElement(std::uint64_t size_mib) {
  return fmt::format("<memory model='dimm'><target><size unit='MiB'>{}</size><node>0</node></target></memory>",
                     size_mib);
}

Result<MachineLimits> ParseMachineLimits(std::string_view xml) {
  pugi::xml_document document;
  if (Status loaded = parse::Load(xml, document); !loaded) return loaded.error();
  const pugi::xml_node domain = document.document_element();
  MachineLimits limits;
  limits.max_vcpus = parse::ParseUnsigned(parse::TextOf(domain.child("vcpu"))).value_or(1);
  if (const pugi::xml_node maximum = domain.child("maxMemory")) {
    constexpr std::uint64_t kMib = std::uint64_t{1} << 20;
    limits.max_memory_mib = parse::MemoryBytes(maximum).value_or(0) / kMib;
  }
  const pugi::xml_node devices = domain.child("devices");
  for (const pugi::xml_node disk : devices.children("disk")) limits.drives += IsDrive(disk) ? 1 : 0;
  for (const pugi::xml_node controller : devices.children("controller")) {
    const std::string type = Attribute(controller, "type");
    if (type == "scsi") limits.has_scsi = true;
    const std::string model = Attribute(controller, "model");
    limits.has_pci_slots |= model == "pci-root" || model == "pci-bridge" || model == "pcie-to-pci-bridge";
    if (type == "usb" && model != "none") limits.has_usb = true;
  }
  return limits;
}

}  // namespace vexa::domain_xml
