// The folders and the accounts of a configuration file, for programs that work on them while the daemon does not run.
#pragma once

#include <optional>
#include <string>

#include "host/base/result.h"

namespace vexa::daemon {

struct ConfiguredPlaces {
  std::string data_directory;
  std::string store_directory;          // empty: "store" in the data folder
  std::string account_file;             // empty: accounts.json in the data folder
  std::optional<std::string> accounts;  // "store", "pam" or "file"; not set: the file does not name it
};

// Read as the daemon reads its file. An empty path is the usual file, which may be missing. Flags of the daemon are not
// known here.
// kNotFound or kDenied when the file cannot be read. kInvalid for everything that the daemon refuses: settings that it
// does not have, values out of range, and folders that are not absolute paths.
Result<ConfiguredPlaces> ReadConfiguredPlaces(const std::string& path);

}  // namespace vexa::daemon
