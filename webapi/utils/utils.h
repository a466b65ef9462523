// The shared layer's exported interface.
//
// Threads: every function may be called from any number of threads at once.
#pragma once

#include <string>

#include "webapi/platform/webapi.h"
#include "webapi/utils/export.h"

namespace VexaVirtualization {

// Whether the caller is a system administrator or an advanced user of the cluster. A platform failure is a plain no.
VEXA_EXPORT bool IsAdminOrAdvancedUser(VEXA::APIRequest* request);

// Whether the caller is an administrator, for any identifier, or has been granted the guest of exactly this identifier,
// themselves or by a group. Being advanced grants nothing by itself. A platform failure is a plain no.
VEXA_EXPORT bool IsGuestPermitted(VEXA::APIRequest* request, const std::string& guest_id);

}  // namespace VexaVirtualization
