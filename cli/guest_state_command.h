// vexa guest list and vexa guest status.
#pragma once

#include <string>

#include "cli/client_options.h"

namespace vexa::cli {

ExitCode RunGuestList(const GlobalOptions& global);
// `guest` is an id or a name.
ExitCode RunGuestStatus(const GlobalOptions& global, const std::string& guest);

}  // namespace vexa::cli
