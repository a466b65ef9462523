// Reads the stored records of a guest to be imported, and makes the transaction of the import.
#pragma once

#include <json/value.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/domain_xml/domain_parse.h"
#include "host/guests/jobs/guest_locks.h"
#include "host/records/domain_record.h"
#include "host/store/store.h"

namespace vexa::guests {

// A record of a disk or a network interface.
struct StoredPart {
  std::string key;
  store::Revision revision = 0;
};

// A guest's record and live state in the store; revision 0 when absent.
struct StoredGuest {
  store::Revision revision = 0;
  Json::Value record;
  // The live state, or else the state in the record, as for every reader of the guest. "" when there is neither, or no
  // record: a live state that remains of an earlier guest does not count.
  std::string state;
  store::Revision live_revision = 0;
  store::Revision renames_revision = 0;  // of GuestNamesGuardKey()
  // The records of disks and network interfaces that the guest's record lists and that name this guest as their owner.
  std::vector<StoredPart> parts;
};

// Errors: those of the store; kCorrupt when the live state of the guest is invalid: the state in its record may be
// outdated.
Result<StoredGuest> ReadStoredGuest(const store::Snapshot& snapshot, const std::string& id);

// Writes the records of `guest` and its original definition, provided that the stored guest is still equal to
// `replaced`. What domain XML does not contain ("autorun", "ha_group_id", and "nvram" where the XML names none) is kept
// from the replaced record; records of disks and network interfaces that belong to the replaced guest and are not used
// by the new one are deleted. The live state and its sequences stay while the guest stays on the same host, and are
// removed otherwise: one host's report does not apply to another. Compares that nothing holds the guest, except for
// `own_locks`.
store::Transaction MakeImportTransaction(const domain_xml::ImportedGuest& guest, const records::DomainRecord& domain,
                                         const StoredGuest& replaced, std::initializer_list<GuestLock> own_locks = {});

}  // namespace vexa::guests
