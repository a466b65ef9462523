// The records of one guest, of one state of the store.
#pragma once

#include <string>

#include "host/base/result.h"
#include "host/hypervisor/domain_build.h"

namespace vexa::guests {

// The guest's record with those of its disks and interfaces, in the guest's order, and where its repository is.
struct Guest {
  hypervisor::GuestRecords records;
  std::string name;                // "" when the record has none
  std::string host_id;             // "" when it has none
  std::string repository_id;       // "" when it has none
  std::string repository_host_id;  // "" when the repository has no record, or that names none
  std::string repository_state;    // a text of VexaCCC::State::Repo; "" likewise
};

// In the calling thread's RequestScope, or in one of its own. Errors: kNotFound (the guest, or a disk or interface that
// it names, has no record), kCorrupt, and what the store says.
Result<Guest> ReadGuest(const std::string& guest_id);

}  // namespace vexa::guests
