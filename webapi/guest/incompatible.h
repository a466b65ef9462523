// What users read when a host's version does not know an operation.
#pragma once

namespace VexaVirtualization {

// How a host answers that its version does not know the operation, and what the handlers answer then.
inline constexpr int kHostTooOld = 507;
inline constexpr int kIncompatibleHost = 407;

// The line of the cluster log, for the operation in the user's words.
inline constexpr char kIncompatibleLine[] =
    "Incompatible operation [%s]. Please upgrade to a compatible Orla version and try again.";

}  // namespace VexaVirtualization
