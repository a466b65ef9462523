// Builds domain XML for libvirt from the records of a guest, its disks and its network interfaces.
// docs/import.md has the mapping, which ParseDomainXml reads in the other direction; docs/hypervisor.md describes what
// is added, and how the definition of an imported guest is used.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/base/result.h"
#include "host/domain_xml/cpu_set.h"

namespace vexa::domain_xml {

// Records as the store has them. Whatever they contain, the XML has only the elements that the builder writes.
struct GuestRecords {
  std::string id;  // UUID
  Json::Value guest;
  std::vector<std::pair<std::string, Json::Value>> disks;  // id and record, in the guest's order
  std::vector<std::pair<std::string, Json::Value>> nics;
};

// Whether libvirt may set CPU shares. It refuses to start a guest with shares where it cannot.
enum class CpuShares {
  kAllowed,
  kOmitted,       // it has no cgroups, like every unprivileged driver
  kNoController,  // it has cgroups, and none for processors
};

// Whether this machine has a USB bus. Without one, the hypervisor fails when it looks for devices on it, even optional
// ones.
enum class UsbBus { kPresent, kAbsent };

// The namespace of the ownership tag, which says that a host of this system made the definition:
// <metadata><vexa:guest xmlns:vexa="…" host="…"/>.
inline constexpr char kOwnershipTagNamespace[] = "urn:vexa:guest:1";

// What a running guest can be given later, as its machine is made with. A definition with a base keeps its owner's.
struct HotPlugLimits {
  unsigned vcpus = 0;            // 0, or not more than the guest has: none
  std::uint64_t memory_mib = 0;  // likewise
  // For disks and network interfaces, on machines with PCI Express: each device needs a port of its own.
  unsigned free_ports = 0;
};

struct BuildOptions {
  std::string domain_type = "kvm";  // as Hypervisor::DomainType returns it: "kvm", "qemu" or "test"
  CpuShares cpu_shares = CpuShares::kAllowed;
  // The largest weight that libvirt accepts here. A guest whose record has a larger one gets this one.
  std::int64_t max_cpu_weight = 262'144;

  // The CPU model of guests without cpu_passthru. Every host of a cluster must support it, so that guests can move.
  std::string compatible_cpu = "Nehalem";

  // The host's processors dedicated to this guest: its first `cpu_pin_num` virtual CPUs get one each.
  std::vector<unsigned> pinned_cpus;

  // The host's processors that are not dedicated to any guest. The guest's other virtual CPUs and the threads of its
  // emulator use these only. Empty: no processors are dedicated, and they use what the definition says, or all.
  CpuSet shared_cpus;

  // Returns the absolute path for an entry of "iso_images". May be empty: then the entry is the path.
  std::function<Result<std::string>(const std::string& image)> image_path;

  UsbBus usb_bus = UsbBus::kPresent;

  HotPlugLimits hot_plug;

  // The virtual functions of network cards that interfaces get instead of their network: PCI addresses of the form
  // "0000:3b:02.1", by the interfaces' ids. Ignored with a base.
  std::map<std::string, std::string> virtual_functions;

  // The keyboard layouts that QEMU has; others are left out. Not set: unknown, all are written.
  std::optional<std::set<std::string>> keymaps;

  // The id of the host that defines the guest, for the ownership tag. Empty: no tag is written.
  std::string host_id;

  // The definition that the guest's owner had before the import (inactive XML). If not empty, the result is this
  // definition with the edits made since; everything that the records do not cover stays unchanged.
  std::string base_xml;

  // Names of networks that libvirt itself runs; all others are bridges of the host.
  std::set<std::string> libvirt_networks;

  // Names of Open vSwitch bridges, which libvirt must know about, and of kernel bridges. Unknown bridges are taken
  // for kernel bridges, but an edit keeps the kind of a switch port.
  std::set<std::string> switch_bridges;
  std::set<std::string> kernel_bridges;
};

// The XML of a domain, indented, without an XML declaration. The same records and options always give the same XML. In
// strings that a guest can run without (its description, a name that libvirt does not accept), characters that XML does
// not allow are replaced; the domain of a guest without a usable name is named by its id.
// With a base, elements whose records have not changed stay word for word, and the rest is changed as little as
// possible. An <emulator> that is not an executable file of this machine is then left out.
// Errors: kInvalid with a sentence that names the record's member, its value and what would be accepted, also when the
// base cannot be read or belongs to another guest; the errors of image_path. Pure except for options.image_path and the
// check of the emulator. Threads: any, at the same time.
Result<std::string> BuildDomainXml(const GuestRecords& records, const BuildOptions& options);

}  // namespace vexa::domain_xml
