// vexa session list, vexa session end.
#pragma once

#include <string>

#include "cli/client_options.h"

namespace vexa::cli {

struct SessionListOptions {
  std::string user;  // if empty, the caller
  bool all = false;  // the sessions of all users
};

// One of the two is set.
struct SessionEndOptions {
  std::string id;
  std::string user;
};

ExitCode RunSessionList(const GlobalOptions& global, const SessionListOptions& options);
ExitCode RunSessionEnd(const GlobalOptions& global, const SessionEndOptions& options);

}  // namespace vexa::cli
