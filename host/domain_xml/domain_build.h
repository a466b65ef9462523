// The records of a guest, its disks and its network interfaces become the domain XML that libvirt runs.
// docs/import.md has the mapping, which ParseDomainXml reads the other way; docs/hypervisor.md has what is added, and
// what becomes of the definition that an imported guest had.
#pragma once

#include <json/value.h>

#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/base/result.h"

namespace vexa::hypervisor {

// Records as the dashboard holds them. Whatever they hold, the XML has the elements below and no other.
struct GuestRecords {
  std::string id;  // UUID
  Json::Value guest;
  std::vector<std::pair<std::string, Json::Value>> disks;  // id and record, in the guest's order
  std::vector<std::pair<std::string, Json::Value>> nics;
};

// Whether libvirt may set processor shares: it needs cgroups of its own, which an embedded one without rights has not,
// and it refuses to start a guest that asks for them.
enum class CpuShares { kAllowed, kLeftOut };

// Whether this machine has a USB bus: without one, the hypervisor fails to look for devices on it, also for
// those that may be missing.
enum class UsbBus { kPresent, kAbsent };

// What marks a definition as one that a host of this system made: <metadata><vexa:guest xmlns:vexa="…" host="…"/>.
inline constexpr char kMarkNamespace[] = "urn:vexa:guest:1";

struct BuildOptions {
  std::string domain_type = "kvm";  // as Hypervisor::DomainType tells: "kvm", "qemu" or "test"
  CpuShares cpu_shares = CpuShares::kAllowed;

  // What guests without cpu_passthru see: every host of a cluster must have it, so that guests can move.
  std::string compatible_cpu = "Nehalem";

  // The host's processors that are set apart for this guest: its first `cpu_pin_num` virtual CPUs get one each.
  std::vector<unsigned> pinned_cpus;

  // The absolute path behind an entry of "iso_images". Not set: the entry is the path.
  std::function<Result<std::string>(const std::string& image)> image_path;

  UsbBus usb_bus = UsbBus::kPresent;

  // The id of the host that defines the guest, for the mark in the metadata. Empty: no mark is written.
  std::string host_id;

  // The definition that the guest's owner had before it was imported (inactive XML). Not empty: the result is this
  // definition with what was edited since; everything that no record has a place for stays as it is.
  std::string base_xml;

  // Names of networks that libvirt itself runs; all others are bridges of the host.
  std::set<std::string> libvirt_networks;

  // Names of bridges that are Open vSwitch's, which libvirt must be told, and of those that are the kernel's. Others
  // are taken for the kernel's, but an edit leaves a port of a switch what it is.
  std::set<std::string> switch_bridges;
  std::set<std::string> kernel_bridges;
};

// The XML of a domain, indented, without an XML declaration. The same records and options always give the same text.
// Of texts that a guest can run without (its description, a name that libvirt does not take) what XML cannot hold is
// replaced; a domain whose guest has no usable name is named by its id.
// With a base, what the records say as the base says it stays word for word; the rest is changed as little as possible.
// An <emulator> that is not an executable file of this machine is left out then.
// Errors: kInvalid with a sentence that names the record's member, what it says and what would be accepted, also when
// the base cannot be read or is of another guest; what image_path says. Pure but for options.image_path and the look at
// the emulator. Threads: any, at the same time.
Result<std::string> BuildDomainXml(const GuestRecords& records, const BuildOptions& options);

}  // namespace vexa::hypervisor
