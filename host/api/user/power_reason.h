// Why a power action was refused before the guest's host was asked.
#pragma once

#include "host/api/api_table.h"

namespace vexa::api {

// A handler for the method with the power actions. When no host could be chosen, the reason is what each host lacks,
// for administrators; a guest without a host gets a hint how it gets one.
Handler WithPowerReason(Handler handler);

}  // namespace vexa::api
