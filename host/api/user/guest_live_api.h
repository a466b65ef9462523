// What of a running guest waits for its next start, and the method that applies it now.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "host/api/api_table.h"

namespace vexa::api {

std::vector<ApiRow> GuestLiveRows();

// Asks the host that has the guest, for at most 3 s. Adds to `status`:
//   pending         [{"property", "id", "running", "recorded"}], see docs/guests.md
//   pending_reason  instead, a sentence: what waits is unknown
// Adds neither when no host has the guest. Callers who are not administrators get the names of files without their
// folders, and no reason that could have one. The reader of the request is closed meanwhile.
void AddPending(const Call& call, const std::string& guest_id, Json::Value& status);

// The handler of "set" with the parameter "apply", which goes to the guest's host unread.
Handler WithApply(Handler handler);

}  // namespace vexa::api
