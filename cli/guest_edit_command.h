// vexa guest edit.
#pragma once

#include <string>

#include "cli/client_options.h"

namespace vexa::cli {

// Shows the guest's settings in the user's editor and sends those that were changed. A text that is refused, here or by
// the server, is kept in a file of the user's.
ExitCode RunGuestEdit(const GlobalOptions& global, const std::string& word);

}  // namespace vexa::cli
