// Stores where the network interfaces of running guests are plugged in.
//
// /dash/vnic/<id>/object has the member "running" while its guest runs and it is plugged in:
//   {"<host id>": {"bridge_name", "nic_id", "mac_address"}}
// `bridge_name` is the bridge, or the device below a macvtap, and `nic_id` is its record among the host's interfaces
// (/dash/host/<host id>/nics). A connection that only leads to other guests or the host itself has no `nic_id`, and a
// name that begins with "PN-". `mac_address` is the machine's current address; until the next start, it may differ from
// the record.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/domain_xml/domain_interfaces.h"
#include "host/machine/network_links.h"
#include "host/store/store.h"

namespace vexa::guests {

struct NicPlace {
  std::string mac;
  std::string bridge_name;
  std::string port;  // the host's interface that leads outside; "" when absent
};

// Not set: the interface is not plugged in. The host's end according to the kernel takes precedence over libvirt's
// information, because it may have been moved.
std::optional<NicPlace> FindPlace(const hypervisor::GuestInterface& interface, NetworkLinks& links);

// The same in test mode, where networks are only names and interfaces lead nowhere.
std::optional<NicPlace> InventPlace(const hypervisor::GuestInterface& interface);

enum class RunsHere { kNo, kYes };

// Writes `places` into the records of the guest's interfaces, and removes what other hosts have written; when the guest
// does not run here, removes what this host has written. Writes nothing when nothing changes, or into unreadable
// records. An interface of the host without a record gets one, unless it is hardware, which gets its own record within
// seconds.
// Errors: those of the store; kConflict when the records keep changing.
Status NotePlaces(store::Store& store, const std::string& host_id, const std::string& guest_id, RunsHere runs_here,
                  const std::vector<NicPlace>& places, NetworkLinks& links);

}  // namespace vexa::guests
