// The elements of domain XML that change a running machine: taken from its definition, or from the one that it is to
// get. Pure. Threads: any, at the same time.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"

namespace vexa::domain_xml {

// What a running machine has room for, by its XML.
struct MachineLimits {
  std::uint64_t max_vcpus = 0;
  std::uint64_t max_memory_mib = 0;  // 0: it has no slots for memory
  std::size_t drives = 0;
  bool has_scsi = false;  // a controller
  bool has_usb = false;
  bool has_pci_slots = false;  // for devices that are not PCI Express
};

// Each returns "" when the XML is not a <domain>, or has no such device. Elements have no address, alias or boot order:
// those of another machine would not fit, and libvirt finds a device without them.
std::string DiskElement(std::string_view xml, const std::string& path);
std::string NicElement(std::string_view xml, const std::string& mac);     // in lower case
std::string UsbElement(std::string_view xml, const std::string& device);  // "1234:00ab" or "3.14"
// The CD-ROM drive `index` with another medium; `path` is "" for none.
std::string DriveElement(std::string_view xml, std::size_t index, const std::string& path);

// The PCI addresses ("0000:3b:02.1") of the virtual functions of network cards that interfaces have, by their MAC
// addresses. Empty when the XML is not a <domain>.
std::map<std::string, std::string> VirtualFunctionsIn(std::string_view xml);

// A module of memory for the machine's only NUMA cell.
std::string MemoryElement(std::uint64_t size_mib);

// Errors: kInvalid when the XML is not a <domain>.
Result<MachineLimits> ParseMachineLimits(std::string_view xml);

}  // namespace vexa::domain_xml
