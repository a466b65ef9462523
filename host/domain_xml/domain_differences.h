// Compares two definitions of a guest: the one that runs, and the one that its records give for the next start.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/domain_xml/domain_build.h"

namespace vexa::domain_xml {

// One property of the guest that has another value at the guest's next start.
//
//   property            id                                            values
//   a setting's name    ""                                            as in the guest's record
//   "vdisks"            the disk's; the file's name for one whose     {"path", "vdisk_mode", "unmap"}, null where the
//                       record is gone                                guest does not have the disk; {"path", "size"} in
//                       MiB
//   "vdisks_order"      ""                                            [ids], as the guest boots from them
//   "vnics"             the interface's; the MAC address likewise     {"mac", "network", "vnic_type"} or null; {"mac",
//                                                                     "virtual_function"} (a PCI address)
//   "iso_images"        ""                                            [paths, "unmounted"]
//   "usbs"              ""                                            [devices], without empty ports
struct Difference {
  std::string property;
  std::string id;
  Json::Value running;
  Json::Value recorded;
  bool operator==(const Difference&) const = default;
};

// The sizes of a running guest's disks in MiB, as the guest sees them, by path. Disks that are not listed are not
// compared.
using DiskSizes = std::map<std::string, std::uint64_t>;

// What its XML does not say about a running machine.
struct RunningFacts {
  DiskSizes sizes;
  // How many virtual CPUs have processors of their own. <vcpupin> does not count them: a guest that was moved has it
  // for all of its virtual CPUs. Not set: <vcpupin> counts them.
  std::optional<std::uint64_t> pinned_vcpus;
};

// `running_xml` is that of libvirt for the running machine, `recorded_xml` what BuildDomainXml made of `records`. Only
// what the records cover is compared. Ordered like the table, and the settings in it; disks that go are first of disks.
// Errors: kInvalid when one is not a <domain>, or has a value that no guest of this system can have. Pure.
Result<std::vector<Difference>> FindDifferences(std::string_view running_xml, std::string_view recorded_xml,
                                                const GuestRecords& records, const RunningFacts& facts);

// [{"property", "id" unless it is "", "running", "recorded"}], and back; other elements are left out.
Json::Value ToJson(const std::vector<Difference>& differences);
std::vector<Difference> DifferencesFromJson(const Json::Value& list);

}  // namespace vexa::domain_xml
