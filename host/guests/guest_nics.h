// Where the network interfaces of running guests are plugged in, as their records say it.
//
// /dash/vnic/<id>/object has the member "running" while its guest runs and it is plugged in:
//   {"<host id>": {"bridge_name", "nic_id", "mac_address"}}
// `bridge_name` is the bridge, or the device below a macvtap, and `nic_id` the record of that among the host's
// interfaces (/dash/host/<host id>/nics). What leads to nothing but other guests or the host itself has no `nic_id`,
// and a name that begins with "PN-". `mac_address` is what the machine has, which the record may say otherwise until
// the next start.
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
  std::string port;  // the host's interface that leads to others; "" when none does
};

// Not set: the interface is not plugged in. The end that the kernel shows counts more than what libvirt says: somebody
// may have moved it.
std::optional<NicPlace> FindPlace(const hypervisor::GuestInterface& interface, NetworkLinks& links);

// The same in test mode, where networks are names and no interface leads anywhere.
std::optional<NicPlace> InventPlace(const hypervisor::GuestInterface& interface);

enum class RunsHere { kNo, kYes };

// Writes `places` into the records of the guest's interfaces, and takes out what other hosts have written; when it does
// not run here, takes out what this host has written. Nothing is written when nothing changes, nor into records that
// cannot be read. An interface of the host that has no record yet gets one, unless it is hardware, which has its own
// record within seconds.
// Errors: what the store says; kConflict when others keep changing the same.
Status NotePlaces(store::Store& store, const std::string& host_id, const std::string& guest_id, RunsHere runs_here,
                  const std::vector<NicPlace>& places, NetworkLinks& links);

}  // namespace vexa::guests
