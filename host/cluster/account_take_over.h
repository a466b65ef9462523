// Migrates the account file of an older version into the store.
//
// Hosts used to assign ids independently, so two files may use one id for different people, and grants are stored under
// ids.
//   - A user whose name is free is added, with the password, and in the groups of the file.
//   - An id that is or was assigned to another account in the store is replaced by a new one, which has no grants.
//   - A user whose name already exists in the store, ignoring case, is not added, unless the whole account is the same.
//   - "administrators" and "users" are the same groups in all files. Another group whose name already exists in the
//     store is the same group only if its spelling and id are equal; otherwise the users of the file are not added to
//     it.
// So no user of the file gets rights that they did not have. Each of these deviations from the file is reported as a
// note, and so is each machine uid that is kept: it is valid on the Unix sockets of all hosts from now on.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::cluster {

// Called with a sentence that says which accounts were not migrated unchanged, and what to do.
using TakeOverNote = std::function<void(const std::string& sentence)>;

// Migrates the accounts of the file at `path` into the store, in one commit that also records the file, and renames the
// file to "<path>.taken-over" (followed by a number if needed). So a kill at any point neither loses nor duplicates an
// account: the next call finishes. A missing file is not an error.
// Errors: those of base::ReadAccountFile and the store; the store is then unchanged. kInternal when the file cannot be
// renamed: its accounts are in the store. Threads and processes: any, at the same time.
Status TakeOverAccountFile(store::Store& store, const std::string& path, const TakeOverNote& note);

}  // namespace vexa::cluster
