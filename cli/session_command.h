// vexa login, logout, whoami.
#pragma once

#include <string>

#include "cli/client_options.h"
#include "cli/password.h"

namespace vexa::cli {

struct LoginOptions {
  std::string user;  // if empty, the account that runs the program
  PasswordSource password = PasswordSource::kTerminal;
};

// Requests a session from the server and saves it. When the server refuses, nothing is saved, and an older login stays.
ExitCode RunLogin(const GlobalOptions& global, const LoginOptions& options);

// Ends the session at the server and removes it here. It is removed here even when the server cannot be reached; the
// exit code shows that.
ExitCode RunLogout(const GlobalOptions& global);

ExitCode RunWhoami(const GlobalOptions& global);

}  // namespace vexa::cli
