// vexa error: what the API's error codes mean.
#pragma once

#include <optional>

#include "cli/client_options.h"

namespace vexa::cli {

struct ErrorOptions {
  std::optional<int> code;   // not set: all of them
  bool is_markdown = false;  // the page of all codes
};

ExitCode RunError(const GlobalOptions& global, const ErrorOptions& options);

}  // namespace vexa::cli
