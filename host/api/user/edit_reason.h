// Why an edit of a guest was refused.
#pragma once

#include "host/api/api_table.h"

namespace vexa::api {

// A handler for the method that edits a guest: a refusal of its parameters gets, as its reason, the parameter, its
// value and what it accepts; also when only the guest's host can know.
Handler WithEditReason(Handler handler);

}  // namespace vexa::api
