#include "host/daemon/cache_refresh.h"

#include <memory>
#include <utility>

#include "host/cluster/cache_refresher.h"
#include "webapi/guest/guest_uistate_cache.h"

namespace vexa::daemon {

void InstallCacheRefresh() {
  auto refresher = std::make_unique<cluster::CacheRefresher>();
  refresher->Add("virtualization", "guest_ui_status",
                 [] { return std::make_unique<VexaVirtualization::GuestUIStatusCache>(); });
  cluster::InstallCacheRefresher(std::move(refresher));
}

}  // namespace vexa::daemon
