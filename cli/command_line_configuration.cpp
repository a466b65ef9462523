// The paths that the daemon's configuration file names, read as the daemon reads it.
#include <utility>

#include "cli/account_paths.h"
#include "host/daemon/configured_paths.h"

namespace vexa::cli {

Result<AccountPaths> PathsInConfiguration(const std::string& path) {
  Result<daemon::ConfiguredPaths> configured = daemon::ReadConfiguredPaths(path);
  if (!configured) return configured.error();
  AccountPaths paths;
  paths.data_directory = std::move(configured->data_directory);
  paths.store_folder = std::move(configured->store_directory);
  paths.account_file_path = std::move(configured->account_file);
  if (configured->accounts) {
    const bool is_pam = *configured->accounts == "pam";
    paths.source = is_pam ? cluster::AccountSource::kPam : cluster::AccountSource::kStore;
  }
  return paths;
}

}  // namespace vexa::cli
