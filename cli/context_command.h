// vexa context.
#pragma once

#include <string>

#include "cli/client_options.h"

namespace vexa::cli {

struct ContextAddOptions {
  std::string name;
  std::string user;
};

// Adds the server of --server with the file of --ca-file; the first context is used from then on.
ExitCode RunContextAdd(const GlobalOptions& global, const ContextAddOptions& options);
ExitCode RunContextList(const GlobalOptions& global);
ExitCode RunContextUse(const GlobalOptions& global, const std::string& name);
// `name`: "" for the current one.
ExitCode RunContextShow(const GlobalOptions& global, const std::string& name);
// Also removes the context's login.
ExitCode RunContextRemove(const GlobalOptions& global, const std::string& name);

}  // namespace vexa::cli
