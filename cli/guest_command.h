// vexa guest get.
#pragma once

#include <string>

#include "cli/client_options.h"

namespace vexa::cli {

ExitCode RunGuestGet(const GlobalOptions& global, const std::string& guest);

}  // namespace vexa::cli
