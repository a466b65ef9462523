// The places that the daemon's configuration file names, read by the parser that the daemon reads it with.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "cli/account_places.h"

namespace vexa::cli {
namespace {

constexpr const char* kUsualFile = "/etc/vexa/vexad.conf";

// The member of `places` that a setting fills; null for a setting that has no part in it.
std::string* PlaceOf(AccountPlaces& places, const std::string& setting) {
  if (setting == "data") return &places.data_directory;
  if (setting == "store") return &places.other_store;
  if (setting == "account-file") return &places.other_accounts_path;
  return nullptr;
}

Error CannotRead(ErrorCode code, const std::string& file, const std::string& why) {
  return Error(code, "Cannot read the configuration file '" + file + "'", why);
}

}  // namespace

Result<AccountPlaces> PlacesInConfiguration(const std::string& path) {
  const std::string file = path.empty() ? kUsualFile : path;
  AccountPlaces places;
  places.source = cluster::AccountSource::kStore;
  std::ifstream input(file);
  if (!input) {
    const int error = errno;
    if (error == ENOENT && path.empty()) return places;
    return CannotRead(error == ENOENT ? ErrorCode::kNotFound : ErrorCode::kDenied, file, std::strerror(error));
  }
  try {
    for (const CLI::ConfigItem& item : CLI::ConfigTOML().from_config(input)) {
      if (!item.parents.empty() || item.inputs.size() != 1) continue;
      if (std::string* const place = PlaceOf(places, item.name)) *place = item.inputs.front();
      const bool is_pam = item.name == "accounts" && item.inputs.front() == "pam";
      if (is_pam) places.source = cluster::AccountSource::kPam;
    }
  } catch (const CLI::Error& error) {
    return CannotRead(ErrorCode::kInvalid, file, error.what());
  }
  if (input.bad()) return CannotRead(ErrorCode::kDenied, file, "reading failed");
  if (places.data_directory.empty()) return CannotRead(ErrorCode::kInvalid, file, "'data' names no folder");
  return places;
}

}  // namespace vexa::cli
