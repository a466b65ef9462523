// Records about the guests' domain definitions in libvirt.
//
//   /dash/guest/<guest id>/domain      {"xml": libvirt's XML of the inactive domain, "autostart", "own_images"}: the
//   definition that
//                                      the guest's owner had before the guest was imported
//   /undefine/<host id>/<guest id>     true: the host must remove the guest from its libvirt, because the guest was
//                                      deleted or assigned to another host
//
// An import hands over the guest's definition: from the first start on, its host defines the guest for libvirt from
// this XML and the records, and keeps everything in it that the records do not cover. A guest without this key has only
// ever been defined by this system. The key is deleted with the guest's record.
#pragma once

#include <optional>
#include <string>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::records {

struct DomainRecord {
  std::string xml;
  bool autostart = false;       // whether libvirt was set to start it
  bool has_own_images = false;  // its disks are copies that the import made: the owner's definition names others
};

std::string DomainKey(const std::string& guest_id);
// The JSON text of the record.
std::string SerializeDomain(const DomainRecord& domain);

std::string UndefineKey(const std::string& host_id, const std::string& guest_id);

struct StoredDomain {
  DomainRecord domain;
  store::Revision revision = 0;
};

// Not set: the guest has no such key. Errors: kCorrupt (its value has no XML), and those of the store.
Result<std::optional<StoredDomain>> ReadDomain(const store::Snapshot& snapshot, const std::string& guest_id);

}  // namespace vexa::records
