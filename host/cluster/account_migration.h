// Migrates the account file of an older version into the store.
//
// Hosts used to assign ids independently, so two files may use one id for different people, and grants are stored under
// ids.
//   - A user whose name is not in the store is added, with the password and the groups that it has in the file.
//   - An id that is or was assigned to another account in the store is replaced by a new id, which has no grants.
//   - A user whose name already exists in the store, ignoring case, is not added, unless the whole account is the same.
//   - "administrators" and "users" are the same groups in all files. Another group whose name already exists in the
//     store is the same group only if its spelling and id are equal; otherwise the users of the file are not added to
//     it.
// So no user of the file gets rights that they did not have. Each of these deviations from the file is reported as a
// note, and so is each uid of the machine that is kept: it is then valid on the Unix sockets of all hosts.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::cluster {

// Called with a sentence about an account that was not migrated unchanged, and what to do about it.
using MigrationNote = std::function<void(const std::string& sentence)>;

// Migrates the accounts of the file at `path` into the store, in one commit that also records the file, and renames the
// file to "<path>.taken-over" (followed by a number if needed). So a kill at any point neither loses nor duplicates an
// account: the next call finishes. A missing file is not an error.
// Errors: those of accounts::ReadAccountFile and the store; the store is then unchanged. kInternal when the file cannot
// be renamed: its accounts are in the store. Threads and processes: any, at the same time.
Status MigrateAccountFile(store::Store& store, const std::string& path, const MigrationNote& note);

}  // namespace vexa::cluster
