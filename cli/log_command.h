// vexa log: the cluster log.
#pragma once

#include "cli/client_options.h"

namespace vexa::cli {

struct LogOptions {
  enum class Range { kNewest, kAll };
  enum class Following { kNo, kYes };
  Range range = Range::kNewest;
  std::size_t count = 50;  // kNewest
  Following following = Following::kNo;
};

// Prints entries, the oldest first: a line each, or a JSON object each. Following ends with Ctrl-C, and then with kOk.
ExitCode RunLog(const GlobalOptions& global, const LogOptions& options);

}  // namespace vexa::cli
