// The records of one guest, of one state of the store.
#pragma once

#include <string>

#include "host/base/result.h"
#include "host/domain_xml/domain_build.h"

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

// No guest is read that names more disks or interfaces than this.
inline constexpr unsigned kMaxGuestParts = 1024;

// In the calling thread's RequestScope, or in one of its own. Errors: kNotFound (the guest, or a disk or interface that
// it names, has no record), kCorrupt (one of them is no object, or the guest names something that is no id, or too
// much), each with what it is about; and what the store says. Of the repository, what cannot be read is as if absent.
Result<Guest> ReadGuest(const std::string& guest_id);

}  // namespace vexa::guests
