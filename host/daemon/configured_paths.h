// The folders and the accounts of a configuration file, for programs that work on them while the daemon does not run.
#pragma once

#include <optional>
#include <string>

#include "host/base/result.h"

namespace vexa::daemon {

struct ConfiguredPaths {
  std::string data_directory;
  std::string store_directory;          // empty: "store" in the data folder
  std::string account_file;             // empty: accounts.json in the data folder
  std::optional<std::string> accounts;  // "store", "pam" or "file"; not set: the file does not name it
};

// Reads the configuration file like the daemon, without the daemon's flags. An empty path means the default file, which
// may be missing.
// Errors: kNotFound or kDenied when the file cannot be read. kInvalid for everything that the daemon refuses: settings
// that it does not have, values out of range, and folders that are not absolute paths.
Result<ConfiguredPaths> ReadConfiguredPaths(const std::string& path);

}  // namespace vexa::daemon
