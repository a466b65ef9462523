#include "host/daemon/cache_refresh.h"

#include <unistd.h>

#include <memory>
#include <utility>

#include "host/cluster/cache_paths.h"
#include "host/cluster/cache_refresher.h"
#include "webapi/guest/guest_uistate_cache.h"

namespace vexa::daemon {
namespace {

constexpr char kGroup[] = "virtualization";
constexpr char kGuestStates[] = "guest_ui_status";

}  // namespace

void InstallCacheRefresh() {
  auto refresher = std::make_unique<cluster::CacheRefresher>();
  refresher->Add(kGroup, kGuestStates, [] { return std::make_unique<VexaVirtualization::GuestUIStatusCache>(); });
  cluster::InstallCacheRefresher(std::move(refresher));
}

void FindOutAgain(const std::string& cache_directory) {
  const auto paths = cluster::PathsOfCache(cache_directory, kGroup, kGuestStates);
  if (!paths) return;
  ::unlink(paths->record.c_str());
  cluster::RequestCacheRefresh(kGroup, kGuestStates);
}

}  // namespace vexa::daemon
