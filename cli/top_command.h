// vexa top.
#pragma once

#include "cli/client_options.h"

namespace vexa::cli {

// The hosts and guests with their states, processors and memory. On a terminal they are shown every 2 s until the user
// types q; elsewhere, and with `once`, they are printed once. Loads of hosts are for administrators.
struct TopOptions {
  bool once = false;
};
ExitCode RunTop(const GlobalOptions& global, const TopOptions& options);

}  // namespace vexa::cli
