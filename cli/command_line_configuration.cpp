// The places that the daemon's configuration file names, read as the daemon reads it.
#include <utility>

#include "cli/account_places.h"
#include "host/daemon/configured_places.h"

namespace vexa::cli {

Result<AccountPlaces> PlacesInConfiguration(const std::string& path) {
  Result<daemon::ConfiguredPlaces> configured = daemon::ReadConfiguredPlaces(path);
  if (!configured) return configured.error();
  AccountPlaces places;
  places.data_directory = std::move(configured->data_directory);
  places.other_store = std::move(configured->store_directory);
  places.other_accounts_path = std::move(configured->account_file);
  if (configured->accounts) {
    const bool is_pam = *configured->accounts == "pam";
    places.source = is_pam ? cluster::AccountSource::kPam : cluster::AccountSource::kStore;
  }
  return places;
}

}  // namespace vexa::cli
