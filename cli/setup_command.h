// vexa setup: makes an installed machine a host, and reports what works on it.
#pragma once

#include <string>

#include "cli/client_options.h"
#include "cli/password.h"

namespace vexa::cli {

struct SetupOptions {
  std::string admin;       // the first administrator; empty: asked for on a terminal, otherwise none is added
  std::string listen;      // empty: as configured
  std::string images;      // the folder for guests; empty: as configured
  std::string hypervisor;  // empty: as configured
  PasswordSource password = PasswordSource::kTerminal;
  bool assume_yes = false;  // asks nothing but the password
  bool no_start = false;
  std::string config = "/etc/vexa/vexad.conf";
  std::string account = "vexa";  // of the service
  // Where the service's unit gets drop-ins, for other folders for guests and for the hypervisor "embed". Empty:
  // systemd's folder for the service's own configuration file, and no drop-in for another one.
  std::string units;
};

// For root. Running it again changes nothing that is there.
ExitCode RunSetup(const GlobalOptions& global, const SetupOptions& options);

}  // namespace vexa::cli
