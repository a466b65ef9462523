// Stores to which bridge or device each network interface of a running guest is attached.
//
// /dash/vnic/<id>/object has the member "running" while the guest runs and the interface is attached:
//   {"<host id>": {"bridge_name", "nic_id", "mac_address"}}
// `bridge_name` is the bridge, or the device below a macvtap, and `nic_id` is its record among the host's interfaces
// (/dash/host/<host id>/nics). A connection that only leads to other guests or the host itself has no `nic_id`, and a
// name that begins with "PN-". `mac_address` is the domain's current address; until the next start, it may differ from
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

struct NicAttachmentRecord {
  std::string mac;
  std::string bridge_name;
  std::string port;  // the interface of the host through which it reaches other hosts; "" when it reaches none
};

// Not set: the interface is not attached. What the kernel reports about the interface's end in the host takes
// precedence over libvirt's information, because the end may have been moved to another bridge.
std::optional<NicAttachmentRecord> FindNicAttachment(const domain_xml::GuestInterface& interface,
                                                     machine::NetworkLinks& links);

// The same in test mode, where networks are only names, so every attachment is private.
std::optional<NicAttachmentRecord> FakeNicAttachment(const domain_xml::GuestInterface& interface);

enum class RunsHere { kNo, kYes };

// Writes `attachments` into the records of the guest's interfaces, and removes what other hosts have written; when the
// guest does not run here, removes what this host has written. Writes nothing when nothing changes, or into unreadable
// records. An interface of the host without a record gets one, unless it is hardware, which gets its own record within
// seconds.
// Errors: those of the store; kConflict when the records keep changing.
Status WriteNicAttachments(store::Store& store, const std::string& host_id, const std::string& guest_id,
                           RunsHere runs_here, const std::vector<NicAttachmentRecord>& attachments,
                           machine::NetworkLinks& links);

}  // namespace vexa::guests
