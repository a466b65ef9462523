// The saved login: the server, the user, and the session's token.
#pragma once

#include <optional>
#include <string>

#include "host/base/result.h"

namespace vexa::cli {

struct SavedLogin {
  std::string server;  // as ParseServerUrl normalises it
  std::string user;
  std::string token;
};

// $XDG_CONFIG_HOME/vexa; below ~/.config when that variable is missing or not an absolute path. kNotFound when this
// user has no home folder.
Result<std::string> ConfigurationFolder();
// Creates it, and keeps other users out of it.
Status MakeConfigurationFolder();

// From now on the functions below are about the login of this context (cli/contexts.h). "": the one without a context.
// Threads: one.
void SetLoginContext(const std::string& name);

// login.json in the configuration folder, or login-<context>.json. Errors: those of ConfigurationFolder.
Result<std::string> LoginFilePath();

// Empty when nothing is saved. kDenied when others may read the file, kCorrupt when it cannot be parsed.
Result<std::optional<SavedLogin>> LoadLogin();

// Replaces the file (0600, its folder 0700) atomically.
Status SaveLogin(const SavedLogin& login);

// It is not an error when nothing is saved.
Status RemoveLogin();

// The token in a file: its only line. kDenied when others may read the file.
Result<std::string> ReadTokenFile(const std::string& path);

}  // namespace vexa::cli
