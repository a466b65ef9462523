// Why the parameters of an edit were refused.
#pragma once

#include "host/api/api_table.h"

namespace vexa::api {

// A handler for the method that edits a guest: a refusal of its parameters gets, as its reason, the parameter, its
// value and what it accepts.
Handler WithEditReason(Handler handler);

}  // namespace vexa::api
