// vexa call, vexa health.
#pragma once

#include <optional>
#include <string>

#include "cli/client_options.h"

namespace vexa::cli {

struct CallOptions {
  std::string api;
  std::string method;
  std::string parameters = "{}";  // a JSON object; "-": standard input
  std::optional<int> version;
};

// Prints the reply's data as JSON.
ExitCode RunCall(const GlobalOptions& global, const CallOptions& options);

ExitCode RunHealth(const GlobalOptions& global);

}  // namespace vexa::cli
