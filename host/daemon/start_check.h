// What would keep the daemon from starting or serving on this machine, beyond what the configuration itself shows.
#pragma once

#include <chrono>
#include <string>

#include "host/daemon/config.h"

namespace vexa::daemon {

struct StartCheckOptions {
  // How long the hypervisor has to answer.
  std::chrono::milliseconds hypervisor_timeout{10'000};
  // systemd makes /var/lib/vexa and /run/vexad for the service before it starts.
  bool has_service_folders = false;
};

// All problems together: folders and files that this process's account cannot use, TLS files, addresses that are in
// use, a hypervisor that cannot be reached. Changes nothing. What a daemon uses that runs on the same data folder is in
// order. The configuration is that of ParseCommandLine. Call it shortly before the process ends with _exit: a
// hypervisor that does not answer keeps a thread.
ConfigProblems CheckStart(const Config& config, const StartCheckOptions& options);

// The account as which to check a configuration: that of --check-as, or that of the service for its own file; "" for
// the caller's own. Its second member is true for the service.
struct CheckAccount {
  std::string name;
  bool is_service = false;
};
CheckAccount ChooseCheckAccount(const CommandLine& command);

}  // namespace vexa::daemon
