// vexa error: what the API's error codes mean.
#pragma once

#include <optional>

#include "cli/client_options.h"

namespace vexa::cli {

// One code, or all of them.
ExitCode RunError(const GlobalOptions& global, std::optional<int> code);

}  // namespace vexa::cli
