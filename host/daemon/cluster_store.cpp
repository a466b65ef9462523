#include "host/daemon/cluster_store.h"

#include <fmt/format.h>
#include <syslog.h>

#include <filesystem>
#include <string>
#include <system_error>
#include <utility>

#include "host/daemon/cache_refresh.h"
#include "host/records/cluster_status.h"
#include "host/store/lmdb_store.h"
#include "host/store/lost_store.h"
#include "host/store/mirrored_store.h"

namespace vexa::daemon {
namespace {

bool IsSameFolder(const std::string& a, const std::string& b) {
  std::error_code failed;
  if (std::filesystem::equivalent(a, b, failed)) return true;
  const auto plain = [&failed](const std::string& path) {
    return std::filesystem::weakly_canonical(path, failed).lexically_normal();
  };
  return plain(a) == plain(b);
}

Result<std::shared_ptr<store::Store>> OpenFolder(const std::string& folder, store::FileCheckMode check) {
  store::LmdbOptions options;
  options.directory = folder;
  options.file_check_mode = check;
  return store::OpenLmdbStore(options);
}

// The store in `folder` is there, or may be created.
Status CheckStoreFolder(const Config& config, const std::string& folder) {
  if (!config.new_store) return store::CheckStoreNotLost(config.data_directory, folder);
  if (!store::HasStore(folder)) return {};
  return Error(
      ErrorCode::kConflict,
      fmt::format("The folder '{}' contains a database. Leave out --new-store to use it, or move it away", folder));
}

std::string OwnStoreFolder(const Config& config) { return config.data_directory + "/store"; }

}  // namespace

std::string StoreFolder(const Config& config) {
  return config.store_directory.empty() ? OwnStoreFolder(config) : config.store_directory;
}

Result<std::shared_ptr<store::Store>> OpenClusterStore(const Config& config) {
  const std::string own = OwnStoreFolder(config);
  const std::string folder = StoreFolder(config);
  if (Status usable = CheckStoreFolder(config, folder); !usable) return usable.error();
  if (config.store_directory.empty() || IsSameFolder(config.store_directory, own)) {
    // Without a copy there is nothing to gain from giving up on a slow disk.
    return OpenFolder(own, store::FileCheckMode::kPath);
  }
  store::MirrorOptions mirror;
  mirror.directory = config.data_directory + "/mirror";
  if (!config.new_store) {
    const Status exists = store::CheckPrimaryExists(config.store_directory, mirror.directory);
    if (!exists) return exists.error();
  }
  auto primary = OpenFolder(config.store_directory, store::FileCheckMode::kFile);
  if (!primary) return primary.error();
  if (!config.new_store) {
    const Status is_current = store::CheckPrimaryIsNotOlder(**primary, mirror.directory);
    if (!is_current) return is_current.error();
  }
  mirror.on_change = [caches = config.data_directory + "/cache"] {
    records::InvalidateClusterStatus();
    InvalidateCaches(caches);
  };
  auto mirrored = store::MirroredStore::Make(*primary, std::move(mirror));
  if (mirrored) return std::shared_ptr<store::Store>(*std::move(mirrored));
  ::syslog(LOG_ERR, "There is no copy of the cluster database, so nothing is shown while it cannot be read: %s",
           mirrored.error().ToString().c_str());
  return *primary;
}

}  // namespace vexa::daemon
