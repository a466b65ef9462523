// The message for operations that a host's version does not support.
#pragma once

namespace VexaVirtualization {

// The format of the line in the cluster log; its argument is the operation, in the user's words.
inline constexpr char kIncompatibleLine[] =
    "Incompatible operation [%s]. Please upgrade to a compatible Orla version and try again.";

}  // namespace VexaVirtualization
