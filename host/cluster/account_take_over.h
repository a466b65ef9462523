// Taking the account file of an older version over into the store.
//
// Hosts gave out ids by themselves then, so two files may mean different people by one id, and grants stand under ids.
//   - A user whose name is free is added, with the password, and in the groups of the file.
//   - An id that is or was somebody else's in the store is replaced by a new one, which has no grants.
//   - A user whose name the store has already, in any case, is not added, unless all of the account is the same.
//   - "administrators" and "users" are the same groups in all files. Another group whose name the store has already is
//     the same only if its spelling and id are; otherwise the users of the file are not put into it.
// So nobody in the file gets rights that they did not have. Each of these decisions against the file is a note, and so
// is each uid of a machine that is kept: it counts on the Unix sockets of all hosts from now on.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::cluster {

// Called with a sentence that says who was not taken over as they were, and what to do.
using TakeOverNote = std::function<void(const std::string& sentence)>;

// Takes the accounts of the file at `path` into the store, in one commit that also remembers the file, and renames the
// file to "<path>.taken-over" (or with a number behind it). So a kill at any point loses and doubles nobody: the next
// call finishes. No file is not an error.
// Errors: as base::ReadAccountFile, and what the store says; the store is unchanged then. kInternal when the file
// cannot be renamed: its accounts are in the store. Threads and processes: any, at the same time.
Status TakeOverAccountFile(store::Store& store, const std::string& path, const TakeOverNote& note);

}  // namespace vexa::cluster
