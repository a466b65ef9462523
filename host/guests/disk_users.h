// Which files of disks the records of other disks name.
#pragma once

#include <map>
#include <set>
#include <string>

#include "host/base/result.h"
#include "host/guests/disk_files.h"
#include "host/store/store.h"

namespace vexa::guests {

// Of `files`, normal paths with what is there, those that the record of a disk names whose id is not in `but_disks`:
// by the same path, or by another one that leads to the same file and has the same last segment. (Files with several
// names are not looked for.) One pass over all records of disks, which parses next to none of them. Errors: what the
// store says.
Result<std::set<std::string>> NamedByOthers(const store::Store& store, const std::set<std::string>& but_disks,
                                            const std::map<std::string, FileIdentity>& files);

}  // namespace vexa::guests
