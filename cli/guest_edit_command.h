// vexa guest edit.
#pragma once

#include <string>

#include "cli/client_options.h"

namespace vexa::cli {

// Opens the guest's settings in the user's editor and sends the changed ones. A text that is refused, here or by the
// server, is kept in a file for the user.
ExitCode RunGuestEdit(const GlobalOptions& global, const std::string& id_or_name);

}  // namespace vexa::cli
