// Why an edit of a guest, or a power action, was refused.
#pragma once

#include "host/api/api_table.h"

namespace vexa::api {

// A handler for the method that edits a guest: a refusal of its parameters gets, as its reason, the parameter, its
// value and what it accepts; also when only the guest's host can know.
Handler WithEditReason(Handler handler);

// A handler for a method that asks the guest's host last: administrators get, as the reason of a failure, what that
// host says about it. Others do not: it may name files of the host, and other guests.
Handler WithHostReason(Handler handler);

}  // namespace vexa::api
