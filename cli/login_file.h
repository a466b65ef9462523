// The saved login: which server, who, and the session's token.
#pragma once

#include <optional>
#include <string>

#include "host/base/result.h"

namespace vexa::cli {

struct SavedLogin {
  std::string server;  // as ParseServerUrl writes it
  std::string user;
  std::string token;
};

// $XDG_CONFIG_HOME/vexa/login.json; without that variable (or when it is no absolute path) below ~/.config.
// kNotFound when this user has no home folder.
Result<std::string> LoginFilePath();

// Empty when nothing is saved. kDenied when others may read the file, kCorrupt when it cannot be understood.
Result<std::optional<SavedLogin>> LoadLogin();

// Replaces the file (0600, its folder 0700) atomically.
Status SaveLogin(const SavedLogin& login);

// Not an error: nothing is saved.
Status RemoveLogin();

// The token in a file: its one line. kDenied when others may read the file.
Result<std::string> ReadTokenFile(const std::string& path);

}  // namespace vexa::cli
