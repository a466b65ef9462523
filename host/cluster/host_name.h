// Names that administrators give to hosts, in place of those of their machines.
//
//   /settings/host_name {"<host id>": "<name>"}
//
// The name is also in the host's record, where everybody reads it; the host keeps it there when it registers.
#pragma once

#include <string>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/records/reader.h"
#include "host/store/store.h"

namespace vexa::cluster {

// "" without a given name. Errors: those of the store, and kCorrupt.
Result<std::string> ReadHostName(const records::Reader& reader, const std::string& host_id);

// Gives the host a name, which no other host has; all renamings go through one record, so of two hosts that get the
// same name at the same time, one is refused. Sets `old_name` to its name before.
// Refusals: kBadParameter (not a name), kNotFoundOrUnreadable (no such host), kRecordExists (another host has the
// name), kRecordFailed. Threads and hosts: any, at the same time.
Result<void, Refusal> RenameHost(store::Store& store, const std::string& host_id, const std::string& name,
                                 std::string& old_name);

}  // namespace vexa::cluster
