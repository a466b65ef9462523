// vexa login, logout, whoami.
#pragma once

#include <string>

#include "cli/client_options.h"
#include "cli/password.h"

namespace vexa::cli {

struct LoginOptions {
  std::string user;  // the name of the account that runs the program when empty
  PasswordSource password = PasswordSource::kTerminal;
};

// Asks the server for a session and saves it. Nothing is saved, and an older login stays, when the server refuses.
ExitCode RunLogin(const GlobalOptions& global, const LoginOptions& options);

// Ends the session at the server and forgets it here. It is forgotten here even when the server cannot be reached; the
// exit code tells.
ExitCode RunLogout(const GlobalOptions& global);

ExitCode RunWhoami(const GlobalOptions& global);

}  // namespace vexa::cli
