// The records of one guest, from one state of the store.
#pragma once

#include <string>

#include "host/base/result.h"
#include "host/domain_xml/domain_build.h"
#include "host/records/reader.h"

namespace vexa::records {

// The guest's record with those of its disks and interfaces, in the guest's order, and the location of its repository.
struct Guest {
  domain_xml::GuestRecords records;
  std::string name;                // "" when the record has none
  std::string host_id;             // "" when it has none
  std::string repository_id;       // "" when it has none
  std::string repository_host_id;  // "" when the repository has no record, or its record names none
  std::string repository_state;    // a value of VexaCCC::State::Repo; "" likewise
};

// A guest that names more disks or interfaces than this is not read.
inline constexpr unsigned kMaxGuestParts = 1024;

// Errors, each with the record it is about: kNotFound (the guest, or a disk or interface that it names, has no record),
// kCorrupt (one of them is not an object, or the guest names something that is not an id, or too many); and those of
// the store. If the repository's record cannot be read, it counts as absent.
Result<Guest> ReadGuest(const Reader& reader, const std::string& guest_id);

}  // namespace vexa::records
